// The product itself: at its fixed paths, in a world that only this test sees, and how it was built.
#include <gtest/gtest.h>
#include <regex>

#include "tests/support/process.h"

namespace test {
namespace {

/// Hides the machine's own places behind empty ones and plays a recording.
constexpr char kSession[] = R"sh(
mount -t tmpfs none /mnt
cp "$@" /mnt
for place in /tmp /var/run /sys/devices/platform; do mount -t tmpfs none $place; done
mkdir /sys/devices/platform/dw_mmc.0
echo 1 >/sys/devices/platform/dw_mmc.0/CardDetect
echo 0 >/sys/devices/platform/dw_mmc.0/ReadOnly
/mnt/tavirn-record --test-pattern --size 160x120 --duration 2
/mnt/tavirn
/mnt/tavirn-ctl --wait 20 status
test "$(/mnt/count-pictures)" = "60 pictures"
kill "$(cat /var/run/tavirn.pid)"
while [ -e /var/run/tavirn.pid ] || [ -e /tmp/tavirn ]; do sleep 0.1; done
)sh";

TEST(Product, PlaysAtItsFixedPaths) {
    const World world;
    const std::string inPrivate =
        "exec env -u TAVIRN_ROOT unshare --mount --ipc --pid --mount-proc --kill-child ";
    Process trial({"/bin/sh", "-c", inPrivate + "mount -t tmpfs none /mnt"}, world.root());
    if (trial.wait() != 0) GTEST_SKIP() << "skipped: no private namespaces here: " << trial.errors();
    Process session({"/bin/sh", "-c", inPrivate + "sh -euc \"$0\" sh \"$@\"", kSession,
                     runnable(TAVIRN_PRODUCT, world.root()), runnable(TAVIRN_CTL, world.root()),
                     runnable(TAVIRN_CLIENT, world.root()), TAVIRN_RECORD},
                    world.root());
    EXPECT_EQ(session.wait(), 0) << session.output() << session.errors();
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
