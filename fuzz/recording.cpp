#include "fuzz/recording.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

#include "platform/api_db.h"
#include "platform/paths.h"
#include "tests/support/card.h"

namespace {

constexpr uint32_t kChunkBytes = 1u << 16;
constexpr uint8_t kRefused = 0xFF, kNoRow = 0xFE, kChanged = 0x80; ///< answers of the index

const uint32_t kStart = test::at("12:00:00").seconds();
std::array<DB_STREAM, 3> streams; ///< five seconds each, as the index has them
Input* answers = nullptr;

template <class Record> void setWord(Record& record, uint32_t word, uint32_t value) {
    std::memcpy(reinterpret_cast<char*>(&record) + word % (sizeof record / 4) * 4, &value, sizeof value);
}

DB_STREAM rowOf(const STREAM_HEADER& header, uint32_t place) {
    DB_STREAM row{};
    row.streamID = header.id;
    row.recSize = header.pictures;
    row.chunkID = 1;
    row.chunkOffset = place;
    row.chunkSize = row.recSize == 0 ? 0 : (row.recSize + 1) * kHeaderBytes;
    row.status = row.recSize == 0 ? DB_STATUS_RECORDING : 0;
    row.startDate = kStart + (row.streamID - 1) * 5;
    row.endDate = row.startDate + 5;
    return row;
}

} // namespace

Recording::Recording() {
    test::Card card(m_world, kChunkBytes);
    card.stream(1).from("12:00:00").pictures(90).gop(10).closed();
    card.stream(2).from("12:00:05").fps(5).pictures(30).gop(5).closed();
    card.stream(3).from("12:00:10").pictures(60).gop(15).recording();
    status.m_status = static_cast<REC_STATUS*>(status.creat(m_world.statusKey()));
    m_path = std::filesystem::directory_iterator(paths().card)->path();
    m_sound = test::readFile(m_path);
    m_file = open(m_path.c_str(), O_RDWR | O_CLOEXEC);
    m_chunk = static_cast<char*>(mmap(nullptr, m_sound.size(), PROT_WRITE, MAP_SHARED, m_file, 0));
    require(status.m_status != nullptr && m_chunk != MAP_FAILED);
    for (uint32_t place = 0; place < kChunkBytes; place += kHeaderBytes) {
        STREAM_HEADER header;
        std::memcpy(&header, m_chunk + place, sizeof header);
        if (header.marker == kStreamMarker) streams.at(header.id - 1) = rowOf(header, place);
    }
}

void Recording::restore(Input& input) {
    answers = &input;
    *status.m_status = {};
    if (!std::exchange(m_damaged, false)) return;
    if (std::exchange(m_cut, false)) require(ftruncate(m_file, static_cast<off_t>(m_sound.size())) == 0);
    rename((m_path + ".away").c_str(), m_path.c_str());
    m_sound.copy(m_chunk, m_sound.size());
}

void Recording::damage(Input& input) {
    const uint8_t kind = input.byte() % 8;
    if (kind < 2) {
        status.m_status->recStreamID = input.byte();
        status.m_status->recPictures = input.number();
        return;
    }
    m_damaged = true;
    if (kind == 2) {
        rename(m_path.c_str(), (m_path + ".away").c_str());
    } else if (kind == 3 || m_cut) {
        m_cut = ftruncate(m_file, input.byte() * kHeaderBytes) == 0;
    } else if (kind == 4) {
        const std::string bytes = input.text(1 + input.byte() % 32);
        bytes.copy(m_chunk + input.take<uint32_t>() % (m_sound.size() - bytes.size()), bytes.size());
    } else {
        PICTURE_HEADER header; // or a stream's, which has its checksum in the same place
        const uint32_t area = streams[input.byte() % 3].chunkOffset, record = input.byte() % 91;
        char* const place = m_chunk + (area + record * kHeaderBytes) % m_sound.size();
        std::memcpy(&header, place, sizeof header);
        setWord(header, input.byte(), input.number());
        header.cs = headerChecksum(header);
        std::memcpy(place, &header, sizeof header);
    }
}

bool Recording::holds(const PICTURE_HEADER& header, std::string_view shown) const {
    if (header.size != shown.size()) return false;
    for (size_t n = 0; n < shown.size() && !m_cut; ++n) {
        const char there = n < m_sound.size() ? m_chunk[(size_t{header.offset} + n) % m_sound.size()] : '\0';
        if (shown[n] != there) return false;
    }
    return true;
}

namespace {

// The row found last.
DB_STREAM stream;
DB_EVENT event;
int found = 0;

int ask() {
    const uint8_t answer = answers->byte();
    found = answer < kNoRow;
    stream = streams[answer % streams.size()];
    event = {1, kStart + 1, 0, kStart + 2, 0, 512};
    if (found == 0 || (answer & kChanged) == 0) return answer == kRefused ? -1 : 0;
    setWord(stream, answers->byte(), answers->number());
    setWord(event, answers->byte(), answers->number());
    return 0;
}

} // namespace

// The linker takes these in place of the library's.
struct CApiDb::Index {};
CApiDb::CApiDb() = default;
CApiDb::~CApiDb() = default;
int CApiDb::setSql(const char*) {
    return ask();
}
int CApiDb::getNTuple() {
    return found;
}
unsigned long CApiDb::getValue(long, long) {
    return stream.streamID;
}
void CApiDb::getStreamValue(long, DB_STREAM* row) {
    *row = stream;
}
void CApiDb::getEventValue(long, DB_EVENT* row) {
    *row = event;
}
int CApiDb::selectStream(unsigned long, DB_STREAM* row) {
    return selectStreamOldestTime(row);
}
int CApiDb::selectStreamOldestTime(DB_STREAM* row) {
    if (ask() == 0 && found == 1) *row = stream;
    return found;
}
