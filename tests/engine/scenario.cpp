#include "tests/engine/scenario.h"

#include <cstdio>
#include <memory>

namespace test {

Recording::Recording(bool live) {
    // The recorder's time stamps are the wall clock's, as far as nothing else is said.
    const auto stream = [&](uint32_t id, const char* from, double fps, uint32_t gop) {
        return card.stream(id).from(from).firstPts(atMs(from)).fps(fps).gop(gop);
    };
    stream(1, "12:00:00", 30, 40).pictures(100).closed();                      // to 12:00:03.300
    stream(2, "12:00:03.400", 25, 15).pictures(100).pictureSize(900).closed(); // to 12:00:07.360
    EXPECT_TRUE(card.writer().placement().wrapped) << "its pictures go on at the chunk's start";
    stream(3, "12:00:07.600", 10, 10).pictures(50).closed(); // to 12:00:12.500
    // A gap of an hour. Then stream 5 begins inside stream 4.
    stream(4, "13:00:00", 5, 10).pictures(100).closed(); // to 13:00:19.800
    stream(5, "13:00:15", 1, 5).pictures(30).closed();   // to 13:00:44
    // A time scale of its own and no frame-rate code; its end is the next one's start, where nothing counts
    // as recorded.
    stream(6, "13:01:00", 25, 25).frameSet(0).firstPts(1'000'000).pictures(76).closed(); // to 13:01:03
    stream(7, "13:01:03", 10, 10).pictures(20).closed();                                 // to 13:01:04.900
    card.sql("UPDATE STREAM SET recSize = 0 WHERE streamID = 7");
    // Stream 9 has one I-picture, further than a search goes; it begins inside 8 and holds all of 10.
    stream(8, "13:02:57", 10, 10).pictures(50).closed();              // to 13:03:01.900
    stream(9, "13:03:00", 10, 10).firstI(290).pictures(300).closed(); // to 13:03:29.900
    stream(10, "13:03:02", 10, 10).pictures(29).closed();             // to 13:03:04.800
    stream(11, "13:04:00", 10, 10).firstPts(0).pictures(50).closed(); // to 13:04:04.900
    // A search for its end finds the picture before the last, which is near enough.
    stream(12, "13:05:00", 30, 30).pictures(101).closed(); // to 13:05:03.333

    card.alarm("12:00:01.500", "12:00:02");
    card.alarm("12:00:04.100", "12:00:05");
    card.alarm("12:00:09.500", "12:00:10");
    card.alarm("12:00:10", "12:00:11", 511);
    card.alarm("12:00:10.200", "12:00:11", 2048);
    card.alarm("12:00:11", ""); // not ended
    card.alarm("12:30:00", "12:30:01");
    card.alarm("13:00:08", "13:00:09", 2047);
    card.alarm("13:04:00.500", "13:04:02");
    if (!live) return;
    card.alarm("13:06:03", "13:06:04");
    card.alarm("13:06:30", "13:06:31"); // its pictures are still to come
    segment.m_status = static_cast<REC_STATUS*>(segment.creat(world.statusKey()));
    stream(m_live = 13, "13:06:00", 10, 10).pictures(50).recording(); // to 13:06:04.900 so far
    publish();
}

void Recording::publish() {
    segment.lockShm();
    segment.m_status->recStreamID = m_live;
    segment.m_status->recPictures = card.writer().pictures();
    segment.unlockShm();
}

void Recording::grow(uint32_t pictures) {
    card.grow(pictures);
    publish();
}

void Recording::beginNext(uint32_t pictures) {
    const uint64_t from = atMs("13:06:00") + card.writer().pictures() * 100;
    card.finish();
    card.stream(++m_live).fromMs(from).firstPts(from).fps(10).gop(10).pictures(pictures).recording();
    publish();
}

Place Recording::identify(const std::string& block) {
    Place place;
    const size_t name = std::min(block.find(" stream "), block.size());
    if (std::sscanf(block.c_str() + name, " stream %u picture %u ", &place.stream, &place.picture) != 2) {
        ADD_FAILURE() << "no picture: " << testing::PrintToString(block);
        return {};
    }
    const PICTURE_HEADER header = card.pictureHeader(place.stream, place.picture);
    EXPECT_EQ(block, pictureBytes(place.stream, place.picture, isIPicture(header), header.size));
    return place;
}

Session::Session(Recording& recording, Start start)
    : engine(start.place.stream, recording.recorder()), m_recording(recording) {
    EXPECT_EQ(engine.preGetData(), 1);
    if (start.skipMs != 0) engine.setFFSkipTime(start.skipMs);
    run(wait); // paused, until the client says play
    if (start.place.picture != 0) run({"Step", std::to_string(start.place.picture).c_str()});
    EXPECT_EQ(place(), start.place);
    m_shown.clear();
}

void Session::run(const Request& request) {
    const std::string name = request.name;
    std::string value = request.value;
    if (name == "Grow") {
        m_recording.grow(static_cast<uint32_t>(std::stoul(value)));
    } else if (name == "Begin") {
        m_recording.beginNext(static_cast<uint32_t>(std::stoul(value)));
    } else if (name != "Wait") {
        if (std::erase(value, ':') != 0) value.insert(6, "20240102T").insert(21, "Z");
        const rtsp_request record =
            makeRequest(name == "Pause" ? RTSP_REQ_PAUSE : RTSP_REQ_PLAY, {{request.name, value}});
        engine.analyzeEventData(&record);
    }
    for (int passes = 0; passes != request.passes && passes < 3000; ++passes) {
        const uint32_t before = engine.m_timestamp;
        block = engine.turn();
        increment = engine.m_timestamp - before;
        if (block != kPauseBlock) m_shown.push_back(m_recording.identify(block));
        if (request.passes == kUntilRest && engine.getCurrentPlayMode() == PB_PAUSE) break;
    }
}

Place Session::place() {
    DB_STREAM db;
    engine.m_pbStream.getDb(&db);
    return {db.streamID, engine.offset()};
}

const char* Session::statusWord() {
    const PBTYPE type = engine.getCurrentPlayMode();
    if (type != PB_PAUSE) return type < PB_PAUSE ? "play" : "error";
    const uint8_t reason = engine.getCurrentPauseMode();
    return reason == kPauseEnd ? "pause(eof)" : reason == kPauseStart ? "pause(sof)" : "pause";
}

std::string Session::pictures() const {
    std::string text;
    for (auto next = m_shown.begin(); next != m_shown.end();) {
        const Place first = *next;
        uint32_t count = 0;
        while (next != m_shown.end() && *next == Place{first.stream, first.picture + count}) ++next, ++count;
        text += (text.empty() ? "" : " ") + std::to_string(first.stream) + ":" +
                std::to_string(first.picture) + "-" + std::to_string(first.picture + count - 1);
    }
    return text;
}

static void PrintTo(const Place& place, std::ostream* out) {
    *out << "picture " << place.picture << " of stream " << place.stream;
}

void expectMoves(Recording& recording, std::span<const Move> rows) {
    std::unique_ptr<Session> session;
    for (const Move& row : rows) {
        SCOPED_TRACE(row.what);
        if (row.from.place.stream != 0) session = std::make_unique<Session>(recording, row.from);
        recording.log.clear();
        session->run(row.request);
        EXPECT_TRUE(row.says == nullptr || recording.log.has(6, row.says)) << row.says;
        EXPECT_EQ(session->engine.getCurrentPlayMode(), row.state.type);
        EXPECT_STREQ(session->statusWord(), row.state.word);
        if (!row.output.picture) {
            EXPECT_EQ(session->block, kPauseBlock);
        } else {
            EXPECT_EQ(recording.identify(session->block), row.lands) << "shown";
        }
        EXPECT_EQ(session->increment, row.output.increment.value_or(session->increment));
        EXPECT_EQ(session->place(), row.lands);
    }
}

} // namespace test
