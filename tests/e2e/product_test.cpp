// The product itself, with its fixed paths, in a world that only this test sees.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <regex>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include "platform/paths_rooted.h"
#include "tests/e2e/session.h"
#include "tests/support/card.h"

namespace test {
namespace {

/// Hides the machine's own places behind empty ones; the name of the step that failed, or null.
const char* privateWorld() {
    if (unshare(CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWPID) != 0) return "unshare";
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "mount / private";
    for (const char* place : {"/tmp", "/var/run", "/mnt", "/sys/devices/platform"}) {
        if (mount("none", place, "tmpfs", 0, nullptr) != 0) return place;
    }
    return nullptr;
}

/// The whole road at the fixed paths, inside the private world; 0 or the number of the step that went wrong.
int playWithTheProduct(const std::string& product) {
    setPathsRoot("");
    writeFile("/mnt/tavirn", product); // its own place may be one of those hidden
    std::filesystem::permissions("/mnt/tavirn", std::filesystem::perms::owner_all);
    std::filesystem::create_directories(paths().card);
    std::filesystem::create_directories(std::filesystem::path(paths().cardDetect).parent_path());
    writeFile(paths().cardDetect, "1");
    writeFile(paths().cardReadOnly, "0");
    writeFile(paths().ipcKey, "");
    Card({paths().card, paths().index}).stream(1).from("12:00:00").pictures(45).gop(15).closed();

    Process starter({"/mnt/tavirn"}, "/tmp");
    if (starter.wait() != 0) return 1;
    if (!eventually([] { return exchange(paths().controlSocket, ControlRequest(0).record).has_value(); }))
        return 2;
    Viewer viewer;
    if (viewer.open() != OpenAnswer::opened) return 3;
    viewer.registerSession();
    viewer.play();
    if (!eventually([&] { return viewer.status() == "pause(eof)"; })) return 4;
    const auto pid = static_cast<pid_t>(std::atol(readFile(paths().pidFile).c_str()));
    if (kill(pid, SIGTERM) != 0) return 5;
    if (!eventually([] { return !fileExists(paths().pidFile) && !fileExists(paths().controlSocket); }))
        return 6;
    return 0;
}

TEST(Product, PlaysAtItsFixedPaths) {
    const std::string product = readFile(TAVIRN_PRODUCT);
    int reason[2];
    ASSERT_EQ(pipe(reason), 0);
    const pid_t outer = fork();
    if (outer == 0) {
        if (const char* step = privateWorld()) {
            const std::string text = std::string(step) + ": " + std::strerror(errno);
            _exit(write(reason[1], text.data(), text.size()) > 0 ? 77 : 78);
        }
        const pid_t inner = fork(); // process 1 of the new world: when it ends, so does everything in it
        if (inner == 0) _exit(playWithTheProduct(product));
        _exit(waitForEnd(inner, 60000));
    }
    const int code = waitForEnd(outer, 90000);
    if (code == 77) {
        char text[200]{};
        EXPECT_GT(read(reason[0], text, sizeof text - 1), 0);
        close(reason[0]);
        close(reason[1]);
        GTEST_SKIP() << "skipped: this machine allows no private namespaces (" << text << ")";
    }
    close(reason[0]);
    close(reason[1]);
    EXPECT_EQ(code, 0) << "step " << code << " went wrong";
}

TEST(Product, IsHardened) {
    if (TAVIRN_SANITIZED) GTEST_SKIP() << "skipped: the sanitizers replace the checked copies";
    const World world;
    const std::string told =
        runTool({"/usr/bin/readelf", "-W", "-h", "-l", "-d", "--dyn-syms", TAVIRN_PRODUCT}, world.root());
    for (const char* sign : {
             "Type: +DYN ",                 // position-independent
             "GNU_RELRO",                   // relocations become read-only ...
             "FLAGS_1.*NOW.*PIE",           // ... all of them before main
             "GNU_STACK[ 0-9xa-f]+ RW +0x", // not executable
             "__stack_chk_fail",            // stack protector
             "__[a-z]+_chk@",               // _FORTIFY_SOURCE
         })
        EXPECT_TRUE(std::regex_search(told, std::regex(sign))) << sign << " is missing in\n" << told;
}

} // namespace
} // namespace test
