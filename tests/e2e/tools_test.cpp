// What each tool says and returns, line by line as a person would type them.
#include <gmock/gmock.h>
#include <regex>
#include <span>
#include <sstream>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include "platform/api_db.h"
#include "platform/kw_com.h"
#include "platform/output_words.h"
#include "tests/support/card.h"
#include "tests/support/process.h"

namespace test {
namespace {

/// Starts a tool from a line as a person would type it: "ctl", "view", "record", "rooted", or "pattern" for a
/// small test pattern's recording. A "@" that begins a word is the world's directory, "_" a space.
Process startTool(const World& world, const std::string& line) {
    std::istringstream typed(line);
    std::string tool, word;
    typed >> tool;
    std::vector<std::string> words{tool == "ctl"      ? TAVIRN_CTL
                                   : tool == "view"   ? TAVIRN_VIEW
                                   : tool == "rooted" ? TAVIRN_ROOTED
                                                      : TAVIRN_RECORD};
    if (tool == "pattern") words.insert(words.end(), {"--test-pattern", "--size", "160x120"});
    while (typed >> word) {
        std::replace(word.begin(), word.end(), '_', ' ');
        if (word.starts_with('@')) word.replace(0, 1, world.root());
        words.push_back(word);
    }
    return {words, world.root()};
}

/// A line and what becomes of it; "@" is the world's directory in what it prints, too.
struct Step {
    const char* line;
    int code;
    const char* says = ""; ///< among what it prints
};

void expect(const World& world, std::span<const Step> steps) {
    for (const Step& step : steps) {
        Process tool = startTool(world, step.line);
        EXPECT_EQ(tool.wait(), step.code) << step.line << '\n' << tool.errors();
        const std::string said =
            std::regex_replace(tool.output() + tool.errors(), std::regex(world.root()), "@");
        EXPECT_THAT(said, testing::HasSubstr(step.says)) << step.line;
    }
}

TEST(Tools, SayWhatIsWrong) {
    const World world;
    writeFile(paths().index, "no database at all, but a text of some length");
    const Step steps[] = {
        {"ctl", 2, "tavirn-ctl: name a command; see tavirn-ctl --help\n"},
        {"ctl play --scale inf", 2, "--scale inf is no speed"},
        {"ctl --root @/none list", 3, "cannot read the index @/none/tmp/DB.dat: No such file"},
        {"ctl list", 3, "it is no recording index"},
        {"ctl --wait 0.05 status", 3, "cannot reach the daemon at @/tmp/tavirn: No such file"},
        {"view -o @/none/out --wait 1000", 1, "cannot create @/none/out: No such file"},
        {"view -o @/out", 3, "no session is open on @/tmp/shm9"},
        {"record", 2, "name a video file or give --test-pattern"},
        {"record --test-pattern --size 65x64", 2, "is no picture size"},
        {"record --test-pattern --size 4096x4096 --event 1:511", 2, "--event 1:511 is no alarm"},
        {"pattern --event 4 --duration 3 --split 2 --gap 1", 2, "end, 4 s by the clock"},
        {"pattern --duration 1", 1, "remove the file or name another place"},
        {"rooted --root @/none", 1, "tavirn-rooted: no world below @/none: no key file @/none/tmp/shm9"},
        {"rooted --root @/a_directory_whose_name_leaves_too_little_room_for_that_of_the_control_socket_in_it",
         6, "is longer than 107 bytes"},
    };
    expect(world, steps);
    EXPECT_FALSE(fileExists(world.root() + "/out"));
    EXPECT_NE(shmget(world.outputKey(), 4096, IPC_CREAT | 0600), -1); // somebody else's
    EXPECT_NE(semget(world.outputKey(), 1, IPC_CREAT | 0600), -1);
    expect(world, {{{"view --wait 1000", 4, "the memory of @/tmp/shm9 is no output memory of this system"}}});
    mkdir(paths().controlSocket, 0700);
    expect(world, {{{"rooted", 6, "/tmp/tavirn is no socket"}}});
    rmdir(paths().controlSocket);
    writeFile(paths().pidFile, "");
    expect(world, {{{"rooted", 5, "@/var/run/tavirn.pid holds no process id"}}});
    writeFile(paths().pidFile, std::to_string(getpid()));
    expect(world, {{{"rooted", 5, "a daemon serves this world, process "}}});
    remove(paths().pidFile);
    remove(paths().cardReadOnly);
    expect(world, {{{"rooted", 1, "ReadOnly (No such file or directory); make it with tavirn-record"}}});
    rmdir((world.root() + "/var/run").c_str());
    expect(world, {{{"rooted", 1, "cannot write to @/var/run"}}});
}

TEST(Tools, RecordBehindTheNewestAndLeaveNothingThatCannotBeOpened) {
    const World world;
    Card(world).stream(1).from("12:00:00").pictures(3).gop(2).fps(10).recording();
    Card(world).stream(2).from("12:01:00").pictures(2).gop(2).recording();
    const Step steps[] = {
        {"pattern --duration 0.5 --fps 2", 1,
         "note: finished 1 stream that a recorder had left open\n"
         "note: removed 1 stream that a recorder had left open, too short"},
        {"pattern --duration 0.5 --fps 2", 1, "two I-pictures at least, and there is only one"},
        {"record --test-pattern --chunk-size 64K", 1, "two GOPs do not fit into a chunk"},
        {"pattern --start 2037-01-02_03:04:05 --duration 1", 0,
         "1 stream, 30 pictures of 160x120 at 30 fps (encoded)"},
        {"pattern --duration 2 --split 1 --gap 3 --event 0.5:600 --event 4.5", 0, "2 alarms\n"},
        {"pattern --start 2037-01-02_03:04:05.500 --fps 1 --duration 2 --json", 0,
         "note: stream 2 covers part of the same time"},
        {"ctl list", 0,
         R"(  stream  start                    end                            length    fps  pictures  chunk
       1  2024-01-02 12:00:00.000  2024-01-02 12:00:00.200     0:00:00.2   10.0         3  1
       2  2037-01-02 03:04:05.000  2037-01-02 03:04:05.966     0:00:01.0   30.0        30  4
       3  2037-01-02 03:04:06.966  2037-01-02 03:04:07.932     0:00:01.0   30.0        30  5
       4  2037-01-02 03:04:10.966  2037-01-02 03:04:11.932     0:00:01.0   30.0        30  5
       5  2037-01-02 03:04:05.500  2037-01-02 03:04:06.500     0:00:01.0    1.0         2  6

   alarm  start                    end                            length  trigger
       1  2037-01-02 03:04:07.466  2037-01-02 03:04:10.466     0:00:03.0  600
       2  2037-01-02 03:04:11.466  2037-01-02 03:04:11.932     0:00:00.5  512
)"},
    };
    expect(world, steps);
    Process recorder = startTool(world, "pattern --duration 100000");
    EXPECT_TRUE(eventually([] {
        DB_STREAM row{};
        return CApiDb().selectStream(6, &row) != 0;
    }));
    expect(world, {{{"pattern --duration 1", 1, "another tavirn-record writes to this world"}}});
    EXPECT_EQ(recorder.stop(SIGINT), 1);
    EXPECT_THAT(recorder.errors(), testing::HasSubstr("tavirn-record: interrupted after "));
    EXPECT_GE(Card(world).row(6).recSize, 31u) << "as far as the second I-picture";
}

TEST(Tools, ViewWhatTheOptionsAskFor) {
    const std::string other("\0\0\0\1\x09\xF0\0\0\1\x41other", 15),
        first("\0\0\0\1\x67s\0\0\0\1\x65picture", 18),
        older = "an older file, longer than what comes now, which must not shine through";
    const World world;
    KW_SHM memory{};
    ASSERT_EQ(shm_create(paths().ipcKey, kOutputMemoryProject, &memory, 1, 1000, 10000, 30, 0), 0);
    unsigned long stamp = 0;
    for (const std::string& block : {other, first, other, std::string(kPauseBlock)})
        shm_write_data(&memory, block.data(), block.size(), 0, 0, 0, stamp += 3000, 0);
    const struct {
        const char* options;
        std::string kept, says = "";
    } cases[] = {
        {"-o @/out --until-pause --from-any --list @/list", other + first + other},
        {"-o @/out --pictures 1 --stats", first, "pictures         1\nbytes            18\n"},
        {"-o @/out --pictures 4 --duration 0.05 --json", first + other,
         R"({"pictures":2,"bytes":33,"pauseBlocks":1,"missedBlocks":0,"runs":1,"firstStamp":6000,)"
         R"("lastStamp":9000,"stampIncrement":{"min":3000,"median":3000,"max":3000}})"},
        {"--until-pause", older, "PAUSE blocks     1\nmissed blocks    0\nruns             1\n"},
    };
    for (const auto& [options, kept, says] : cases) {
        writeFile(world.root() + "/out", older);
        Process view = startTool(world, std::string("view --from-oldest ") + options);
        EXPECT_EQ(view.wait(), 0) << view.errors();
        EXPECT_EQ(readFile(world.root() + "/out"), kept) << options;
        EXPECT_THAT(view.output() + view.errors(), testing::HasSubstr(says));
    }
    EXPECT_THAT(readFile(world.root() + "/list"),
                testing::MatchesRegex("1 3000 [0-9.]+ 15\n2 6000 .* 18\n3 9000 .* 15\n4 12000 .* PAUSE\n"));
    expect(world, {{{"view -o @/later --duration 0.05", 0}}});
    EXPECT_EQ(readFile(world.root() + "/later"), "") << "nothing has come since";
    Process toNobody(
        {"/bin/sh", "-c", "\"$0\" --from-oldest --list - | head -n 1", runnable(TAVIRN_VIEW, world.root())},
        world.root());
    EXPECT_EQ(toNobody.wait(), 0) << "it waits for blocks that nobody reads";
    shm_destroy(&memory);
}

TEST(Tools, ReturnWithTheEffectOrSayWhyThereIsNone) {
    const World world;
    Card(world).stream(1).from("12:00:00").pictures(3000).closed();
    Process early = startTool(world, "ctl --wait 20 open");
    DaemonProcess daemon(world.root());
    EXPECT_EQ(early.wait(), 0) << early.errors();
    Process ended = startTool(world, "view --wait 20 -o @/ended --from-oldest");
    EXPECT_TRUE(eventually([&] { return fileExists(world.root() + "/ended"); }));
    const Step steps[] = {
        {"ctl teardown --session 0", 0},
        {"ctl play", 1, "no session is open"},
        {"ctl teardown", 1, "no session is open"},
        {"ctl open", 0, "000000016742c01ed90141fb01100000000168cb83cb20\n"},
        {"ctl open", 1, "already open"},
        {"ctl play", 1, "has no number yet"},
        {"ctl teardown", 1, "not session 1"},
        {"ctl session 2", 0},
        {"ctl play", 1, "session 1 has not taken it"},
        {"ctl play --session 2 --jump oldest", 0},
        {"ctl status --session 2", 0, "pause(sof)\n"},
        {"ctl play --session 2 --jump latest", 0},
        {"ctl status --session 2 --json", 0, "{\"status\":\"pause(eof)\"}\n"},
        {"ctl play --session 2 --scale -4", 0},
        {"ctl status --session 2", 0, "play\n"},
        {"ctl pause --session 2", 0},
        {"ctl status --session 2", 0, "pause\n"},
        {"ctl teardown --session 2", 0},
        {"ctl status", 0, "init\nno session is open\n"},
    };
    expect(world, steps);
    EXPECT_EQ(ended.wait(), 0) << ended.errors();
    Process left = startTool(world, "view --wait 20 -o @/left");
    expect(world, {{{"ctl open", 0}}});
    EXPECT_TRUE(eventually([&] { return fileExists(world.root() + "/left"); }));
    shmctl(shmget(world.outputKey(), 0, 0), IPC_RMID, nullptr);
    expect(world, {{{"ctl session", 0}, {"ctl play", 0}}}); // seen by the status alone
    daemon.stop(SIGKILL);
    EXPECT_EQ(left.wait(), 5) << left.errors();
}

} // namespace
} // namespace test
