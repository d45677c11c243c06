// In place of the fuzzer: runs the target over every file it is given, and every file of a directory.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/input.h"

namespace {

int runs = 0;

void run(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    const std::vector<char> content(std::istreambuf_iterator<char>(stream), {});
    const std::vector<uint8_t> bytes(content.begin(), content.end());
    std::fprintf(stderr, "%s\n", file.c_str()); // the last one is the one to blame
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    ++runs;
}

} // namespace

int main(int argc, char** argv) {
    for (int n = 1; n < argc; ++n) {
        if (std::filesystem::is_directory(argv[n]))
            for (const auto& entry : std::filesystem::directory_iterator(argv[n])) run(entry.path());
        else
            run(argv[n]);
    }
    std::printf("%d inputs\n", runs);
    return runs > 0 ? 0 : 1;
}
