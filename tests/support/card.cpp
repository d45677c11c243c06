#include "tests/support/card.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sqlite3.h>
#include <stdexcept>

#include "platform/paths.h"

namespace test {
namespace {

constexpr char kSequenceSet[] = "\0\0\0\1\x67\x42\xC0\x1E\xD9\x01\x41\xFB\x01\x10";
constexpr char kPictureSet[] = "\0\0\0\1\x68\xCB\x83\xCB\x20";
constexpr char kSei[] = "\0\0\0\1\x06\x05\x01\x55\x80";
constexpr char kISlice[] = "\0\0\0\1\x65\x88\x84";
constexpr char kOtherSlice[] = "\0\0\0\1\x41\x9A\x24";

/// Without the NUL that ends the literal.
template <size_t N> std::string bytes(const char (&literal)[N]) {
    return {literal, N - 1};
}

/// Where a record of a header area lies in its chunk; one that reaches the chunk's end goes on at its start.
struct RecordPlace {
    RecordPlace(const std::string& chunk, const DB_STREAM& row, uint64_t record)
        : ring(std::filesystem::file_size(chunk)), position((row.chunkOffset + record * kHeaderBytes) % ring),
          toEnd(std::min<uint64_t>(kHeaderBytes, ring - position)) {}
    uint64_t ring, position, toEnd;
};

template <class Header> Header readHeader(const std::string& chunk, const DB_STREAM& row, uint64_t record) {
    const RecordPlace place(chunk, row, record);
    std::ifstream file(chunk, std::ios::binary);
    const auto read = [&](uint64_t from, uint64_t count) {
        std::string part(count, '\0');
        file.seekg(static_cast<std::streamoff>(from));
        file.read(part.data(), static_cast<std::streamsize>(count));
        return part;
    };
    const std::string raw = read(place.position, place.toEnd) + read(0, kHeaderBytes - place.toEnd);
    if (!file) throw std::runtime_error("cannot read " + chunk);
    Header header;
    std::memcpy(&header, raw.data(), sizeof header);
    return header;
}

template <class Header>
void writeHeader(const std::string& chunk, const DB_STREAM& row, uint64_t record, const Header& header) {
    const RecordPlace place(chunk, row, record);
    const std::string raw(reinterpret_cast<const char*>(&header), kHeaderBytes);
    patchFile(chunk, place.position, raw.substr(0, place.toEnd));
    patchFile(chunk, 0, raw.substr(place.toEnd));
}

} // namespace

uint64_t atMs(const char* clock) {
    tm parts{};
    const std::string whole = std::strchr(clock, '-') ? clock : std::string("2024-01-02 ") + clock;
    const char* rest = strptime(whole.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    if (!rest) throw std::invalid_argument("not a clock time: " + whole);
    parts.tm_isdst = -1;
    const auto milliseconds = std::lround(*rest == '.' ? std::atof(rest) * 1000 : 0);
    return static_cast<uint64_t>(mktime(&parts)) * 1000 + static_cast<uint64_t>(milliseconds);
}

PB_STREAM_TIME at(const char* clock) {
    const uint64_t ms = atMs(clock);
    return {static_cast<uint32_t>(ms / 1000), static_cast<uint32_t>(ms % 1000)};
}

std::string parameterSets() {
    return bytes(kSequenceSet) + bytes(kPictureSet);
}

std::string pictureBytes(uint32_t streamId, uint32_t picture, bool iPicture, uint32_t size) {
    std::string data = iPicture ? parameterSets() + bytes(kSei) + bytes(kISlice) : bytes(kOtherSlice);
    data += " stream " + std::to_string(streamId) + " picture " + std::to_string(picture) + " ";
    data.resize(size != 0 ? size : data.size() + (iPicture ? 100 : 0) + (streamId + 7 * picture) % 32, '.');
    return data;
}

// ---- StreamBuilder ----

StreamBuilder& StreamBuilder::from(const char* clock) {
    return fromMs(atMs(clock));
}
StreamBuilder& StreamBuilder::fromMs(uint64_t ms) {
    m_settings.startMs = ms;
    return *this;
}
StreamBuilder& StreamBuilder::pictures(uint32_t count) {
    m_pictures = count;
    return *this;
}
StreamBuilder& StreamBuilder::gop(uint32_t pictures) {
    m_gop = pictures;
    return *this;
}
StreamBuilder& StreamBuilder::fps(double framesPerSecond) {
    m_intervalMs = 1000 / framesPerSecond;
    m_settings.frameSet = 0;
    for (uint16_t code = 1; const FrameRateRow* row = frameRateRow(code); ++code)
        if (row->tenthsPerSecond == std::lround(framesPerSecond * 10)) m_settings.frameSet = code;
    return *this;
}
StreamBuilder& StreamBuilder::frameSet(uint16_t value) {
    m_settings.frameSet = value;
    return *this;
}
StreamBuilder& StreamBuilder::gops(uint32_t value) {
    m_gops = value;
    return *this;
}
StreamBuilder& StreamBuilder::firstPts(uint64_t ms) {
    m_firstPts = ms;
    return *this;
}
StreamBuilder& StreamBuilder::firstI(uint32_t picture) {
    m_firstI = picture;
    return *this;
}
StreamBuilder& StreamBuilder::pictureSize(uint32_t size) {
    m_pictureSize = size;
    return *this;
}

void StreamBuilder::begin(uint32_t spare) {
    m_settings.capacity = m_pictures + spare;
    m_settings.gops = m_gops.value_or(m_gop);
    m_card.m_writer.beginStream(m_settings);
    write(m_pictures);
}

void StreamBuilder::write(uint32_t count) {
    RecordingWriter& writer = m_card.m_writer;
    for (uint32_t end = writer.pictures() + count; writer.pictures() < end;) {
        const uint32_t n = writer.pictures();
        const bool iPicture = n >= m_firstI && (n - m_firstI) % m_gop == 0;
        const std::string data = pictureBytes(m_settings.streamId, n, iPicture, m_pictureSize);
        const auto pts = m_firstPts + static_cast<uint64_t>(std::llround(n * m_intervalMs));
        if (!writer.addPicture({data, pts, iPicture}))
            throw std::runtime_error("no room for picture " + std::to_string(n) +
                                     "; give Card larger chunks");
    }
}

void StreamBuilder::closed() {
    begin(0);
    m_card.m_writer.finishStream();
}

void StreamBuilder::recording() {
    begin(kGrowth);
    m_card.m_open.emplace(*this);
}

// ---- Card ----

Card::Card(const World& world, uint32_t chunkBytes)
    : Card({world.root() + kFixedPaths.card, world.root() + kFixedPaths.index, chunkBytes}) {}

Card::Card(const RecordingPlace& place) : m_place(place), m_writer(place) {}

uint32_t Card::alarm(const char* from, const char* to, uint32_t extTrg) {
    return m_writer.addEvent(atMs(from), to && *to ? atMs(to) : 0, extTrg);
}

void Card::grow(uint32_t pictures) {
    m_open.value().write(pictures);
}

void Card::finish() {
    m_open.reset();
    m_writer.finishStream();
}

void Card::sql(const std::string& statement) {
    query(statement, nullptr, nullptr);
}

void Card::query(const std::string& statement, int (*perRow)(void*, int, char**, char**), void* context) {
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(m_place.indexFile.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
    const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> database(opened, &sqlite3_close);
    sqlite3_busy_timeout(opened, 10000);
    if (result != SQLITE_OK || sqlite3_exec(opened, statement.c_str(), perRow, context, nullptr) != SQLITE_OK)
        throw std::runtime_error(statement + ": " + sqlite3_errmsg(opened));
}

DB_STREAM Card::row(uint32_t streamId) {
    DB_STREAM row{};
    const auto copy = [](void* context, int, char** cells, char**) {
        uint32_t v[14];
        for (int i = 0; i < 14; ++i) v[i] = cells[i] ? static_cast<uint32_t>(std::atoll(cells[i])) : 0;
        const auto narrow = [&](int i) { return static_cast<uint16_t>(v[i]); };
        *static_cast<DB_STREAM*>(context) = {v[0],  narrow(1),  narrow(2),  v[3], v[4],
                                             v[5],  v[6],       v[7],       v[8], v[9],
                                             v[10], narrow(11), narrow(12), v[13]};
        return 0;
    };
    query("SELECT streamID, inTrg, frameSet, bitrateSet, recSize, chunkID, chunkOffset, chunkSize, status,"
          " startDate, endDate, startMSec, endMSec, backOffset FROM STREAM WHERE streamID = " +
              std::to_string(streamId),
          copy, &row);
    if (row.streamID == 0) throw std::runtime_error("no row of stream " + std::to_string(streamId));
    return row;
}

std::string Card::chunkPath(uint32_t streamId) {
    char name[16];
    std::snprintf(name, sizeof name, "/chunk%05u", row(streamId).chunkID & 0xFFFF);
    return m_place.cardDirectory + name;
}

STREAM_HEADER Card::streamHeader(uint32_t streamId) {
    return readHeader<STREAM_HEADER>(chunkPath(streamId), row(streamId), 0);
}

void Card::setStreamHeader(uint32_t streamId, STREAM_HEADER header, bool seal) {
    writeHeader(chunkPath(streamId), row(streamId), 0, seal ? sealed(header) : header);
}

PICTURE_HEADER Card::pictureHeader(uint32_t streamId, uint32_t picture) {
    return readHeader<PICTURE_HEADER>(chunkPath(streamId), row(streamId), uint64_t{picture} + 1);
}

void Card::setPictureHeader(uint32_t streamId, uint32_t picture, PICTURE_HEADER header, bool seal) {
    writeHeader(chunkPath(streamId), row(streamId), uint64_t{picture} + 1, seal ? sealed(header) : header);
}

} // namespace test
