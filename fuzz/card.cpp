// Any sequence of stream-access operations on a card and an index of any content. What is shown lies where
// the accepted header says, and once the card is sound again, so is what is shown.
#include <functional>
#include <memory>

#include "fuzz/recording.h"
#include "stream/pb_stream_video.h"
#include "tests/support/card.h"

namespace {

PB_STREAM_TIME aTime(Input& input) {
    const uint32_t far = input.byte();
    static const PB_STREAM_TIME start = test::at("12:00:00");
    return far == 255 ? PB_STREAM_TIME(input.take<uint32_t>(), input.take<uint16_t>() % 1000)
                      : PB_STREAM_TIME(start.seconds() + far / 4, far % 4 * 250);
}

/// The current picture, when it can be read.
std::string_view show(CPbStreamVideo& video, const Recording& recording) {
    static const auto buffer = std::make_unique<unsigned char[]>(kMaxPictureBytes);
    PICTURE_HEADER header;
    video.getPicH(&header);
    video.getFrameRate();
    if (video.get(buffer.get()) == -1) return {};
    const std::string_view shown(reinterpret_cast<const char*>(buffer.get()), header.size);
    require(recording.holds(header, shown));
    return shown;
}

void operate(CPbStreamVideo& video, uint8_t what, Recording& recording, Input& input) {
    DB_STREAM db{};
    STREAM_HEADER stH{};
    PICTURE_HEADER picH{};
    const size_t chosen = what % 16;
    const bool flag = what >> 7;
    const bool timed = chosen == 2 || chosen == 5 || ((chosen == 3 || chosen == 4) && (what & 64));
    PB_STREAM_TIME time = timed ? aTime(input) : PB_STREAM_TIME();
    const std::function<void()> operations[] = {
        [&] { video.getId(input.number(), &db, &stH, &picH, 0); },
        [&] { video.move(input.byte() % 4, input.number(), &picH, input.byte() % 4); },
        [&] { video.getTime(time, &db, &stH, &picH, 0, flag, 0); },
        [&] { video.over(flag, &db, &stH, &picH, &time, 0); },
        [&] { video.over(flag, &db, &stH, &picH, &time, 1); },
        [&] { video.getSkip(&time, &db, &stH, &picH, input.byte() % 4, flag, 0, input.number()); },
        [&] { video.clearEventID(); },
    };
    video.setplaylastframemode(flag);
    if (chosen < std::size(operations)) {
        operations[chosen]();
    } else if (chosen < 10) {
        show(video, recording);
    } else {
        recording.damage(input);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Recording recording;
    static const std::string first = test::pictureBytes(1, 0, true);
    Input input(data, size), none(data, 0);
    recording.restore(input);
    CPbStreamVideo video(&recording.status);
    for (int steps = 0; steps < 40 && !input.empty(); ++steps) operate(video, input.byte(), recording, input);
    recording.restore(none);
    DB_STREAM db;
    STREAM_HEADER stH;
    PICTURE_HEADER picH;
    require(!video.getId(1, &db, &stH, &picH, 0).isNone() && show(video, recording) == first);
    return 0;
}
