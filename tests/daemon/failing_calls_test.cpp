// Each kind of call that a session makes into the system fails once, and from then on, as the first, the
// second, the third ... of its kind.
#include <sys/sem.h>
#include <sys/shm.h>

#include "tests/daemon/session_fixture.h"
#include "tests/support/process.h"

namespace test {
namespace {

struct FailingCalls : SessionTest {
    /// A session from open to teardown: the status word once it has played for some passes, or that it was
    /// refused. Time passes as its thread sleeps, if there is one.
    std::string play(int looks = 1'000'000) {
        ask(RTSP_REQ_SESSION, "1");
        const OpenAnswer answer = readOpenAnswer(ask(RTSP_REQ_OPEN, ""));
        ask(RTSP_REQ_PLAY, "1", "Jump: oldest");
        for (int passes = 0; looks > 0 && passes < 20; --looks) {
            ask(RTSP_REQ_PLAY, "1");
            const auto sleeps = simulated::takeSleeps();
            for (const timeval& span : sleeps) simulated::advance(span);
            passes += !sleeps.empty();
            if (sleeps.empty()) usleep(20);
        }
        const std::string word = ask(RTSP_REQ_STATUS, "1");
        ask(RTSP_REQ_TEARDOWN, "");
        if (answer == OpenAnswer::opened) return word;
        EXPECT_TRUE(answer == OpenAnswer::searchFailed || answer == OpenAnswer::setUpFailed);
        EXPECT_EQ(word, "error");
        return "refused";
    }
};

TEST_F(FailingCalls, EndInADocumentedAnswerAndLeaveNothing) {
    const std::pair<const char*, const char*> rows[] = {
        // what comes of it when none succeeds
        {"open", "refused"}, {"pread", "refused"}, {"malloc", "refused"}, {"shmget", "pause"},
        {"shmat", "pause"},  {"semget", "pause"},  {"semop", "pause"},    {"pthread_create", "pause"},
    };
    Card(world).stream(1).from("12:00:00").pictures(90).gop(10).closed();
    EXPECT_EQ(play(), "play");
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
                EXPECT_TRUE(forGood ? n > 1 || word == none : word != "error") << word;
                EXPECT_EQ(play(), "play") << "works again";
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
