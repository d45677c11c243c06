// A play without rate control: pictures straight from the card, as fast as they are asked for, while the
// daemon is paused. Forward picture by picture; backward by whole GOPs, the pictures inside each forward.
#pragma once

#include "rtsp/play_order.h"
#include "rtsp/recording_time.h"

class CardDelivery {
public:
    /// `recording` stands on the I-picture to begin with; nobody else moves it until the end.
    CardDelivery(RecordingTime& recording, const PlayOrder& order);

    struct Delivered {
        Picture picture;
        Standing standing;
    };
    /// The next picture; nothing when the last one has been, or it can't be read.
    std::optional<Delivered> next();

private:
    /// What lies between a picture and the next one to deliver.
    struct Step {
        bool ended, gap, discontinuity;
    };
    Step forward(const RecordingTime::Found& from);
    Step backward();

    RecordingTime& m_recording;
    const PlayOrder m_order;
    int64_t m_gop;                 ///< backward: when the GOP under way begins
    std::optional<int64_t> m_sent; ///< when the picture delivered last was recorded
    bool m_discontinuity = true;
    bool m_ended = false;
};
