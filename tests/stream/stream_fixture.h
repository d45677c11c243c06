// A world with a card, the recorder's segment, and a stream object whose inner operations are open.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/log.h"
#include "shm/shm_server.h"
#include "stream/pb_stream_video.h"
#include "tests/support/card.h"
#include "tests/support/log_recorder.h"

inline bool operator==(const PICTURE_HEADER& a, const PICTURE_HEADER& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

class Stream : public CPbStreamVideo {
public:
    using Base = CPbStreamVideo;
    using Base::Base, Base::m_stream, Base::m_updateRecStream;
    PB_VIDEO& m_video = m_stream.m_video;
};

/// Passes everything on to the reader it stands in for; counts, and breaks down when told to.
class WatchedReader : public CStreamRead {
public:
    explicit WatchedReader(std::unique_ptr<CStreamRead> inner) : m_inner(std::move(inner)) {}
    int open(CHUNK_EVENT* event) override { return m_inner->open(event); }
    int close() override { return m_inner->close(); }
    int seek(long position, int origin) override { return seekFails ? -1 : m_inner->seek(position, origin); }
    int seekEvent(long position, int origin) override {
        return seekFails ? -1 : m_inner->seekEvent(position, origin);
    }
    long read(void* buffer, long length) override {
        ++reads;
        return readLimit < 0 ? -1 : m_inner->read(buffer, std::min(length, readLimit));
    }

    int reads = 0;
    long readLimit = kMaxPictureBytes; ///< bytes that come of a longer read; -1 = it fails
    bool seekFails = false;

private:
    std::unique_ptr<CStreamRead> m_inner;
};

inline WatchedReader& watch(std::unique_ptr<CStreamRead>& reader) {
    auto watched = std::make_unique<WatchedReader>(std::move(reader));
    WatchedReader& result = *watched;
    reader = std::move(watched);
    return result;
}

class StreamTest : public testing::Test {
protected:
    PB_STREAM_TIME open(uint32_t id) { return video.getId(id, &db, &stH, &picH, 0); }
    /// Without a time: from the present picture's.
    int over(unsigned char dir, PB_STREAM_TIME time = {}, bool locate = false) {
        return video.over(dir, &db, &stH, &picH, &time, locate ? 1 : 0);
    }
    PB_STREAM_TIME skip(unsigned char kind, unsigned long backSec = 0) {
        return video.getSkip(nullptr, &db, &stH, &picH, kind, 0, 0, backSec);
    }
    PB_STREAM_TIME toAlarm(PB_STREAM_TIME from, unsigned char dir) {
        return video.getSkip(&from, &db, &stH, &picH, kSkipEvent, dir, 0, 0);
    }
    long move(unsigned char kind, unsigned long count, unsigned char search = kSearchNone) {
        return video.move(kind, count, &picH, search);
    }

    void recorderSays(uint32_t streamId, uint32_t pictures) {
        if (segment.m_status == nullptr)
            segment.m_status = static_cast<REC_STATUS*>(segment.creat(world.statusKey()));
        segment.m_status->recStreamID = streamId;
        segment.m_status->recPictures = pictures;
    }
    bool isEmpty() const {
        return video.m_video.db.streamID == 0 && video.m_video.readPic == nullptr &&
               video.m_video.readSt == nullptr && video.m_video.stH.pictures == 0;
    }

    test::World world;
    test::Card card{world};
    test::LogRecorder log;
    CtavirnShmServer segment;
    Stream video{&segment};
    DB_STREAM db{};
    STREAM_HEADER stH{};
    PICTURE_HEADER picH{};
};

inline const PB_STREAM_TIME kNowhere{0, 0};
