// In place of the fuzzer: runs the target over every file of a directory.
#include <cstdio>
#include <filesystem>

#include "fuzz/input.h"
#include "tests/support/world.h"

int main(int, char** argv) {
    int runs = 0;
    for (const auto& file : std::filesystem::directory_iterator(argv[1])) {
        std::fprintf(stderr, "%s\n", file.path().c_str()); // the last one is the one to blame
        const std::string input = test::readFile(file.path());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
        ++runs;
    }
    std::printf("%d inputs\n", runs);
    return runs > 0 ? 0 : 1;
}
