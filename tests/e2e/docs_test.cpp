// What README.md and docs/*.md tell a reader to type, typed word for word. A block fenced as ```sh is run
// with `bash -euo pipefail`, each in a shell of its own, from a directory that looks like the tree's top,
// with this build as build/plain, an empty TMPDIR and no TAVIRN_ROOT. It has to end by itself and to leave
// nothing running. A block that installs, builds, needs a device or shows what comes out is fenced as
// ```console and not run. No other block may hold commands.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "tests/support/process.h"
#include "tools/recording/recording_reader.h"

namespace test {
namespace {

namespace fs = std::filesystem;

/// What stands behind its opening fence, and its text.
const std::regex kBlock("\n```(.*)(\n[\\s\\S]*?)\n```");
const std::regex kCommand("\n(scripts/|build/|cmake |cpack|tavirn-|export |sudo |apt)");

/// The tree with this build in it.
fs::path treeIn(const std::string& root) {
    const fs::path tree = root + "/tree";
    for (const char* folder : {"tools", "daemon"}) fs::create_directories(tree / "build/plain" / folder);
    for (const auto& entry : fs::directory_iterator(TAVIRN_TREE))
        if (!entry.path().filename().string().starts_with("build"))
            fs::create_symlink(entry.path(), tree / entry.path().filename());
    for (const char* tool : {TAVIRN_RECORD, TAVIRN_CTL, TAVIRN_VIEW})
        fs::create_symlink(tool, tree / "build/plain/tools" / fs::path(tool).filename());
    for (const char* daemon : {TAVIRN_PRODUCT, TAVIRN_ROOTED})
        fs::create_symlink(daemon, tree / "build/plain/daemon" / fs::path(daemon).filename());
    return tree;
}

/// Whether all that a block has started has ended, its daemon too. What has not is ended.
bool leftNobody() {
    if (eventually([] { return waitpid(-1, nullptr, WNOHANG) < 0; }, 5000)) return true;
    std::ifstream children("/proc/thread-self/children"); // orphans too: this process adopts them
    for (pid_t child; children >> child;) kill(child, SIGKILL);
    return false;
}

TEST(Docs, CommandBlocksRunWordForWord) {
#ifdef TAVIRN_CROSS
    GTEST_SKIP() << "a shell does not know of the emulator that the programs need";
#endif
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const World world;
    const fs::path tree = treeIn(world.root());
    std::vector<fs::path> pages{TAVIRN_TREE "/README.md"};
    for (const auto& entry : fs::directory_iterator(TAVIRN_DOCS))
        if (entry.path().extension() == ".md") pages.push_back(entry.path());
    int run = 0;
    for (const fs::path& page : pages) {
        const std::string content = readFile(page);
        for (std::sregex_iterator block(content.begin(), content.end(), kBlock), end; block != end; ++block) {
            const std::string kind = (*block)[1], text = (*block)[2];
            SCOPED_TRACE(page.string() + text);
            EXPECT_TRUE(kind == "sh" || kind == "console" || !std::regex_search(text, kCommand));
            if (kind != "sh") continue;
            const std::string temporary =
                world.root() + "/" + std::to_string(++run); // short: a socket lies below
            fs::create_directory(temporary);
            Process shell({"/usr/bin/env", "-u", "TAVIRN_ROOT", "-C", tree, "TMPDIR=" + temporary, "timeout",
                           "120", "bash", "-euo", "pipefail", "-c", text},
                          world.root());
            EXPECT_EQ(shell.wait(150000), 0) << shell.output() << shell.errors();
            EXPECT_TRUE(leftNobody());
        }
    }
    // The README's session, the first block of all, promises the whole recording behind the picture that
    // every session begins with.
    const fs::path place = fs::directory_iterator(world.root() + "/1")->path();
    std::string recorded;
    for (const RecordedPicture& picture : readRecording(place / "tmp/DB.dat", place / "mnt/card"))
        recorded += picture.data;
    EXPECT_TRUE(readFile(place / "out.h264").ends_with(recorded)) << "not the pictures that were recorded";
}

} // namespace
} // namespace test
