#include "tests/support/card.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sqlite3.h>
#include <stdexcept>

#include "platform/api_db.h"
#include "tools/common/clock_text.h"
#include "tools/recording/chunk_ring.h"

namespace test {
namespace {

using std::operator""s;

const std::string kSets = "\0\0\0\1\x67\x42\xC0\x1E\xD9\x01\x41\xFB\x01\x10\0\0\0\1\x68\xCB\x83\xCB\x20"s;
const std::string kSeiAndISlice = "\0\0\0\1\x06\x05\x01\x55\x80\0\0\0\1\x65\x88\x84"s;
const std::string kOtherSlice = "\0\0\0\1\x41\x9A\x24"s;

} // namespace

uint64_t atMs(const char* clock) {
    return parseClock(std::string("2024-01-02 ") + clock).value();
}

PB_STREAM_TIME at(const char* clock) {
    const uint64_t ms = atMs(clock);
    return {static_cast<uint32_t>(ms / 1000), static_cast<uint32_t>(ms % 1000)};
}

std::string parameterSets() {
    return kSets;
}

std::string pictureBytes(uint32_t streamId, uint32_t picture, bool iPicture, uint32_t size) {
    std::string data = iPicture ? kSets + kSeiAndISlice : kOtherSlice;
    data += " stream " + std::to_string(streamId) + " picture " + std::to_string(picture) + " ";
    data.resize(size != 0 ? size : data.size() + (iPicture ? 100 : 0) + (streamId + 7 * picture) % 32, '.');
    return data;
}

StreamBuilder& StreamBuilder::fps(double framesPerSecond) {
    m_intervalMs = 1000 / framesPerSecond;
    m_settings.frameSet = 0;
    for (uint16_t code = 1; const FrameRateRow* row = frameRateRow(code); ++code)
        if (row->tenthsPerSecond == framesPerSecond * 10) m_settings.frameSet = code;
    return *this;
}

void StreamBuilder::begin(uint32_t spare) {
    m_settings.capacity = m_pictures + spare;
    m_settings.gops = m_gop;
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
        if (!writer.addPicture({data, pts, iPicture})) throw std::runtime_error("give Card larger chunks");
    }
}

void Card::sql(const std::string& statement) {
    sqlite3* index = nullptr;
    sqlite3_open_v2(paths().index, &index, SQLITE_OPEN_READWRITE, nullptr);
    sqlite3_busy_timeout(index, 10000);
    const int result = sqlite3_exec(index, statement.c_str(), nullptr, nullptr, nullptr);
    sqlite3_close(index);
    if (result != SQLITE_OK) throw std::runtime_error(statement + ": " + sqlite3_errstr(result));
}

DB_STREAM Card::row(uint32_t streamId) {
    DB_STREAM row{};
    if (CApiDb().selectStream(streamId, &row) == 0)
        throw std::runtime_error("no row of stream " + std::to_string(streamId));
    return row;
}

std::string Card::chunkPath(uint32_t streamId) {
    return ::chunkPath(paths().card, row(streamId).chunkID & 0xFFFF);
}

PICTURE_HEADER Card::pictureHeader(uint32_t streamId, uint32_t picture) {
    PICTURE_HEADER header;
    std::ifstream(chunkPath(streamId), std::ios::binary)
        .seekg(headerPlace(streamId, picture + 1))
        .read(reinterpret_cast<char*>(&header), sizeof header);
    return header;
}

std::streamoff Card::headerPlace(uint32_t streamId, uint32_t n) {
    const uint64_t place = row(streamId).chunkOffset + n * uint64_t{kHeaderBytes};
    return static_cast<std::streamoff>(place % std::filesystem::file_size(chunkPath(streamId)));
}

} // namespace test
