#include <gtest/gtest.h>
#include <memory>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include "shm/shm_client.h"
#include "tests/support/world.h"

namespace {

struct Shm : testing::Test {
    const test::World world;
    const key_t key = world.statusKey();
    int semaphore() const { return semctl(semget(key, 1, 0), 0, GETVAL); }
};

/// What `action` writes on standard error, up to the error's own text.
template <class Action> std::string reportOf(Action action) {
    testing::internal::CaptureStderr();
    action();
    const std::string report = testing::internal::GetCapturedStderr();
    return report.substr(0, report.find(": "));
}

TEST_F(Shm, IsSharedAndGoesWithTheServerOnly) {
    auto server = std::make_unique<CShmServer>(key);
    auto client = std::make_unique<CShmClient>(key, 1);
    static_cast<REC_STATUS*>(client->open(key, 1))->recPictures = 7;
    EXPECT_EQ(static_cast<REC_STATUS*>(server->creat(key))->recPictures, 7u);
    client.reset();
    EXPECT_EQ(server->isShm(key), 1);
    server.reset();
    EXPECT_EQ(CShmClient().isShm(key), 0);
    EXPECT_EQ(reportOf([&] { CShmClient().open(key, 1); }), "@CShmClient::open()");
}

TEST_F(Shm, IsCompletedByARepeatedCreatAndFreedForWhoeverWaitsForAKilledHolder) {
    const int tooSmall = shmget(key, 16, IPC_CREAT | 0600);
    CShmServer server;
    EXPECT_EQ(reportOf([&] { EXPECT_FALSE(server.creat(key)); }), "@CShmServer::creat()");
    const pid_t holder = fork();
    if (holder == 0) _exit(server.lockShm()); // the set does not depend on the segment; never unlocked
    waitpid(holder, nullptr, 0);
    shmctl(tooSmall, IPC_RMID, nullptr);
    void* const address = server.creat(key);
    EXPECT_TRUE(address && server.creat(key) == address);
    EXPECT_EQ(semaphore(), 0) << "what was there is left alone";
    EXPECT_EQ(reportOf([&] { EXPECT_EQ(server.lockShm(), 0); }), "@CShmServer::lockShm()");
    EXPECT_EQ(server.unlockShm(), 1);
    EXPECT_EQ(server.unlockShm(), 1) << "the holder that was given up comes back";
    EXPECT_EQ(server.lockShm(), 1);
    EXPECT_EQ(semaphore(), 0) << "one holder at a time, as before";
    const CShmServer daemon(key);
    EXPECT_EQ(semaphore(), 1) << "a daemon that starts frees it";
    semctl(semget(key, 1, 0), 0, IPC_RMID);
    EXPECT_EQ(reportOf([&] { EXPECT_EQ(server.lockShm() + server.unlockShm(), 0); }), "") << "set gone";
}

} // namespace
