// Packets as a receiver sees them: in real time, and the replay extension says what stands in the recording.
// That each has its number and the picture comes out of them again is for real clients to say.
#include <gmock/gmock.h>
#include <gst/gst.h>

#include "rtsp/rtp_stream.h"
#include "tests/support/card.h"

// What GLib makes before main it keeps for ever; whole stacks tell it from a leak of ours.
extern "C" const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0";
}
extern "C" const char* __lsan_default_suppressions() {
    return "leak:ld-linux";
}

namespace {

using testing::ElementsAre;

uint32_t wordOf(const std::string& packet, size_t at) {
    return GST_READ_UINT32_BE(packet.data() + at);
}

class Rtp : public testing::Test {
protected:
    std::vector<std::string> send(std::optional<uint32_t> stamp, int64_t ms, Pace pace = Pace::recorded,
                                  const Standing& standing = {}) {
        const std::string bytes = test::pictureBytes(1, 0, true);
        const Picture picture{.bytes = std::make_shared<const std::vector<char>>(bytes.begin(), bytes.end()),
                              .stamp = stamp,
                              .iPicture = true,
                              .time = 1'000'250,
                              .next = {}};
        m_rtp.send(picture, standing, pace, ms * 1000);
        return std::exchange(m_packets, {});
    }
    uint32_t timeOf(std::optional<uint32_t> stamp, int64_t ms, Pace pace = Pace::recorded) {
        return wordOf(send(stamp, ms, pace)[0], 4) - 1000;
    }

    std::vector<std::string> m_packets;
    RtpStream m_rtp{0xABCD1234, 0xFFFE, 1000,
                    [this](std::string_view packet) { m_packets.emplace_back(packet); }};
};

TEST_F(Rtp, TimeIsRealTimeAndNeverGoesBack) {
    EXPECT_EQ(m_rtp.begin(0), 1000u);
    EXPECT_EQ(timeOf(500, 0), 0u);
    EXPECT_EQ(timeOf(4100, 1), 3600u) << "the daemon's stamps, not the moment of arrival";
    EXPECT_EQ(timeOf(4100 + 56 * 90000, 80), 7200u) << "a gap is not waited for";
    EXPECT_EQ(m_rtp.begin(1'080'000), 1000u + 7200 + 90000) << "a play a second later";
    EXPECT_EQ(timeOf({}, 1080), 97200u);
    EXPECT_EQ(timeOf(900, 1180), 106200u) << "behind a picture without a stamp: what has passed";
    m_rtp.begin(1'300'000);
    uint32_t before = timeOf(4500, 1300, Pace::sampled);
    for (const int64_t ms : {1733, 1966, 2400, 2632}) {
        const uint32_t time = timeOf(8100, ms, Pace::sampled);
        EXPECT_NEAR(time - std::exchange(before, time), 333 * 90, 1500) << "jerks of fast play are smoothed";
    }
}

TEST_F(Rtp, TheReplayExtensionSaysWhenAndHow) {
    m_rtp.setReplayExtension();
    const auto packets = send(0, 0, Pace::recorded,
                              {.discontinuity = true, .endOfSection = true, .terminal = true, .cseq = 0x42});
    // 1,000.25 s after 1970, as NTP counts; C, E, D and T; CSeq.
    EXPECT_EQ(packets[0].substr(12, 16),
              std::string("\xAB\xAC\0\3\x83\xAA\x82\x68\x40\0\0\0\xF0\x42\0\0", 16));
    EXPECT_EQ(packets[1][0], '\x80');
}

TEST_F(Rtp, ReportsTellTheTimeOfThisMomentAndTheGoodBye) {
    std::vector<std::string> reports;
    m_rtp.begin(0);
    const size_t packets = send(0, 0).size();
    m_rtp.senderReport(ntpTime(2'500'000), 100'000, true,
                       [&](std::string_view bytes) { reports.emplace_back(bytes); });
    const std::string& report = reports.at(0);
    EXPECT_EQ(wordOf(report, 0), 0x80C80006u);
    EXPECT_THAT((std::vector{wordOf(report, 4), wordOf(report, 8), wordOf(report, 12), wordOf(report, 16),
                             wordOf(report, 20)}),
                ElementsAre(0xABCD1234, 2'208'988'802u, 0x80000000u, 10000u, packets));
    EXPECT_EQ(report.substr(report.size() - 8), std::string("\x81\xCB\0\1\xAB\xCD\x12\x34", 8));
}

} // namespace
