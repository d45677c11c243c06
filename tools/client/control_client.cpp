#include "tools/client/control_client.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

/// Far above any answer; a peer that sends more is not the daemon.
constexpr size_t kLongestAnswer = 4096;

/// A socket that closes itself; errno stays, for closing a socket can't fail.
class Socket {
public:
    Socket() : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}
    ~Socket() {
        if (m_fd != -1) close(m_fd);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int get() const { return m_fd; }

private:
    int m_fd;
};

/// Waits for the socket or the deadline; false, with errno set, when the deadline comes first.
bool waitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd entry{fd, events, 0};
        const int ready = poll(&entry, 1, static_cast<int>(std::max<decltype(left)>(left, 0)));
        if (ready > 0) return true;
        if (ready == 0) errno = ETIMEDOUT;
        if (ready == 0 || errno != EINTR) return false;
    }
}

bool connectTo(int fd, const char* path, Clock::time_point deadline) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string_view text(path);
    if (text.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    text.copy(address.sun_path, text.size());
    while (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
        if (errno == EINTR) continue;
        // A local socket does not announce room in the backlog, so it is asked again shortly.
        if (errno != EAGAIN || Clock::now() >= deadline) return false;
        poll(nullptr, 0, 10);
    }
    return true;
}

/// Whether a call that has failed is worth a repetition.
bool failedInPassing() {
    return errno == EINTR || errno == EAGAIN;
}

/// Sends all of it, however little the socket takes at a time.
bool sendAll(int fd, const char* data, size_t left, Clock::time_point deadline) {
    while (left > 0) {
        if (!waitFor(fd, POLLOUT, deadline)) return false;
        const ssize_t sent = send(fd, data, left, MSG_NOSIGNAL);
        if (sent == -1) {
            if (failedInPassing()) continue;
            return false;
        }
        data += sent;
        left -= static_cast<size_t>(sent);
    }
    return true;
}

std::optional<std::string> receiveUntilEnd(int fd, Clock::time_point deadline) {
    std::string answer;
    for (;;) {
        if (!waitFor(fd, POLLIN, deadline)) return std::nullopt;
        char bytes[512];
        const ssize_t got = recv(fd, bytes, sizeof bytes, 0);
        if (got == -1) {
            if (failedInPassing()) continue;
            return std::nullopt;
        }
        if (got == 0) return answer;
        answer.append(bytes, static_cast<size_t>(got));
        if (answer.size() > kLongestAnswer) {
            errno = EPROTO;
            return std::nullopt;
        }
    }
}

template <size_t N> void fill(char (&field)[N], const std::string& text) {
    text.copy(field, N);
}

} // namespace

ControlRequest::ControlRequest(int32_t type) {
    record.type = type;
}

ControlRequest& ControlRequest::with(const std::string& name, const std::string& value) {
    if (record.headerNum < std::ssize(record.header)) {
        RTSP_HEADER& header = record.header[record.headerNum++];
        fill(header.name, name);
        fill(header.value, value);
    }
    return *this;
}

std::optional<std::string> exchange(const char* socketPath, const rtsp_request& request, int timeoutMs) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const Socket connection;
    if (connection.get() == -1 || !connectTo(connection.get(), socketPath, deadline) ||
        !sendAll(connection.get(), reinterpret_cast<const char*>(&request), sizeof request, deadline))
        return std::nullopt;
    return receiveUntilEnd(connection.get(), deadline);
}

OpenAnswer readOpenAnswer(const std::string& answer) {
    if (answer.empty() || answer.size() > kParameterSetAnswerBytes) return OpenAnswer::malformed;
    if (answer.starts_with(std::string("\0\0\0\1", 4))) return OpenAnswer::opened;
    if (answer == std::string(kParameterSetAnswerBytes, '\0')) return OpenAnswer::setUpFailed;

    constexpr struct {
        char code;
        OpenAnswer meaning;
    } kFailures[] = {{'\xFE', OpenAnswer::noStream},
                     {'\xFD', OpenAnswer::alreadyOpen},
                     {'\xFC', OpenAnswer::searchFailed}};
    for (const auto& failure : kFailures) {
        std::string form(kParameterSetAnswerBytes, '\xFF');
        form[3] = failure.code;
        if (answer == form) return failure.meaning;
    }
    return OpenAnswer::malformed;
}

std::string readStatusAnswer(const std::string& answer) {
    const size_t end = answer.find('\0');
    return answer.size() == kStatusAnswerBytes && end != std::string::npos ? answer.substr(0, end) : "";
}

std::string daemonClock(time_t seconds) {
    tm parts{};
    localtime_r(&seconds, &parts);
    tm standard = parts;
    standard.tm_isdst = 0;
    const time_t saved = mktime(&standard) - seconds; // daylight saving, by the rules of that date
    const time_t shifted = timegm(&parts) - saved;
    gmtime_r(&shifted, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
    return text;
}
