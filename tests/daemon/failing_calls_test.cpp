// Each kind of call that a session makes into the system fails once, and from then on, as the first, the
// second, the third ... of its kind.
#include <sys/sem.h>
#include <sys/shm.h>

#include "tests/daemon/session_fixture.h"
#include "tests/support/process.h"

namespace test {
namespace {

constexpr int kUntilItPlays = 1'000'000;

struct FailingCalls : SessionTest {
    /// A session from open to teardown: the status word once it has played for some passes. Time passes as
    /// its thread sleeps, if there is one.
    std::string play(int looks) {
        ask(RTSP_REQ_SESSION, "1");
        const OpenAnswer answer = readOpenAnswer(ask(RTSP_REQ_OPEN, ""));
        EXPECT_TRUE(answer == OpenAnswer::opened || answer == OpenAnswer::searchFailed ||
                    answer == OpenAnswer::setUpFailed);
        ask(RTSP_REQ_PLAY, "1", "Jump: oldest");
        for (int passes = 0; looks > 0 && passes < 20; --looks) {
            ask(RTSP_REQ_PLAY, "1");
            const auto sleeps = simulated::takeSleepsUs();
            for (const int64_t us : sleeps) simulated::advanceUs(us);
            passes += !sleeps.empty();
            if (sleeps.empty()) usleep(20);
        }
        const std::string word = ask(RTSP_REQ_STATUS, "1");
        ask(RTSP_REQ_TEARDOWN, "");
        return word;
    }
};

TEST_F(FailingCalls, EndInADocumentedAnswerAndLeaveNothing) {
    const std::pair<const char*, const char*> rows[] = {
        // the word when none succeeds
        {"open", "error"},  {"pread", "error"},  {"malloc", "error"}, {"shmget", "pause"},
        {"shmat", "pause"}, {"semget", "pause"}, {"semop", "pause"},  {"pthread_create", "pause"},
    };
    Card(world).stream(1).from("12:00:00").pictures(90).gop(10).closed();
    EXPECT_EQ(play(kUntilItPlays), "play");
    const auto before = openFiles();
    for (const auto& [call, none] : rows) {
        for (const bool forGood : {true, false}) {
            bool reached = true;
            // One by one through the set-up; later ones repeat themselves, so that steps may grow.
            for (long n = 1; reached && !HasFailure(); n += 1 + n / 8) {
                SCOPED_TRACE(call + std::to_string(n) + (forGood ? " for good" : ""));
                failing::arm(call, n, forGood);
                const std::string word = play(100);
                reached = failing::reached();
                failing::arm(nullptr);
                EXPECT_TRUE(word == none || n > 1 || !forGood) << word;
                EXPECT_EQ(play(kUntilItPlays), "play") << "works again";
                // What a thread keeps of the card goes with it, which may be a little after the session.
                EXPECT_TRUE(eventually([&] { return openFiles() <= before; })) << openFiles();
                EXPECT_EQ(semctl(semget(world.statusKey(), 1, 0), 0, GETVAL), 1) << "nobody holds it";
                EXPECT_EQ(shmget(world.outputKey(), 0, 0) + semget(world.outputKey(), 0, 0), -2);
            }
        }
    }
}

} // namespace
} // namespace test
