// What a client's bytes come to: requests, and interleaved frames, which are passed over. Pure: no I/O, no
// clock. The library's own reader has no bound on the lines of a request and reads on as long as bytes come,
// so a single client could fill the memory and hold the loop; this one keeps at most kLongestRequest and
// kLongestBody bytes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct RtspRequest {
    std::string method;
    std::string uri;
    std::vector<std::pair<std::string, std::string>> headers;

    /// The first header of that name, whatever its case; empty when there is none.
    std::string_view header(std::string_view name) const;
};

class RequestParser {
public:
    static constexpr size_t kLongestRequest = 8192; ///< request line and headers
    static constexpr size_t kLongestBody = 8192;    ///< passed over: no request here has a body that counts

    enum class Result {
        request,
        interleaved, ///< a whole frame has gone by: the client is alive
        incomplete,  ///< more bytes are needed
        malformed,   ///< no request of this protocol; nothing behind it can be understood
        tooLong,
    };

    void feed(std::string_view bytes) { m_bytes.append(bytes); }
    /// To be called until it gives `incomplete`; after `malformed` and `tooLong` the connection is to be
    /// closed.
    Result next(RtspRequest& request);
    /// Whether nothing of a request or frame has come yet.
    bool isEmpty() const { return m_bytes.empty() && m_toSkip == 0; }

private:
    bool skip();
    Result parse(std::string_view head, RtspRequest& request);

    std::string m_bytes;
    size_t m_toSkip = 0; ///< of a frame or body that has begun
};
