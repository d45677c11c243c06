#pragma once

#include "shm/shm_server.h"

/// The attaching side: never creates or removes the IPC objects.
class CShmClient : private CShmServer {
public:
    CShmClient() = default;
    /// Runs open until it succeeds, sleeping one second between attempts.
    CShmClient(int key, unsigned long mode);
    ~CShmClient() override;

    /// Mode 1 attaches for reading and writing, every other mode read-only. The address or null.
    void* open(int key, unsigned long mode);
    /// 1 when detached or nothing was attached, 0 when detaching failed.
    int close();

    using CShmServer::getStat;
    using CShmServer::isShm;
    using CShmServer::lockShm;
    using CShmServer::unlockShm;

private:
    bool attach(int flags);
};
