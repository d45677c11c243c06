// A card and an index of any content, driven by a sequence of stream-access operations.
#include <cstring>
#include <memory>
#include <sqlite3.h>
#include <utility>

#include "fuzz/input.h"
#include "shm/shm_server.h"
#include "stream/pb_stream_video.h"
#include "tests/support/card.h"

namespace {

constexpr uint32_t kChunkBytes = 1u << 16;
constexpr const char* kColumns[] = {"frameSet",  "recSize", "chunkID",   "chunkOffset", "chunkSize", "status",
                                    "startDate", "endDate", "startMSec", "endMSec",     "streamID"};

/// Three streams and an alarm, which can be put back as they were.
struct Place {
    Place() {
        card.stream(1).from("12:00:00").pictures(90).gop(10).closed();
        card.stream(2).from("12:00:05").fps(5).pictures(30).gop(5).closed();
        card.stream(3).from("12:00:30").pictures(60).gop(15).recording();
        card.alarm("12:00:01", "12:00:02");
        status.m_status = static_cast<REC_STATUS*>(status.creat(world.statusKey()));
        chunk = card.chunkPath(1);
        sound = test::readFile(chunk);
        header = card.row(1).chunkOffset;
        sqlite3_open(paths().index, &index);
        sql("PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY; CREATE TABLE S AS SELECT * FROM STREAM;"
            "CREATE TABLE E AS SELECT * FROM EVENT");
    }
    ~Place() { sqlite3_close(index); }
    void sql(const std::string& text) { sqlite3_exec(index, text.c_str(), nullptr, nullptr, nullptr); }
    void restore() {
        if (std::exchange(rowsChanged, false))
            sql("BEGIN; DELETE FROM STREAM; INSERT INTO STREAM SELECT * FROM S; DELETE FROM EVENT; "
                "INSERT INTO EVENT SELECT * FROM E; COMMIT");
        if (std::exchange(chunkChanged, false)) test::writeFile(chunk, sound);
        *status.m_status = {};
    }
    void changeRows(const std::string& text) {
        sql(text);
        rowsChanged = true;
    }
    void patch(uint64_t position, const std::string& bytes) {
        test::patchFile(chunk, position, bytes);
        chunkChanged = true;
    }

    test::World world;
    test::Card card{world, kChunkBytes};
    CtavirnShmServer status;
    std::string chunk, sound;
    uint32_t header = 0; ///< where stream 1's header area begins
    sqlite3* index = nullptr;
    bool rowsChanged = false, chunkChanged = false;
};

/// Changes a word of a header; sealed, so that it is believed.
template <class Header> void changeHeader(Place& place, uint32_t record, Input& input) {
    Header header;
    const uint64_t position = (place.header + record * kHeaderBytes) % kChunkBytes; // whole: 32 divides both
    std::memcpy(&header, place.sound.data() + position, sizeof header);
    const uint32_t word = input.byte() % 7, value = input.number();
    std::memcpy(reinterpret_cast<char*>(&header) + word * 4, &value, sizeof value);
    header.cs = headerChecksum(header);
    place.patch(position, {reinterpret_cast<const char*>(&header), sizeof header});
}

PB_STREAM_TIME aTime(Input& input) {
    const uint32_t far = input.byte();
    const PB_STREAM_TIME start = test::at("12:00:00");
    return far == 255 ? PB_STREAM_TIME(input.word(), input.word() % 1000)
                      : PB_STREAM_TIME(start.seconds() + far / 4, far % 4 * 250);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Place place;
    static const auto buffer = std::make_unique<unsigned char[]>(kMaxPictureBytes);
    place.restore();
    CPbStreamVideo video(&place.status);
    DB_STREAM db{};
    STREAM_HEADER stH{};
    PICTURE_HEADER picH{};
    Input input(data, size);
    for (int steps = 0; steps < 40 && !input.empty(); ++steps) {
        const uint8_t what = input.byte();
        PB_STREAM_TIME time;
        switch (what % 16) {
        case 0:
        case 1:
            video.getId(input.number(), &db, &stH, &picH, 0);
            break;
        case 2:
        case 3:
            video.move(input.byte() % 4, input.number(), &picH, input.byte() % 4);
            break;
        case 4:
            video.getTime(aTime(input), &db, &stH, &picH, 0, what >> 7, 0);
            break;
        case 5:
            time = what & 64 ? aTime(input) : PB_STREAM_TIME();
            video.over(what >> 7, &db, &stH, &picH, &time, input.byte() & 1);
            break;
        case 6:
            time = aTime(input);
            video.getSkip(&time, &db, &stH, &picH, input.byte() % 4, what >> 7, 0, input.number());
            break;
        case 7:
            video.get(buffer.get());
            break;
        case 8:
            video.getDb(&db), video.getStH(&stH), video.getFrameRate(), video.getTimePts();
            break;
        case 9:
            video.setplaylastframemode(what >> 7), video.clearEventID();
            break;
        case 10:
            changeHeader<STREAM_HEADER>(place, 0, input);
            break;
        case 11:
            changeHeader<PICTURE_HEADER>(place, 1 + input.byte() % 90, input);
            break;
        case 12:
            place.patch(input.word() % kChunkBytes, input.text(1 + input.byte() % 32));
            break;
        case 13: {
            const std::string column = kColumns[input.byte() % std::size(kColumns)];
            const std::string value = std::to_string(input.number());
            place.changeRows("UPDATE OR REPLACE STREAM SET " + column + "=" + value +
                             " WHERE streamID=" + std::to_string(input.byte()));
            break;
        }
        case 14: {
            const std::string id = std::to_string(input.byte());
            const std::string start = std::to_string(aTime(input).seconds());
            const std::string end = std::to_string(aTime(input).seconds());
            place.changeRows("INSERT OR REPLACE INTO EVENT VALUES (" + id + "," + start + ",0," + end +
                             ",0," + std::to_string(input.number() * 8) + ")");
            break;
        }
        default:
            place.status.m_status->recStreamID = input.byte();
            place.status.m_status->recPictures = input.number();
        }
    }
    return 0;
}
