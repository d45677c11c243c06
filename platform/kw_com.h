// platform/: all that the rest sees of the machine: what its closed libraries offer (this header,
// zuvo_chunk.h, api_db.h), fixed paths, clock, log and mutex; and where an ordinary machine keeps chunks and
// output memory, for its recorder and its readers. Moves through no stream and knows no play modes. What
// stands in for the libraries there, host/, is linked and never included.
//
// Sockets and the output shared memory, as the platform's closed helper library offers them. The types are
// that library's, to the letter, so that the same sources link against it on the device. platform/host/
// implements the same operations for an ordinary Linux machine.
#pragma once

extern "C" {

// ---- local stream sockets; every result is negative on failure ----

/// A socket bound to `path` and listening.
int s_create_serv_socket(const char* path);

/// Waits for a client; the connected socket. Negative also when a handled signal interrupts the wait or
/// the listening socket has been shut down.
int s_accept_client(int listening);

/// Reads exactly `length` bytes within the socket's SO_RCVTIMEO, taken as one deadline for the whole record.
int s_read_data(int socket, void* buffer, int length);

/// Writes exactly `length` bytes within the socket's SO_SNDTIMEO, taken as one deadline for the whole record.
int s_write_data(int socket, const void* buffer, int length);

/// A socket that can be connected to a path. Connecting and writing with it never wait for ever.
int s_create_client_socket(void);

int s_connect_serv(int socket, const char* path);

// ---- output shared memory: one block per picture, read by the RTSP server; layout in output_layout.h ----

/// Handle of the output memory; all zero before shm_create.
struct KW_SHM {
    unsigned int shmId;      ///< System V shared-memory id
    unsigned int semId;      ///< System V semaphore-set id
    unsigned int library[5]; ///< the library's own
};

/// Creates the memory for the key ftok(keyFile, project): blocks of at most `blockBytes`, `dataBytes` of
/// room for them in all, at most `blocks` at a time. Negative on failure, or while another live process
/// writes to the same key.
int shm_create(const char* keyFile, char project, KW_SHM* handle, int create, unsigned long blockBytes,
               unsigned long dataBytes, int blocks, int spare);

/// Appends one block; the oldest ones make room, whoever is reading them. `timestamp` runs at 90 units per
/// millisecond and wraps at 32 bits. Negative when the block is empty or too long.
int shm_write_data(KW_SHM* handle, const char* data, unsigned long length, int spare1, int spare2, int spare3,
                   unsigned long timestamp, int spare4);

/// Tells the readers that nothing follows, and removes the memory and its semaphore set.
int shm_destroy(KW_SHM* handle);
}

static_assert(sizeof(KW_SHM) == 28, "the library's handle is seven words");
