// An engine that a test drives pass by pass, without its thread, over a recording of its own.
#pragma once

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "daemon/rtsp_request.h"
#include "engine/pb_picker_thread.h"
#include "platform/output_words.h"
#include "tests/support/card.h"
#include "tests/support/log_recorder.h"
#include "tests/support/simulated_clock.h"
#include "tests/support/world.h"

namespace test {

using Headers = std::vector<std::pair<const char*, std::string>>;

inline rtsp_request makeRequest(int32_t type, const Headers& headers = {}) {
    rtsp_request request{};
    request.type = type;
    for (const auto& [name, value] : headers) {
        RTSP_HEADER& header = request.header[request.headerNum++];
        std::strncpy(header.name, name, sizeof header.name);
        std::memcpy(header.value, value.data(), std::min(value.size(), sizeof header.value));
    }
    return request;
}

class Engine : public CpbPickerThread {
public:
    explicit Engine(uint32_t streamId, CtavirnShmServer* shm = nullptr)
        : CpbPickerThread({.searchMode = kStartAtStream, .searchValue = streamId, .shmServer = shm}) {}

    using CpbPickerThread::m_timestamp, CpbPickerThread::pass;
    /// Where it stands; tests only look.
    CPbStreamVideo& video() { return m_position.m_pbStream; }

    int play(const Headers& headers = {}) {
        const rtsp_request request = makeRequest(RTSP_REQ_PLAY, headers);
        return analyzeEventData(&request);
    }

    /// The block of the current picture; empty when there is none.
    std::string block() {
        const int length = getPictureData(m_buffer.data());
        return {m_buffer.data(), length > 0 ? static_cast<size_t>(length) : 0};
    }
    /// A pass of the thread, writing aside: the block it would write.
    std::string turn() {
        m_sleepTimer({}, {});
        return movePictureData() == 0 ? block() : "";
    }
    uint32_t offset() const { return static_cast<uint32_t>(m_position.m_pbStream.getOffset()); }

    std::vector<char> m_buffer = std::vector<char>(kPictureBufferBytes);
};

class EngineTest : public testing::Test {
protected:
    EngineTest() { simulated::set({.tv_sec = 1'000'000, .tv_usec = 0}); }

    World world;
    Card card{world};
    LogRecorder log;
};

} // namespace test
