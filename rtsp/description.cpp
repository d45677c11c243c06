#include "rtsp/description.h"

#include <algorithm>
#include <cmath>

#include "rtsp/glib_object.h"
#include "tools/common/formatted.h"
#include "tools/record/h264.h"

namespace {

std::string base64(std::string_view bytes) {
    return taken(g_base64_encode(reinterpret_cast<const guchar*>(bytes.data()), bytes.size()));
}

/// What a decoder has to know: the sets, and the profile that the first of them begins with.
std::string formatParameters(const std::string& parameterSets) {
    std::string sets, profile;
    for (const std::string_view unit : h264::nalUnits(parameterSets)) {
        if (h264::nalType(unit) == h264::nalSps && unit.size() > 3)
            for (const char byte : unit.substr(1, 3))
                profile += formatted("%02X", static_cast<unsigned char>(byte));
        sets += (sets.empty() ? "" : ",") + base64(unit);
    }
    return "packetization-mode=1;profile-level-id=" + profile + ";sprop-parameter-sets=" + sets;
}

} // namespace

std::string sessionDescription(const Description& description, const View& view, const std::string& address,
                               uint64_t now) {
    const std::string family = address.find(':') == std::string::npos ? "IP4 " : "IP6 ";
    const std::string number = std::to_string(now);
    // The last picture lasts as long as the others: a client that keeps to the range shows it too.
    const int64_t oldest = description.span.oldest;
    const int64_t end = description.span.newest + std::llround(1000 / std::max(description.frameRate, 1.0));
    const std::string range = view.live ? "npt=now-" : rangeText(view.unit, oldest, end, oldest);
    std::string text = "v=0\r\no=- " + number + " " + number + " IN " + family + address +
                       "\r\ns=Recording\r\nc=IN " + family + (family == "IP4 " ? "0.0.0.0" : "::") +
                       "\r\nt=0 0\r\na=control:*\r\na=range:" + range + "\r\n";
    const int type = RtpStream::kPayloadType;
    text += formatted("m=video 0 RTP/AVP %d\r\na=rtpmap:%d H264/90000\r\na=fmtp:%d ", type, type, type) +
            formatParameters(description.parameterSets) + "\r\n";
    if (description.frameRate > 0) text += formatted("a=framerate:%g\r\n", description.frameRate);
    text += std::string("a=control:") + kTrack + "\r\na=recvonly\r\na=x-onvif-track:VIDEO001\r\n";
    return text;
}
