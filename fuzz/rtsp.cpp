// A client's bytes, however they arrive, and what is made of the requests among them.
#include <algorithm>

#include "fuzz/input.h"
#include "rtsp/media_transport.h"
#include "rtsp/play_headers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr int64_t kZero = 1'704'164'645'250;
    Input input(data, size);
    RequestParser parser;
    while (!input.empty()) {
        parser.feed(input.text(input.number() + size_t{1}));
        RtspRequest request;
        RequestParser::Result result;
        while ((result = parser.next(request)) < RequestParser::Result::incomplete) {
            if (result != RequestParser::Result::request) continue;
            require(!request.method.empty() && !request.uri.empty());
            require(std::ranges::all_of(request.headers, [](const auto& header) {
                return header.second.find_first_of("\r\n") == std::string::npos; // some come back in replies
            }));
            readTransport(request.header("Transport"));
            PlayRequest play;
            RangeUnit unit = RangeUnit::npt;
            if (readPlay(request, kZero, play, unit) != 200) continue;
            require(play.scale != 0 && play.intervalMs >= 0);
            const std::string range = rangeText(unit, play.from, play.until, kZero);
            require(range.find('-') != std::string::npos && range.size() < 100);
        }
        if (result != RequestParser::Result::incomplete) break; // the connection is closed
    }
    return 0;
}
