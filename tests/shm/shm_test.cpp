#include <gtest/gtest.h>
#include <memory>
#include <sys/sem.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "shm/shm_client.h"
#include "tests/support/world.h"

namespace {

struct Shm : testing::Test {
    test::World world;
    const key_t key = world.statusKey();

    int semaphore() const { return semctl(semget(key, 1, 0), 0, GETVAL); }
};

/// What `action` writes on standard error.
template <class Action> std::string reportOf(Action action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

TEST_F(Shm, IsSharedUnderItsLockAndGoesWithTheServerOnly) {
    auto server = std::make_unique<CShmServer>(key);
    auto client = std::make_unique<CShmClient>(key, 1);
    auto* const here = static_cast<REC_STATUS*>(server->creat(key));
    auto* const there = static_cast<REC_STATUS*>(client->open(key, 1));
    const auto count = [](auto& side, REC_STATUS* status) {
        for (int i = 0; i < 20000; ++i) {
            side.lockShm();
            status->recPictures = status->recPictures + 1;
            side.unlockShm();
        }
    };
    std::thread recorder([&] { count(*client, there); });
    count(*server, here);
    recorder.join();
    EXPECT_EQ(there->recPictures, 40000u);

    client.reset();
    EXPECT_EQ(server->isShm(key), 1);
    server.reset();
    EXPECT_EQ(CShmClient().isShm(key), 0);
    EXPECT_EQ(reportOf([&] { CShmClient().open(key, 1); }).rfind("@CShmClient::open(): ", 0), 0u);
}

TEST_F(Shm, FreesTheSemaphoreOfAKilledHolder) {
    CShmServer recorder(key);
    const pid_t holder = fork();
    if (holder == 0) {
        recorder.lockShm();
        _exit(0); // without unlocking or destroying anything
    }
    waitpid(holder, nullptr, 0);
    EXPECT_EQ(semaphore(), 0);
    const CShmServer daemon(key);
    EXPECT_EQ(semaphore(), 1);
}

TEST_F(Shm, IsCompletedByARepeatedCreat) {
    const int tooSmall = shmget(key, 16, IPC_CREAT | 0600);
    CShmServer server;
    EXPECT_EQ(reportOf([&] { EXPECT_FALSE(server.creat(key)); }).rfind("@CShmServer::creat(): ", 0), 0u);
    ASSERT_EQ(server.lockShm(), 1) << "the set does not depend on the segment";
    shmctl(tooSmall, IPC_RMID, nullptr);
    void* const address = server.creat(key);
    EXPECT_TRUE(address);
    EXPECT_EQ(server.creat(key), address);
    EXPECT_EQ(semaphore(), 0) << "what was there is left alone";
}

TEST_F(Shm, ReportsAFailedLockUnlessTheSetHasGone) {
    CShmServer server(key);
    semctl(semget(key, 1, 0), 0, IPC_RMID);
    EXPECT_EQ(reportOf([&] { EXPECT_EQ(server.lockShm() + server.unlockShm(), 0); }), "");
    const CShmServer another(key); // a new set under the key, which `server` does not know
    EXPECT_EQ(reportOf([&] { server.lockShm(); }).rfind("@CShmServer::lockShm(): ", 0), 0u);
    EXPECT_EQ(reportOf([&] { server.unlockShm(); }).rfind("@CShmServer::unlockShm(): ", 0), 0u);
}

} // namespace
