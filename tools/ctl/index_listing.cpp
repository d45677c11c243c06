#include "tools/ctl/index_listing.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <unistd.h>

#include "platform/api_db.h"
#include "platform/paths.h"
#include "tools/common/clock_text.h"
#include "tools/common/formatted.h"
#include "tools/common/json.h"

namespace {

[[noreturn]] void fail(const char* reason) {
    throw std::runtime_error(std::string("cannot read the index ") + paths().index + ": " + reason);
}

/// "0:00:30.0", empty while it goes on.
template <class Row> std::string lengthText(const Row& row) {
    if (goesOn(row)) return "";
    const uint64_t tenths = endMs(row) > startMs(row) ? (endMs(row) - startMs(row) + 50) / 100 : 0;
    return formatted("%u:%02u:%02u.%u", static_cast<unsigned>(tenths / 36000),
                     static_cast<unsigned>(tenths / 600 % 60), static_cast<unsigned>(tenths / 10 % 60),
                     static_cast<unsigned>(tenths % 10));
}

template <class Row> void putTimes(Json& json, const Row& row) {
    ::putTimes(json, startMs(row), goesOn(row) ? std::nullopt : std::optional(endMs(row)));
}

std::string framesPerSecond(const DB_STREAM& stream) {
    const FrameRateRow* row = frameRateRow(stream.frameSet);
    return row ? formatted("%u.%u", row->tenthsPerSecond / 10, row->tenthsPerSecond % 10) : "";
}

} // namespace

IndexListing readIndex() {
    // Looked at first, since a failed query does not say why it failed.
    if (access(paths().index, R_OK) != 0) fail(std::strerror(errno));
    IndexListing listing;
    CApiDb index;
    if (index.setSql("SELECT * FROM STREAM ORDER BY streamID") != 0)
        fail("it is no recording index, or it stays locked");
    listing.streams.resize(static_cast<size_t>(index.getNTuple()));
    long row = 0;
    for (DB_STREAM& stream : listing.streams) index.getStreamValue(row++, &stream);

    if (index.setSql("SELECT * FROM EVENT ORDER BY eventID") != 0)
        fail("its table of alarms is not readable");
    listing.alarms.resize(static_cast<size_t>(index.getNTuple()));
    row = 0;
    for (DB_EVENT& alarm : listing.alarms) index.getEventValue(row++, &alarm);
    return listing;
}

std::string asTable(const IndexListing& listing) {
    std::string text;
    text += formatted("%8s  %-23s  %-23s  %12s  %5s  %8s  %s\n", "stream", "start", "end", "length", "fps",
                      "pictures", "chunk");
    for (const DB_STREAM& stream : listing.streams) {
        const bool live = goesOn(stream);
        text += formatted("%8u  %-23s  %-23s  %12s  %5s  %8s  %u\n", stream.streamID,
                          clockText(startMs(stream)).c_str(),
                          live ? "recording" : clockText(endMs(stream)).c_str(), lengthText(stream).c_str(),
                          framesPerSecond(stream).c_str(), live ? "" : std::to_string(stream.recSize).c_str(),
                          stream.chunkID);
    }
    if (listing.streams.empty()) text += "  no streams\n";

    text += formatted("\n%8s  %-23s  %-23s  %12s  %s\n", "alarm", "start", "end", "length", "trigger");
    for (const DB_EVENT& alarm : listing.alarms)
        text += formatted("%8u  %-23s  %-23s  %12s  %u\n", alarm.eventID, clockText(startMs(alarm)).c_str(),
                          goesOn(alarm) ? "going on" : clockText(endMs(alarm)).c_str(),
                          lengthText(alarm).c_str(), alarm.extTrg);
    if (listing.alarms.empty()) text += "  no alarms\n";
    return text;
}

std::string asJson(const IndexListing& listing) {
    Json json{{"streams", Json::array()}, {"alarms", Json::array()}};
    for (const DB_STREAM& stream : listing.streams) {
        const FrameRateRow* rate = frameRateRow(stream.frameSet);
        Json entry{{"streamId", stream.streamID},
                   {"recording", goesOn(stream)},
                   {"pictures", stream.recSize},
                   {"framesPerSecond", rate ? Json(rate->tenthsPerSecond / 10.0) : Json()},
                   {"chunkId", stream.chunkID}};
        putTimes(entry, stream);
        json["streams"].push_back(std::move(entry));
    }
    for (const DB_EVENT& alarm : listing.alarms) {
        Json entry{{"alarmId", alarm.eventID}, {"trigger", alarm.extTrg}};
        putTimes(entry, alarm);
        json["alarms"].push_back(std::move(entry));
    }
    return jsonLine(json);
}
