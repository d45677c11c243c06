// The built server in a world, and a client that speaks for itself.
#pragma once

#include <arpa/inet.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "tests/support/process.h"

namespace test {

/// The server in a world, on a port of its own.
class Server {
public:
    explicit Server(const World& world, const std::vector<std::string>& options = {})
        : m_process(command(options), world.root()) {
        std::string url;
        eventually([&] {
            try {
                url = m_process.output();
            } catch (const std::exception&) { // not yet there
            }
            return url.ends_with('\n');
        });
        m_port = std::atoi(url.c_str() + url.rfind(':') + 1);
    }
    int port() const { return m_port; }
    std::string url() const { return "rtsp://127.0.0.1:" + std::to_string(m_port) + "/playback"; }
    size_t descriptors() const {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(m_process.pid()) + "/fd");
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }

private:
    static std::vector<std::string> command(const std::vector<std::string>& options) {
        std::vector<std::string> words{TAVIRN_RTSP, "--foreground", "--port", "0"};
        words.insert(words.end(), options.begin(), options.end());
        return words;
    }

    Process m_process;
    int m_port = 0;
};

struct Reply {
    int status = 0;
    std::map<std::string, std::string> headers;
    std::string body;
};

/// A client that speaks for itself: one connection, packets between the replies.
class RawClient {
public:
    explicit RawClient(const Server& server) : m_url(server.url()), m_fd(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(server.port()));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~RawClient() { close(m_fd); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    void write(const std::string& bytes) const {
        EXPECT_EQ(::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    Reply ask(const std::string& method, const std::string& headers = "", const std::string& track = "") {
        write(method + " " + m_url + track + " RTSP/1.0\r\nCSeq: " + std::to_string(++m_cseq) + "\r\n" +
              (m_session.empty() ? "" : "Session: " + m_session + "\r\n") + headers + "\r\n");
        return reply();
    }
    Reply reply() {
        EXPECT_TRUE(readUntil([&] { return !m_replies.empty(); })) << "no reply";
        if (m_replies.empty()) return {};
        const Reply first = m_replies.front();
        m_replies.erase(m_replies.begin());
        return first;
    }
    int setUp() {
        const Reply described = ask("DESCRIBE");
        if (described.status != 200) return described.status;
        const Reply set = ask("SETUP", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n", "/track1");
        m_session = set.headers.count("Session") ? set.headers.at("Session").substr(0, 32) : "";
        return set.status;
    }
    /// What comes until `count` pictures are there, or a good-bye.
    std::vector<std::string> pictures(size_t count) {
        readUntil([&] { return m_bye || m_pictures.size() > count; });
        std::vector<std::string> taken = m_pictures;
        if (!m_bye) taken.pop_back(); // the last one may not be whole
        return taken;
    }
    bool bye() {
        return readUntil([&] { return m_bye; });
    }
    bool closed() {
        return readUntil([&] { return m_closed; });
    }
    /// Sequence number and RTP time of the first packet of the play, as RTP-Info has them.
    std::string first() const { return m_first; }

private:
    template <class Condition> bool readUntil(Condition condition) {
        while (!condition() && !m_closed) {
            pollfd entry{m_fd, POLLIN, 0};
            char bytes[65536];
            if (poll(&entry, 1, 20000) != 1) return false;
            const ssize_t got = recv(m_fd, bytes, sizeof bytes, 0);
            m_closed = got <= 0;
            if (got > 0) m_bytes.append(bytes, static_cast<size_t>(got));
            while (frame() || message()) continue;
        }
        return condition();
    }
    bool frame() {
        if (!m_bytes.starts_with('$') || m_bytes.size() < 4) return false;
        const size_t length = number(2, 2);
        if (m_bytes.size() < 4 + length) return false;
        m_bytes[1] == 0 ? packet(m_bytes.substr(4, length)) : report(m_bytes.substr(4, length));
        m_bytes.erase(0, 4 + length);
        return true;
    }
    size_t number(size_t at, size_t length) const {
        size_t value = 0;
        while (length-- > 0) value = value << 8 | static_cast<unsigned char>(m_bytes[at++]);
        return value;
    }
    void packet(const std::string& bytes) {
        if (m_pictures.empty())
            m_first = ";seq=" + std::to_string(number(6, 2)) + ";rtptime=" + std::to_string(number(8, 4));
        if (m_pictures.empty() || m_marked) m_pictures.emplace_back();
        m_marked = (bytes[1] & 0x80) != 0;
        const size_t head = (bytes[0] & 0x10) != 0 ? 28 : 12;
        EXPECT_NE(bytes[head] & 0x1F, 28) << "these pictures need no fragments";
        m_pictures.back() += std::string("\0\0\0\1", 4) + bytes.substr(head);
    }
    void report(const std::string& bytes) { m_bye = m_bye || bytes.find("\x81\xCB") != std::string::npos; }
    void forget() {
        m_pictures.clear();
        m_first = {};
        m_bye = false;
    }
    bool message() {
        const size_t end = m_bytes.find("\r\n\r\n");
        if (m_bytes.starts_with('$') || end == std::string::npos) return false;
        Reply reply;
        std::istringstream lines(m_bytes.substr(0, end));
        std::string line;
        std::getline(lines, line);
        reply.status = std::stoi(line.substr(9));
        while (std::getline(lines, line)) {
            const size_t colon = line.find(": ");
            reply.headers[line.substr(0, colon)] = line.substr(colon + 2, line.find('\r') - colon - 2);
        }
        const size_t length =
            reply.headers.count("Content-Length") ? std::stoul(reply.headers["Content-Length"]) : 0;
        if (m_bytes.size() < end + 4 + length) return false;
        reply.body = m_bytes.substr(end + 4, length);
        m_bytes.erase(0, end + 4 + length);
        if (reply.headers.count("RTP-Info")) forget(); // of the play before
        m_replies.push_back(reply);
        return true;
    }

    const std::string m_url;
    const int m_fd;
    int m_cseq = 0;
    std::string m_session, m_bytes, m_first;
    std::vector<Reply> m_replies;
    std::vector<std::string> m_pictures;
    bool m_marked = false, m_bye = false, m_closed = false;
};

} // namespace test
