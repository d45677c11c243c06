#include "tests/support/recorded.h"

#include <algorithm>

#include "platform/paths.h"
#include "tools/recording/recording_reader.h"

namespace test {

std::vector<std::string> recordedPictures(const std::vector<uint32_t>& streamIds) {
    std::vector<std::string> pictures;
    for (const RecordedPicture& picture : readRecording(paths().index, paths().card))
        if (std::count(streamIds.begin(), streamIds.end(), picture.stream)) pictures.push_back(picture.data);
    return pictures;
}

std::string joined(const std::vector<std::string>& pictures) {
    std::string bytes;
    for (const std::string& picture : pictures) bytes += picture;
    return bytes;
}

} // namespace test
