#include "rtsp/request_parser.h"

#include <algorithm>
#include <charconv>
#include <strings.h>

namespace {

std::string_view trimmed(std::string_view text) {
    const size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

/// Takes the text up to the separator off the front.
std::string_view cutOff(std::string_view& text, char separator) {
    const std::string_view part = text.substr(0, text.find(separator));
    text.remove_prefix(std::min(part.size() + 1, text.size()));
    return part;
}

/// Bytes up to and with the empty line; 0 when it has not come.
size_t headBytes(std::string_view bytes) {
    for (size_t at = 0; (at = bytes.find('\n', at)) != std::string_view::npos; ++at) {
        if (bytes.substr(at + 1).starts_with('\n')) return at + 2;
        if (bytes.substr(at + 1).starts_with("\r\n")) return at + 3;
    }
    return 0;
}

} // namespace

std::string_view RtspRequest::header(std::string_view name) const {
    for (const auto& [key, value] : headers)
        if (key.size() == name.size() && strncasecmp(key.data(), name.data(), name.size()) == 0) return value;
    return {};
}

bool RequestParser::skip() {
    const size_t skipped = std::min(m_toSkip, m_bytes.size());
    m_bytes.erase(0, skipped);
    m_toSkip -= skipped;
    return m_toSkip == 0;
}

RequestParser::Result RequestParser::next(RtspRequest& request) {
    constexpr size_t kFrameHead = 4;
    if (!skip()) return Result::incomplete;
    m_bytes.erase(0, std::min(m_bytes.find_first_not_of("\r\n"), m_bytes.size()));
    if (m_bytes.starts_with('$')) {
        if (m_bytes.size() < kFrameHead) return Result::incomplete;
        m_toSkip = kFrameHead + (static_cast<size_t>(static_cast<unsigned char>(m_bytes[2])) << 8) +
                   static_cast<unsigned char>(m_bytes[3]);
        skip();
        return Result::interleaved;
    }
    const size_t length = headBytes(m_bytes);
    if (length > kLongestRequest || (length == 0 && m_bytes.size() > kLongestRequest)) return Result::tooLong;
    if (length == 0) return Result::incomplete;
    const std::string head = m_bytes.substr(0, length);
    m_bytes.erase(0, length);
    return parse(head, request);
}

RequestParser::Result RequestParser::parse(std::string_view head, RtspRequest& request) {
    request = {};
    std::string_view line = trimmed(cutOff(head, '\n'));
    request.method = cutOff(line, ' ');
    request.uri = cutOff(line, ' ');
    const bool printable = std::ranges::all_of(
        request.uri, [](unsigned char character) { return character > ' ' && character < 127; });
    if (request.method.empty() || request.uri.empty() || !printable || line != "RTSP/1.0")
        return Result::malformed;
    while (!head.empty()) {
        line = trimmed(cutOff(head, '\n'));
        if (line.empty()) break;
        // Some of them come back in replies: no line may end before its end.
        const bool plain = std::ranges::none_of(
            line, [](unsigned char character) { return character < ' ' && character != '\t'; });
        if (!plain || line.find(':') == std::string_view::npos) return Result::malformed;
        const std::string_view name = trimmed(cutOff(line, ':'));
        request.headers.emplace_back(name, trimmed(line));
    }
    const std::string_view body = request.header("Content-Length");
    if (body.empty()) return Result::request;
    const auto [end, error] = std::from_chars(body.data(), body.data() + body.size(), m_toSkip);
    if (error != std::errc() || end != body.data() + body.size()) return Result::malformed;
    return m_toSkip <= kLongestBody ? Result::request : Result::tooLong;
}
