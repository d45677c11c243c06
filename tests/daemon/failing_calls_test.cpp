// Each kind of call that a session makes into the system fails once, and from then on, as the first, the
// second, the third ... of its kind.
#include <cerrno>
#include <sqlite3.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include "tests/daemon/session_fixture.h"

namespace test {
namespace {

/// What a client sees of a session.
struct Seen {
    OpenAnswer open = OpenAnswer::malformed;
    std::string word; ///< its status, once it has played for some passes
    bool operator==(const Seen&) const = default;
};
const Seen kWell{OpenAnswer::opened, "play"};
const Seen kNoOutput{OpenAnswer::opened, "pause"};
const Seen kSearchFailed{OpenAnswer::searchFailed, "error"};
const Seen kSetUpFailed{OpenAnswer::setUpFailed, "error"};

constexpr int kLooks = 100, kUntilItPlays = 1'000'000;

struct FailingCalls : SessionTest {
    FailingCalls() {
        card.stream(1).from("12:00:00").pictures(90).gop(10).closed();
        EXPECT_TRUE(play(kUntilItPlays) == kWell) << "with nothing failing";
        before = openFiles();
    }

    /// A session from open to teardown. Time passes as its thread sleeps, if there is one.
    Seen play(int looksAtMost) {
        Seen seen;
        simulated::hold();
        ask(RTSP_REQ_SESSION, "1");
        seen.open = readOpenAnswer(ask(RTSP_REQ_OPEN, ""));
        ask(RTSP_REQ_PLAY, "1", "Jump: oldest");
        for (int looks = 0, passes = 0; looks < looksAtMost && passes < 20; ++looks) {
            ask(RTSP_REQ_PLAY, "1");
            const auto sleeps = simulated::takeSleeps();
            for (const timeval& span : sleeps) simulated::advance(span);
            passes += !sleeps.empty();
            if (sleeps.empty()) usleep(20);
        }
        seen.word = ask(RTSP_REQ_STATUS, "1");
        simulated::freeze(); // the thread has to come out of its pause
        ask(RTSP_REQ_TEARDOWN, "");
        return seen;
    }
    void leaveNothing() {
        EXPECT_TRUE(play(kUntilItPlays) == kWell) << "works again";
        EXPECT_EQ(openFiles(), before);
        EXPECT_EQ(semctl(semget(world.statusKey(), 1, 0), 0, GETVAL), 1) << "nobody holds it";
        EXPECT_EQ(shmget(world.outputKey(), 0, 0), -1);
        EXPECT_EQ(semget(world.outputKey(), 0, 0), -1);
    }

    Card card{world};
    std::ptrdiff_t before = 0;
};

TEST_F(FailingCalls, EndInADocumentedAnswerAndLeaveNothing) {
    const struct {
        const char* call;
        int error;
        Seen none; ///< when none succeeds
    } rows[] = {
        {"open", EMFILE, kSearchFailed},       {"pread", EIO, kSearchFailed},
        {"malloc", ENOMEM, kSearchFailed},     {"shmget", ENOMEM, kNoOutput},
        {"shmat", ENOMEM, kNoOutput},          {"semget", ENOSPC, kNoOutput},
        {"pthread_create", EAGAIN, kNoOutput}, {"semop", EIDRM, kNoOutput},
    };
    for (const auto& [call, error, none] : rows) {
        for (const bool forGood : {true, false}) {
            bool reached = true;
            // One by one through the set-up; later ones repeat themselves, so that steps may grow.
            for (long n = 1; reached && !HasFailure(); n += 1 + n / 8) {
                SCOPED_TRACE(call + std::to_string(n) + (forGood ? " for good" : ""));
                failing::arm(call, error, n, forGood);
                const Seen seen = play(kLooks);
                reached = failing::reached();
                failing::arm(nullptr);
                EXPECT_TRUE(seen == none || n > 1 || !forGood) << seen.word;
                const bool goesOn = seen.word.starts_with("p") || forGood; // plays or pauses
                EXPECT_TRUE(seen == kSearchFailed || seen == kSetUpFailed ||
                            (seen.open == OpenAnswer::opened && goesOn))
                    << seen.word;
                leaveNothing();
            }
        }
    }
}

TEST_F(FailingCalls, OfSqliteForMemoryFailTheSearch) {
    Seen seen;
    for (int64_t bytes = 1000; seen.open != OpenAnswer::opened && !HasFailure(); bytes += bytes / 8) {
        sqlite3_hard_heap_limit64(sqlite3_memory_used() + bytes);
        seen = play(kLooks);
        sqlite3_hard_heap_limit64(0);
        EXPECT_TRUE(seen == kSearchFailed || seen.open == OpenAnswer::opened) << seen.word;
        leaveNothing();
    }
}

} // namespace
} // namespace test
