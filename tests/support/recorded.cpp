#include "tests/support/recorded.h"

#include <cstdio>

#include "platform/api_db.h"
#include "platform/paths.h"
#include "stream/records.h"
#include "tests/support/world.h"

namespace test {

std::vector<std::string> recordedPictures(const std::vector<uint32_t>& streamIds) {
    std::vector<std::string> pictures;
    CApiDb index;
    for (const uint32_t id : streamIds) {
        DB_STREAM row{};
        if (index.selectStream(id, &row) == 0) continue;
        char name[16];
        std::snprintf(name, sizeof name, "/chunk%05u", row.chunkID);
        const std::string chunk = readFile(paths().card + std::string(name));
        const std::string ring = chunk + chunk; // an area that reaches the end goes on at the start
        STREAM_HEADER stream{};
        std::memcpy(&stream, &ring[row.chunkOffset], sizeof stream);
        for (uint32_t n = 0; n < stream.pictures; ++n) {
            PICTURE_HEADER picture{};
            std::memcpy(&picture, &ring[row.chunkOffset + (n + 1) * kHeaderBytes], sizeof picture);
            pictures.push_back(ring.substr(picture.offset, picture.size));
        }
    }
    return pictures;
}

std::string joined(const std::vector<std::string>& pictures) {
    std::string bytes;
    for (const std::string& picture : pictures) bytes += picture;
    return bytes;
}

} // namespace test
