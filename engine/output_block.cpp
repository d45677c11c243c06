#include "engine/output_block.h"

#include <cstring>

#include "platform/log.h"
#include "platform/output_words.h"

namespace {

/// Time stamp units times 10 in a second: divided by a frame rate in tenths, the step of one frame.
constexpr uint32_t kPtsTenths = kPtsPerMs * 1000 * 10;

/// Time stamp units from a to b, for b after a; wraps at 32 bits on purpose.
uint32_t unitsBetween(PB_STREAM_TIME a, PB_STREAM_TIME b) {
    const PB_STREAM_TIME span = b - a;
    return (span.seconds() * 1000u + span.mSec) * kPtsPerMs;
}

/// The order of the divisions decides the rounding.
uint32_t atSpeed(uint32_t units, uint32_t speed) {
    return speed == 0 ? units : units / speed * 10;
}

/// The pictures of fast play are far apart: a step of two frames or more is cut to one.
uint32_t fastStep(uint32_t step, uint32_t frameStep) {
    return step < 2 * frameStep ? step : frameStep;
}

/// The picture stood on; 0 when it can't be read.
int readPicture(char* buffer, Position& position) {
    CPbStreamVideo& video = position.m_pbStream;
    STREAM_HEADER stream; // asking for it follows a stream under recording
    video.getStH(&stream);
    PICTURE_HEADER picture;
    video.getPicH(&picture);
    const bool read = video.get(reinterpret_cast<unsigned char*>(buffer)) >= 0;
    position.m_pbRealRate = static_cast<uint32_t>(video.getFrameRate());
    return read ? static_cast<int>(picture.size) : 0;
}

void logChange(CPbStreamVideo& video) {
    DB_STREAM db;
    video.getDb(&db);
    logNamed(LOG_INFO, "getPictureData", "m_pbType changed. streamID=%ld pbTime=%ld", asLd(db.streamID),
             asLd(video.getTimePts().sec));
}

} // namespace

int fillPauseBlock(char* buffer) {
    std::memcpy(buffer, kPauseBlock.data(), kPauseBlock.size());
    return static_cast<int>(kPauseBlock.size());
}

BlockKind BlockMaker::kindAt(PBTYPE type, PB_STREAM_TIME pts, bool refresh) const {
    switch (type) {
    case PB_NORMAL:
    case PB_SLOW:
    case PB_STEP_FWD:
    case PB_STEP_BACK:
        return BlockKind::picture;
    case PB_FF: // only what lies further on in the direction of play
        return pts > m_prevPts ? BlockKind::picture : BlockKind::still;
    case PB_REW:
    case PB_SLOW_REW:
        return pts < m_prevPts ? BlockKind::picture : BlockKind::still;
    case PB_PAUSE:
        return refresh || (pts != m_prevPts && !pts.isNone()) ? BlockKind::picture : BlockKind::rest;
    default:
        return BlockKind::none;
    }
}

uint32_t BlockMaker::stampStep(const PlayState& play, PB_STREAM_TIME pts, uint32_t frameRate) const {
    const uint32_t frameStep = kPtsTenths / (frameRate != 0 ? frameRate : kAssumedFrameRate);
    switch (play.m_pbType) {
    case PB_NORMAL:
    case PB_SLOW:
        return atSpeed(pts > m_prevPts ? unitsBetween(m_prevPts, pts) : frameStep, play.playSpeed);
    case PB_FF:
        return fastStep(atSpeed(unitsBetween(m_prevPts, pts), play.playSpeed), frameStep);
    case PB_REW:
    case PB_SLOW_REW:
        return fastStep(atSpeed(unitsBetween(pts, m_prevPts), play.playSpeed), frameStep);
    default:
        return frameStep;
    }
}

BlockMaker::Block BlockMaker::fill(char* buffer, BlockKind kind, const PlayState& play, Position& position) {
    const PB_STREAM_TIME pts = position.m_pbStream.getNowPts();
    Block block{};
    if (kind == BlockKind::picture) {
        block.length = readPicture(buffer, position);
        if (play.m_pbType == PB_PAUSE && block.length > 0) position.m_pbRefresh = 0;
        block.stampStep = stampStep(play, pts, position.m_pbRealRate);
    } else {
        block.length = fillPauseBlock(buffer);
    }
    m_prevPts = pts;
    if (play.m_pbType != m_prevPbType) logChange(position.m_pbStream);
    m_prevPbType = play.m_pbType;
    return block;
}
