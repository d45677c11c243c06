// tavirn-ctl: each command returns when the next one can build on it, or says what became of it.
#include <sstream>

#include "tests/e2e/session.h"
#include "tests/support/card.h"

namespace test {
namespace {

TEST(ControlTool, ReturnsWithTheEffectOrSaysWhyThereIsNone) {
    World world;
    Card(world).stream(1).from("12:00:00").pictures(3000).closed();
    Process early({TAVIRN_CTL, "--wait", "20", "open"}, world.root());
    DaemonProcess daemon(world.root());
    ASSERT_TRUE(daemon.serving());
    EXPECT_EQ(early.wait(), 0) << early.errors();
    runTool({TAVIRN_CTL, "teardown", "--session", "0"}, world.root());

    struct Step {
        const char* command;
        int code;
        const char* says; ///< on standard output, or as part of the error
    };
    for (const Step& step : std::initializer_list<Step>{
             {"begin", 2, "'begin' is no command; there are open, session, play"},
             {"play --scale inf", 2, "is no speed"},
             {"--root '' list", 2, "name a directory"},
             {"status", 0, "init\n"},
             {"session 1", 1, "no session is open"},
             {"play", 1, "no session is open"},
             {"teardown", 1, "no session is open"},
             {"open", 0, "00000001"},
             {"open", 1, "already open"},
             {"play", 1, "has no number yet"},
             {"teardown", 1, "not session 1"},
             {"session 2", 0, ""},
             {"session 3", 1, "another number is"},
             {"play", 1, "session 1 has not taken it"},
             {"status", 1, "another session number is registered"},
             {"play --session 2 --jump oldest", 0, ""},
             {"status --session 2", 0, "pause(sof)\n"},
             {"play --session 2", 0, ""},
             {"status --session 2", 0, "play\n"},
             {"play --session 2 --jump latest", 0, ""},
             {"status --session 2 --json", 0, "{\"status\":\"pause(eof)\"}\n"},
             {"play --session 2 --scale -4", 0, ""},
             {"status --session 2", 0, "play\n"},
             {"pause --session 2", 0, ""},
             {"status --session 2", 0, "pause\n"},
             {"teardown --session 2", 0, ""},
             {"status", 0, "init\n"},
         }) {
        std::vector<std::string> command{TAVIRN_CTL};
        std::istringstream words(step.command);
        for (std::string word; words >> word;) command.push_back(word == "''" ? "" : word);
        Process ctl(command, world.root());
        EXPECT_EQ(ctl.wait(), step.code) << step.command << ": " << ctl.errors();
        const std::string said = step.code == 0 ? ctl.output() : ctl.errors();
        EXPECT_NE(said.find(step.says), std::string::npos) << step.command << ": " << said;
    }
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
    EXPECT_NE(runTool({TAVIRN_CTL, "--wait", "0.1", "status"}, world.root(), 3), "init\n");
}

} // namespace
} // namespace test
