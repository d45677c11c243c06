#include "daemon/pid_file.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/log.h"
#include "platform/paths.h"
#include "tests/support/log_recorder.h"
#include "tests/support/world.h"

namespace {

TEST(PidFile, IsWrittenUnlessAnotherInstanceMayRun) {
    const std::string mine = std::to_string(getpid());
    const pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    const std::string ended = std::to_string(child);
    const struct {
        std::string before;
        int result;
    } cases[] = {
        {ended + "\n", 0},
        {ended + " and more than sixteen bytes", 0},
        {"9999999999999999", 0}, // beyond every pid, also once it has been narrowed
        {" " + mine + "xyz", -1},
        {"", -1},
        {"letters", -2},
        {"0\n", -2},
        {std::string(16, ' ') + mine, -2}, // behind the bytes read
    };
    for (const auto& [before, result] : cases) {
        const test::World world;
        const test::LogRecorder log;
        test::writeFile(paths().pidFile, before);
        EXPECT_EQ(createPidFile(), result) << before;
        EXPECT_EQ(test::readFile(paths().pidFile), result == 0 ? mine + "\n" : before);
        EXPECT_EQ(log.dump().empty(), !before.empty()) << log.dump();
        EXPECT_EQ(log.has(LOG_ERR, "fread error(Success)", "createPidFile"), before.empty()) << log.dump();
    }
}

TEST(PidFile, IsNotWrittenThroughALink) {
    const test::World world;
    const test::LogRecorder log;
    const std::string target = world.root() + "/victim";
    ASSERT_EQ(symlink(target.c_str(), paths().pidFile), 0);
    EXPECT_EQ(createPidFile(), -6);
    EXPECT_FALSE(test::fileExists(target));
    EXPECT_EQ(log.lines().at(0).format, "%s(%d) fopen error(%m)");
}

} // namespace
