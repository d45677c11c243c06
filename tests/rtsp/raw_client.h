// The built server in a world, and a client that says what it is told to, word by word.
#pragma once

#include <filesystem>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

#include "rtsp/glib_object.h"
#include "tests/support/process.h"

namespace test {

/// The server in a world, on a port of its own.
class Server {
public:
    explicit Server(const World& world, const std::vector<std::string>& options = {})
        : m_process(words(options), world.root()) {
        eventually([&] {
            try {
                m_url = m_process.output();
            } catch (const std::exception&) { // not yet there
            }
            return m_url.ends_with('\n');
        });
        m_url.pop_back();
    }
    static std::vector<std::string> words(const std::vector<std::string>& options) {
        std::vector<std::string> all{TAVIRN_RTSP, "--foreground", "--port", "0"};
        all.insert(all.end(), options.begin(), options.end());
        return all;
    }
    std::string port() const { return m_url.substr(17, m_url.rfind('/') - 17); }
    /// `user`: nobody, or user:password@.
    std::string url(const std::string& path, const std::string& user = "") const {
        return "rtsp://" + user + "127.0.0.1:" + port() + "/" + path;
    }
    long descriptors() const {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(m_process.pid()) + "/fd");
        return std::distance(begin(all), end(all));
    }

private:
    Process m_process;
    std::string m_url;
};

struct Reply {
    int status = 0;
    std::map<std::string, std::string> headers; ///< the body under its length's name
};

/// One connection, packets between the replies.
class RawClient {
public:
    explicit RawClient(const Server& server, const char* path = "playback") : m_url(server.url(path)) {
        const ObjectPtr<GSocketClient> client(g_socket_client_new());
        g_socket_client_set_timeout(client.get(), 20);
        g_socket_client_set_enable_proxy(client.get(), FALSE); // looked up by a thread, the machine's own
        m_connection.reset(g_socket_client_connect_to_uri(client.get(), m_url.c_str(), 0, nullptr, nullptr));
        m_input.reset(g_data_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(m_connection.get()))));
        g_data_input_stream_set_newline_type(m_input.get(), G_DATA_STREAM_NEWLINE_TYPE_CR_LF);
    }

    void write(const std::string& bytes) const {
        GOutputStream* output = g_io_stream_get_output_stream(G_IO_STREAM(m_connection.get()));
        EXPECT_TRUE(g_output_stream_write_all(output, bytes.data(), bytes.size(), nullptr, nullptr, nullptr));
    }
    Reply ask(const std::string& method, const std::string& headers = "", const std::string& track = "") {
        write(method + " " + m_url + track + " RTSP/1.0\r\nCSeq: " + std::to_string(++m_cseq) + "\r\n" +
              (m_session.empty() ? "" : "Session: " + m_session + "\r\n") + headers + "\r\n");
        return reply();
    }
    Reply reply() {
        m_reply = {};
        EXPECT_TRUE(receiveUntil([&] { return m_reply.status != 0; })) << "no reply";
        return m_reply;
    }
    int setUp() {
        Reply set = ask("SETUP", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n", "/track1");
        m_session = set.headers["Session"].substr(0, 32);
        return set.status;
    }
    /// What comes until `count` pictures are there, or a good-bye.
    std::vector<std::string> pictures(size_t count) {
        receiveUntil([&] { return m_bye || m_pictures.size() > count; });
        std::vector<std::string> taken = m_pictures;
        if (!m_bye) taken.pop_back(); // the last one may not be whole
        return taken;
    }
    bool bye() {
        return receiveUntil([&] { return m_bye; });
    }
    /// Sequence number and RTP time of the first packet of the play, as RTP-Info has them.
    std::string first() const { return m_first; }

private:
    template <class Condition> bool receiveUntil(Condition condition) {
        while (!condition()) {
            const guchar first = g_data_input_stream_read_byte(m_input.get(), nullptr, nullptr);
            if (first == 0) return false; // the end, or it took too long
            first == '$' ? frame() : response();
        }
        return true;
    }
    std::string bytes(size_t count) {
        std::string result(count, '\0');
        g_input_stream_read_all(G_INPUT_STREAM(m_input.get()), result.data(), count, nullptr, nullptr,
                                nullptr);
        return result;
    }
    std::string line() {
        return taken(g_data_input_stream_read_line(m_input.get(), nullptr, nullptr, nullptr));
    }
    void frame() {
        const bool control = g_data_input_stream_read_byte(m_input.get(), nullptr, nullptr) != 0;
        const std::string packet = bytes(g_data_input_stream_read_uint16(m_input.get(), nullptr, nullptr));
        if (control)
            m_bye = m_bye || packet.find("\x81\xCB") != std::string::npos;
        else
            take(packet);
    }
    void take(const std::string& packet) {
        if (m_pictures.empty())
            m_first = ";seq=" + std::to_string(GST_READ_UINT16_BE(packet.data() + 2)) +
                      ";rtptime=" + std::to_string(GST_READ_UINT32_BE(packet.data() + 4));
        if (m_pictures.empty() || m_marked) m_pictures.emplace_back();
        m_marked = (packet[1] & 0x80) != 0;
        const size_t head = (packet[0] & 0x10) != 0 ? 28 : 12;
        EXPECT_NE(packet[head] & 0x1F, 28) << "these pictures need no fragments";
        m_pictures.back() += std::string("\0\0\0\1", 4) + packet.substr(head);
    }
    void response() {
        m_reply.status = std::stoi(line().substr(8));
        for (std::string header; !(header = line()).empty();)
            m_reply.headers[header.substr(0, header.find(':'))] = header.substr(header.find(' ') + 1);
        if (std::string& body = m_reply.headers["Content-Length"]; !body.empty())
            body = bytes(std::stoul(body));
        if (!m_reply.headers.count("RTP-Info")) return;
        m_pictures.clear(); // of the play before
        m_bye = false;
    }

    const std::string m_url;
    ObjectPtr<GSocketConnection> m_connection;
    ObjectPtr<GDataInputStream> m_input;
    int m_cseq = 0;
    std::string m_session, m_first;
    Reply m_reply;
    std::vector<std::string> m_pictures;
    bool m_marked = false, m_bye = false;
};

} // namespace test
