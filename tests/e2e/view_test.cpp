// tavirn-view on an output memory that the test itself writes.
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "platform/kw_com.h"
#include "tests/e2e/session.h"

namespace test {
namespace {

const std::string kOther("\0\0\0\1\x09\xF0\0\0\1\x41other", 15);
const std::string kIPicture("\0\0\0\1\x67sets\0\0\0\1\x65picture", 21);

class View : public testing::Test {
protected:
    void open() { ASSERT_EQ(shm_create(paths().ipcKey, 'z', &m_memory, 1, 1000, 10000, 30, 0), 0); }
    void write(const std::string& block) {
        ASSERT_EQ(shm_write_data(&m_memory, block.data(), block.size(), 0, 0, 0, ++m_stamp, 0), 0);
    }
    void close() { shm_destroy(&m_memory); }
    std::vector<std::string> words(std::vector<std::string> more) const {
        more.insert(more.begin(), TAVIRN_VIEW);
        return more;
    }
    /// Runs to its end; what it has said.
    std::string run(const std::vector<std::string>& options, int code) const {
        Process view(words(options), world.root());
        EXPECT_EQ(view.wait(), code) << view.errors();
        return view.errors();
    }

    const World world;
    const std::string file = world.root() + "/out.h264";

private:
    KW_SHM m_memory{};
    unsigned long m_stamp = 0;
};

TEST_F(View, RefusesAnOutputBeforeItWaitsAndLeavesAFileAloneUntilThereIsASession) {
    EXPECT_THAT(run({"-o", world.root() + "/none/out", "--wait", "1000"}, 1),
                testing::HasSubstr("cannot create"));
    EXPECT_THAT(run({"-o", file}, 3), testing::HasSubstr("no session is open"));
    EXPECT_FALSE(fileExists(file));
    writeFile(file, "an older one");
    run({"-o", file}, 3);
    EXPECT_EQ(readFile(file), "an older one");
}

TEST_F(View, BeginsAFileAtAnIPictureUnlessToldOtherwise) {
    writeFile(file, "an older one, longer than what comes now, which must not shine through");
    open();
    write(kOther);
    EXPECT_THAT(run({"-o", file, "--from-oldest", "--duration", "0.1"}, 1),
                testing::HasSubstr("no I-picture has come"));
    for (const std::string& block : {kIPicture, kOther, std::string("PAUSE")}) write(block);
    const std::string all = kOther + kIPicture + kOther;
    for (const auto& [option, kept] : {std::pair("--stats", kIPicture + kOther), {"--from-any", all}}) {
        run({"-o", file, "--from-oldest", "--until-pause", option}, 0);
        EXPECT_EQ(readFile(file), kept) << option;
    }
    EXPECT_THAT(run({"--from-oldest", "--until-pause"}, 0), testing::HasSubstr("pictures         3\n"));
    close();
}

TEST_F(View, TellsADaemonThatHasDiedFromASessionThatHasEnded) {
    for (const bool dies : {false, true}) {
        const pid_t daemon = fork();
        if (daemon == 0) {
            open();
            write(kIPicture);
            raise(SIGSTOP);
            if (!dies) close();
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(daemon, &status, WUNTRACED), daemon);
        Process view(words({"-o", file, "--from-oldest"}), world.root());
        EXPECT_TRUE(eventually([&] { return fileExists(file) && readFile(file) == kIPicture; }));
        kill(daemon, SIGCONT);
        EXPECT_EQ(view.wait(), dies ? 5 : 0) << view.errors();
        EXPECT_EQ(waitForEnd(daemon, 20000), 0);
        std::filesystem::remove(file);
    }
}

TEST_F(View, EndsWhenNobodyReadsItsListAnyMore) {
    open();
    write(kIPicture);
    const std::string pipe = world.root() + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    Process view(words({"--list", pipe, "--from-oldest"}), world.root());
    char line[100];
    const int reader = ::open(pipe.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GT(read(reader, line, sizeof line), 0);
    ::close(reader); // and no block comes after it
    EXPECT_EQ(view.wait(), 0) << view.errors();
    close();
}

} // namespace
} // namespace test
