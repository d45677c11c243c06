// A client of somebody else's: the example of the documents, built from what is installed.
#include <gtest/gtest.h>

#include "tests/support/card.h"
#include "tests/support/process.h"
#include "tools/tour/session.h"

namespace test {
namespace {

TEST(Client, BuiltFromWhatIsInstalledPlaysTheRecording) {
    const World world;
    Card(world).stream(1).from("12:00:00").pictures(45).gop(15).closed();
    const DaemonProcess daemon(world.root());
    EXPECT_EQ(runTool({TAVIRN_CLIENT}, world.root()), "45 pictures\n");
    EXPECT_EQ(Session::status(), "error") << "its session has ended";
}

} // namespace
} // namespace test
