// Each kind of call that a session makes into the system fails once, and from then on, as the first, the
// second, the third ... of its kind.
#include <sys/sem.h>
#include <sys/shm.h>

#include "tests/daemon/session_fixture.h"
#include "tests/support/process.h"

namespace test {
namespace {

/// What a client sees of a session: the answer to the open, and the status word once it has played for some
/// passes.
using Seen = std::pair<OpenAnswer, std::string>;
const Seen kWell{OpenAnswer::opened, "play"}, kNoOutput{OpenAnswer::opened, "pause"};
const Seen kSearchFailed{OpenAnswer::searchFailed, "error"}, kSetUpFailed{OpenAnswer::setUpFailed, "error"};

constexpr int kUntilItPlays = 1'000'000;

struct FailingCalls : SessionTest {
    FailingCalls() {
        simulated::hold();
        card.stream(1).from("12:00:00").pictures(90).gop(10).closed();
        EXPECT_TRUE(play(kUntilItPlays) == kWell) << "with nothing failing";
        before = openFiles();
    }
    ~FailingCalls() override { simulated::resume(); }

    /// A session from open to teardown. Time passes as its thread sleeps, if there is one.
    Seen play(int looks = 100) {
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
        return {answer, word};
    }
    void leaveNothing() {
        EXPECT_TRUE(play(kUntilItPlays) == kWell) << "works again";
        // What a thread keeps of the card goes with it, which may be a little after the session.
        EXPECT_TRUE(eventually([&] { return openFiles() <= before; })) << openFiles() << " not " << before;
        EXPECT_EQ(semctl(semget(world.statusKey(), 1, 0), 0, GETVAL), 1) << "nobody holds it";
        EXPECT_EQ(shmget(world.outputKey(), 0, 0), -1);
        EXPECT_EQ(semget(world.outputKey(), 0, 0), -1);
    }

    Card card{world};
    std::ptrdiff_t before = 0;
};

TEST_F(FailingCalls, EndInADocumentedAnswerAndLeaveNothing) {
    const std::pair<const char*, Seen> rows[] = {
        // what comes of it when none succeeds
        {"open", kSearchFailed}, {"pread", kSearchFailed},      {"malloc", kSearchFailed},
        {"shmget", kNoOutput},   {"shmat", kNoOutput},          {"semget", kNoOutput},
        {"semop", kNoOutput},    {"pthread_create", kNoOutput},
    };
    for (const auto& [call, none] : rows) {
        for (const bool forGood : {true, false}) {
            bool reached = true;
            // One by one through the set-up; later ones repeat themselves, so that steps may grow.
            for (long n = 1; reached && !HasFailure(); n += 1 + n / 8) {
                SCOPED_TRACE(call + std::to_string(n) + (forGood ? " for good" : ""));
                failing::arm(call, n, forGood);
                const Seen seen = play();
                reached = failing::reached();
                failing::arm(nullptr);
                EXPECT_TRUE(seen == none || n > 1 || !forGood) << seen.second;
                const bool goesOn = seen.second.starts_with("p") || forGood; // plays or pauses
                EXPECT_TRUE(seen == kSearchFailed || seen == kSetUpFailed ||
                            (seen.first == OpenAnswer::opened && goesOn))
                    << seen.second;
                leaveNothing();
            }
        }
    }
}

} // namespace
} // namespace test
