// Local stream sockets of kw_com.h. A record is read or written whole under one deadline: a peer that hands
// over a byte now and then holds the caller no longer than a silent one. errno tells what failed.
#include "platform/kw_com.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstring>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

/// For connecting and writing with a client socket: the playback thread sends its teardown notice with one.
constexpr timeval kClientTimeout{.tv_sec = 2, .tv_usec = 0};

/// For owner and group; what is left of 0777.
constexpr mode_t kSocketUmask = 0117;

/// The end of a socket's time-out, counted from construction. A time-out of zero means none.
class Deadline {
public:
    Deadline(int socket, int option) {
        timeval timeout{};
        socklen_t size = sizeof timeout;
        if (getsockopt(socket, SOL_SOCKET, option, &timeout, &size) != 0) return;
        if (timeout.tv_sec == 0 && timeout.tv_usec == 0) return;
        constexpr long long kLongest = 366LL * 24 * 3600; // keeps the sum in range
        m_end = Clock::now() + std::chrono::seconds(std::min<long long>(timeout.tv_sec, kLongest)) +
                std::chrono::microseconds(timeout.tv_usec);
    }

    bool passed() const { return m_end && Clock::now() >= *m_end; }

    /// For poll: -1 without a deadline, else what remains, rounded up so that poll never returns just short.
    int remainingMs() const {
        if (!m_end) return -1;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*m_end - Clock::now()).count();
        return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
    }

private:
    std::optional<Clock::time_point> m_end;
};

int fail(int error) {
    errno = error;
    return -1;
}

/// Closes without losing the errno that says why.
int failClosing(int socket) {
    const int error = errno;
    close(socket);
    return fail(error);
}

bool setAddress(sockaddr_un& address, const char* path) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path == nullptr || *path == '\0' || std::strlen(path) >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::strcpy(address.sun_path, path);
    return true;
}

int connectTo(int socket, const sockaddr_un& address) {
    return connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

/// A socket file nobody listens on any more. Asked without waiting: one with a full backlog is in use.
bool isStaleSocket(const sockaddr_un& address) {
    struct stat file {};
    if (lstat(address.sun_path, &file) != 0 || !S_ISSOCK(file.st_mode)) return false;
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0) return false;
    const bool refused = connectTo(probe, address) != 0 && errno == ECONNREFUSED;
    close(probe);
    return refused;
}

/// Binds with the right mode from the first instant on. umask is the process's, so this belongs to start-up.
int bindPrivately(int socket, const sockaddr_un& address) {
    const mode_t before = umask(kSocketUmask);
    const int result = bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    umask(before);
    return result;
}

/// Moves the whole record with `step(done)`, which does what it can at once as recv and send do.
template <class Step> int transfer(int socket, int length, short event, const Deadline& deadline, Step step) {
    int done = 0;
    while (done < length) {
        const ssize_t moved = step(done);
        if (moved > 0) {
            done += static_cast<int>(moved);
            continue;
        }
        if (moved == 0) return fail(ECONNRESET); // the stream ends inside the record
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
        if (deadline.passed()) return fail(ETIMEDOUT);
        pollfd wait{.fd = socket, .events = event, .revents = 0};
        if (poll(&wait, 1, deadline.remainingMs()) < 0 && errno != EINTR) return -1;
    }
    return length;
}

} // namespace

int s_create_serv_socket(const char* path) {
    sockaddr_un address;
    if (!setAddress(address, path)) return -1;
    if (isStaleSocket(address)) unlink(path);
    const int listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listening < 0) return -1;
    if (bindPrivately(listening, address) != 0) return failClosing(listening);
    if (listen(listening, SOMAXCONN) != 0) {
        unlink(path);
        return failClosing(listening);
    }
    return listening;
}

int s_accept_client(int listening) {
    return accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
}

int s_read_data(int socket, void* buffer, int length) {
    if (length < 0 || (buffer == nullptr && length > 0)) return fail(EINVAL);
    char* const bytes = static_cast<char*>(buffer);
    return transfer(socket, length, POLLIN, Deadline(socket, SO_RCVTIMEO), [&](int done) {
        return recv(socket, bytes + done, static_cast<size_t>(length - done), MSG_DONTWAIT);
    });
}

int s_write_data(int socket, const void* buffer, int length) {
    if (length < 0 || (buffer == nullptr && length > 0)) return fail(EINVAL);
    const char* const bytes = static_cast<const char*>(buffer);
    return transfer(socket, length, POLLOUT, Deadline(socket, SO_SNDTIMEO), [&](int done) {
        return send(socket, bytes + done, static_cast<size_t>(length - done), MSG_DONTWAIT | MSG_NOSIGNAL);
    });
}

int s_create_client_socket(void) {
    const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client < 0) return -1;
    // Bounds connect as well: a local connect waits while the listener's backlog is full.
    if (setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &kClientTimeout, sizeof kClientTimeout) != 0) {
        return failClosing(client);
    }
    return client;
}

int s_connect_serv(int socket, const char* path) {
    sockaddr_un address;
    if (!setAddress(address, path)) return -1;
    const Deadline deadline(socket, SO_SNDTIMEO);
    // An interrupted local connect leaves the socket as it was, so it can be repeated.
    while (connectTo(socket, address) != 0) {
        if (errno != EINTR) return -1;
        if (deadline.passed()) return fail(ETIMEDOUT);
    }
    return 0;
}
