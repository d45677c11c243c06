#include "tests/support/card.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sqlite3.h>
#include <stdexcept>

#include "platform/api_db.h"

namespace test {
namespace {

using std::operator""s;

const std::string kSequenceSet = "\0\0\0\1\x67\x42\xC0\x1E\xD9\x01\x41\xFB\x01\x10"s;
const std::string kPictureSet = "\0\0\0\1\x68\xCB\x83\xCB\x20"s;
const std::string kSei = "\0\0\0\1\x06\x05\x01\x55\x80"s;
const std::string kISlice = "\0\0\0\1\x65\x88\x84"s;
const std::string kOtherSlice = "\0\0\0\1\x41\x9A\x24"s;

constexpr uint32_t kGrowth = 400; // pictures that a recording stream can grow by

/// Record `n` of a stream's header area; one that reaches the chunk's end goes on at its start.
template <class Header> Header readRecord(Card& card, uint32_t streamId, uint64_t n) {
    const std::string path = card.chunkPath(streamId); // too long to be read whole for each header
    const uint64_t ring = std::filesystem::file_size(path);
    const uint64_t begin = (card.row(streamId).chunkOffset + n * sizeof(Header)) % ring;
    const auto head = static_cast<std::streamsize>(std::min<uint64_t>(sizeof(Header), ring - begin));
    std::array<char, sizeof(Header)> bytes;
    std::ifstream chunk(path, std::ios::binary);
    chunk.seekg(static_cast<std::streamoff>(begin)).read(bytes.data(), head);
    chunk.seekg(0).read(bytes.data() + head, static_cast<std::streamsize>(bytes.size()) - head);
    Header header;
    std::memcpy(&header, bytes.data(), sizeof header);
    return header;
}

template <class Header>
void writeRecord(Card& card, uint32_t streamId, uint64_t n, const Header& header, bool seal) {
    const Header whole = seal ? sealed(header) : header;
    const std::string bytes(reinterpret_cast<const char*>(&whole), sizeof whole),
        path = card.chunkPath(streamId);
    const uint64_t ring = std::filesystem::file_size(path),
                   begin = card.row(streamId).chunkOffset + n * bytes.size();
    for (size_t i = 0; i < bytes.size(); ++i) patchFile(path, (begin + i) % ring, bytes.substr(i, 1));
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
    return kSequenceSet + kPictureSet;
}

std::string pictureBytes(uint32_t streamId, uint32_t picture, bool iPicture, uint32_t size) {
    std::string data = iPicture ? parameterSets() + kSei + kISlice : kOtherSlice;
    data += " stream " + std::to_string(streamId) + " picture " + std::to_string(picture) + " ";
    data.resize(size != 0 ? size : data.size() + (iPicture ? 100 : 0) + (streamId + 7 * picture) % 32, '.');
    return data;
}

StreamBuilder& StreamBuilder::fps(double framesPerSecond) {
    m_intervalMs = 1000 / framesPerSecond;
    m_settings.frameSet = 0;
    for (uint16_t code = 1; const FrameRateRow* row = frameRateRow(code); ++code)
        if (row->tenthsPerSecond == static_cast<uint32_t>(std::lround(framesPerSecond * 10)))
            m_settings.frameSet = code;
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
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(m_place.indexFile.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
    const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> index(opened, &sqlite3_close);
    sqlite3_busy_timeout(opened, 10000);
    if (result != SQLITE_OK ||
        sqlite3_exec(opened, statement.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
        throw std::runtime_error(statement + ": " + sqlite3_errmsg(opened));
}

DB_STREAM Card::row(uint32_t streamId) {
    DB_STREAM row{};
    if (CApiDb().selectStream(streamId, &row) == 0)
        throw std::runtime_error("no row of stream " + std::to_string(streamId));
    return row;
}

std::string Card::chunkPath(uint32_t streamId) {
    const std::string number = std::to_string(row(streamId).chunkID & 0xFFFF);
    return m_place.cardDirectory + "/chunk" + std::string(5 - number.size(), '0') + number;
}

STREAM_HEADER Card::streamHeader(uint32_t streamId) {
    return readRecord<STREAM_HEADER>(*this, streamId, 0);
}
void Card::setStreamHeader(uint32_t streamId, STREAM_HEADER header, bool seal) {
    writeRecord(*this, streamId, 0, header, seal);
}
PICTURE_HEADER Card::pictureHeader(uint32_t streamId, uint32_t picture) {
    return readRecord<PICTURE_HEADER>(*this, streamId, uint64_t{picture} + 1);
}
void Card::setPictureHeader(uint32_t streamId, uint32_t picture, PICTURE_HEADER header, bool seal) {
    writeRecord(*this, streamId, uint64_t{picture} + 1, header, seal);
}

} // namespace test
