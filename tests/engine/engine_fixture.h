// An engine that a test drives pass by pass, without its thread, over a recording of its own.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "engine/pb_picker_thread.h"
#include "platform/output_words.h"
#include "tests/support/card.h"
#include "tests/support/log_recorder.h"
#include "tests/support/simulated_clock.h"
#include "tests/support/world.h"
#include "tools/client/control_client.h"

namespace test {

class Engine : public CpbPickerThread {
public:
    explicit Engine(uint32_t streamId, CtavirnShmServer* shm = nullptr)
        : CpbPickerThread({.searchMode = kStartAtStream, .searchValue = streamId, .shmServer = shm}) {}

    using CpbPickerThread::m_timestamp, CpbPickerThread::pass;
    /// Where it stands; tests only look.
    CPbStreamVideo& video() { return m_position.m_pbStream; }

    /// A pass of the thread, writing aside: the block it would write, empty when there is none.
    std::string turn() {
        m_sleepTimer({}, {});
        const int length = movePictureData() == 0 ? getPictureData(m_buffer.data()) : 0;
        return {m_buffer.data(), length > 0 ? static_cast<size_t>(length) : 0};
    }

    std::vector<char> m_buffer = std::vector<char>(kPictureBufferBytes);
};

class EngineTest : public testing::Test {
protected:
    World world;
    Card card{world};
    LogRecorder log;
};

} // namespace test
