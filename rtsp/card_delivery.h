// A play without rate control: pictures straight from the card, as fast as they are asked for, while the
// daemon is paused. Forward picture by picture; backward by whole GOPs, the pictures inside each forward.
#pragma once

#include "rtsp/play_order.h"
#include "rtsp/recording_time.h"

class CardDelivery {
public:
    /// Begins with the I-picture of `order.from`.
    explicit CardDelivery(const PlayOrder& order);

    struct Delivered {
        Picture picture;
        Standing standing;
    };
    /// Looks at one picture more; nothing when it is left out, or all have been.
    std::optional<Delivered> next();
    /// The last picture has been, or the next one can't be read.
    bool ended() const { return m_ended; }

private:
    /// What lies between a picture and the next one to deliver.
    struct Step {
        bool ended, gap, discontinuity;
    };
    Step forward(const RecordingTime::Found& from);
    Step backward();

    RecordingTime m_recording; ///< its own: that of the daemon's pictures stays where it is
    const PlayOrder m_order;
    bool m_ended;
    int64_t m_gop;                 ///< backward: when the GOP under way begins
    std::optional<int64_t> m_sent; ///< when the picture delivered last was recorded
    bool m_discontinuity = true;
};
