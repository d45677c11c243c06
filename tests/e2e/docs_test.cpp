// What README.md and docs/*.md tell a reader to type, typed word for word. A block fenced as ```sh is run
// with `bash -euo pipefail`, each in a shell of its own, from a directory that looks like the tree's top,
// with this build as build/plain, an empty TMPDIR and no TAVIRN_ROOT. It has to end by itself and to leave
// nothing running. A block that installs, builds, needs a device or shows what comes out is fenced as
// ```console; this test lists it and does not run it. No other block may hold commands.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "platform/paths_rooted.h"
#include "tests/e2e/session.h"
#include "tests/support/recorded.h"

namespace test {
namespace {

namespace fs = std::filesystem;

struct Block {
    std::string where; ///< file and line
    std::string kind;  ///< what stands behind the opening fence
    std::string text;
};

std::vector<Block> blocksOf(const fs::path& page) {
    std::ifstream file(page);
    std::vector<Block> blocks;
    bool inside = false;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        if (line.starts_with("```")) {
            inside = !inside;
            const std::string where = page.filename().string() + ":" + std::to_string(number);
            if (inside) blocks.push_back({where, line.substr(3), ""});
        } else if (inside) {
            blocks.back().text += line + '\n';
        }
    }
    return blocks;
}

std::vector<Block> allBlocks() {
    std::vector<Block> all = blocksOf(TAVIRN_TREE "/README.md");
    for (const auto& entry : fs::directory_iterator(TAVIRN_DOCS))
        if (entry.path().extension() == ".md")
            for (Block& block : blocksOf(entry.path())) all.push_back(std::move(block));
    return all;
}

bool holdsCommands(const std::string& text) {
    for (const char* word : {"scripts/", "build/", "cmake ", "cpack", "tavirn-", "export ", "sudo ", "apt"})
        if (("\n" + text).find(std::string("\n") + word) != std::string::npos) return true;
    return false;
}

/// The tree with this build in it.
fs::path treeIn(const std::string& root) {
    const fs::path tree = root + "/tree";
    fs::create_directories(tree / "build/plain/tools");
    fs::create_directories(tree / "build/plain/daemon");
    for (const auto& entry : fs::directory_iterator(TAVIRN_TREE))
        if (!entry.path().filename().string().starts_with("build"))
            fs::create_symlink(entry.path(), tree / entry.path().filename());
    for (const char* tool : {TAVIRN_RECORD, TAVIRN_CTL, TAVIRN_VIEW})
        fs::create_symlink(tool, tree / "build/plain/tools" / fs::path(tool).filename());
    for (const char* daemon : {TAVIRN_PRODUCT, TAVIRN_ROOTED})
        fs::create_symlink(daemon, tree / "build/plain/daemon" / fs::path(daemon).filename());
    return tree;
}

/// Whether all that a block has started has ended, the daemons of the worlds below `directory` too. Those
/// that have not are ended.
bool leftNobody(const fs::path& directory) {
    const auto alone = [] { return waitpid(-1, nullptr, WNOHANG) < 0; }; // this process adopts the orphans
    if (eventually(alone, 5000)) return true;
    for (const auto& world : fs::directory_iterator(directory)) {
        pid_t pid = 0;
        std::ifstream(world.path() / "var/run/tavirn.pid") >> pid;
        if (pid > 1) kill(pid, SIGTERM);
    }
    eventually(alone, 5000);
    return false;
}

TEST(Docs, CommandBlocksRunWordForWord) {
#ifdef TAVIRN_CROSS
    GTEST_SKIP() << "a shell does not know of the emulator that the programs need";
#endif
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const World world;
    const fs::path tree = treeIn(world.root());
    int run = 0;
    for (const Block& block : allBlocks()) {
        SCOPED_TRACE(block.where);
        if (block.kind != "sh") {
            if (block.kind == "console") std::printf("%s is not run here\n", block.where.c_str());
            EXPECT_TRUE(block.kind == "console" || !holdsCommands(block.text)) << block.text;
            continue;
        }
        const std::string temporary =
            world.root() + "/" + std::to_string(++run); // short: a socket lies below
        fs::create_directory(temporary);
        Process shell({"/usr/bin/env", "-u", "TAVIRN_ROOT", "-C", tree, "TMPDIR=" + temporary, "timeout",
                       "120", "bash", "-euo", "pipefail", "-c", block.text},
                      world.root());
        EXPECT_EQ(shell.wait(150000), 0) << shell.output() << shell.errors();
        EXPECT_TRUE(leftNobody(temporary)) << block.text;
        if (!block.where.starts_with("README.md")) continue;

        // What the README's own session puts out: the picture that every session begins with, and then, after
        // the jump to the oldest one, all that there is.
        ASSERT_FALSE(fs::is_empty(temporary)) << "the block makes no world";
        const fs::path place = fs::directory_iterator(temporary)->path();
        setPathsRoot(place.c_str());
        const std::string first = recordedPictures({3}).at(0);
        EXPECT_TRUE(readFile(place / "out.h264") == first + joined(recordedPictures({1, 2, 3})))
            << "not the pictures that were recorded";
        setPathsRoot(world.root().c_str());
    }
}

} // namespace
} // namespace test
