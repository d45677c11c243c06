#include "fuzz/recording.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/mman.h>

#include "platform/api_db.h"
#include "platform/paths.h"
#include "tests/support/card.h"

namespace {

constexpr uint8_t kRefused = 0xFF, kNoRow = 0xFE, kChanged = 0x80; ///< answers of the index

const uint32_t kStart = test::at("12:00:00").seconds();
std::array<DB_STREAM, 3> streams; ///< five seconds each, as the index has them
Input* answers = nullptr;

template <class Record> void setWord(Record& record, uint32_t word, uint32_t value) {
    std::memcpy(reinterpret_cast<char*>(&record) + word % (sizeof record / 4) * 4, &value, sizeof value);
}

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

Recording::Recording() {
    test::Card card(m_world, 1u << 16);
    card.stream(1).from("12:00:00").pictures(90).gop(10).closed();
    card.stream(2).from("12:00:05").fps(5).pictures(30).gop(5).closed();
    card.stream(3).from("12:00:10").pictures(60).gop(15).recording();
    const std::string path = std::filesystem::directory_iterator(paths().card)->path();
    m_sound = test::readFile(path);
    const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
    m_chunk = static_cast<char*>(mmap(nullptr, m_sound.size(), PROT_WRITE, MAP_SHARED, file, 0));
    require(status.openStatus(m_world.statusKey()) && m_chunk != MAP_FAILED);
    for (uint32_t place = 0; place < m_sound.size(); place += kHeaderBytes) {
        const auto& header = *reinterpret_cast<const STREAM_HEADER*>(m_chunk + place);
        if (header.marker != kStreamMarker) continue;
        const bool isOpen = header.pictures == 0;
        const uint32_t areaBytes = isOpen ? 0 : (header.pictures + 1) * kHeaderBytes;
        const uint32_t start = kStart + header.id * 5 - 5;
        streams.at(header.id - 1) = {header.id, 0, 0, 0, header.pictures, 1, place, areaBytes, isOpen, start,
                                     start + 5, 0, 0, 0};
    }
}

void Recording::restore(Input& input) {
    answers = &input;
    *status.m_status = {};
    m_sound.copy(m_chunk, m_sound.size());
}

void Recording::damage(Input& input) {
    const uint8_t kind = input.byte() % 8;
    if (kind < 4) {
        status.m_status->recStreamID = input.byte();
        status.m_status->recPictures = input.number();
    } else if (kind == 4) {
        const std::string bytes = input.text(1 + input.byte() % 32);
        bytes.copy(m_chunk + input.take<uint32_t>() % (m_sound.size() - bytes.size()), bytes.size());
    } else {
        const uint32_t area = streams[input.byte() % 3].chunkOffset, record = input.byte() % 91;
        char* const place = m_chunk + (area + record * kHeaderBytes) % m_sound.size();
        auto& header = *reinterpret_cast<PICTURE_HEADER*>(place); // a stream's has its checksum there, too
        setWord(header, input.byte(), input.number());
        header.cs = headerChecksum(header);
    }
}

bool Recording::holds(const PICTURE_HEADER& header, std::string_view shown) const {
    if (header.size != shown.size()) return false;
    for (size_t n = 0; n < shown.size(); ++n) {
        const char there = n < m_sound.size() ? m_chunk[(size_t{header.offset} + n) % m_sound.size()] : '\0';
        if (shown[n] != there) return false;
    }
    return true;
}

bool Recording::holds(std::string_view shown) const {
    for (size_t place = 0; place < m_sound.size(); place += kHeaderBytes) {
        PICTURE_HEADER header;
        std::memcpy(&header, m_chunk + place, sizeof header);
        if (header.marker == kPictureMarker && holds(header, shown)) return true;
    }
    return false;
}

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
