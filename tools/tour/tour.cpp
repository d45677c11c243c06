#include "tools/tour/tour.h"

#include <filesystem>
#include <fstream>

#include "platform/paths.h"
#include "tools/common/command_line.h"
#include "tools/tour/transcript.h"

namespace {

using std::chrono::seconds;

constexpr seconds kRecords{300}; ///< the recording is encoded as fast as the machine can
constexpr seconds kComesUp{20};
constexpr seconds kEnds{20};
constexpr seconds kRecordedBefore{2}; ///< two GOPs, so that there is a picture to jump to

/// When the stream began that is being recorded.
std::optional<uint64_t> recordingSinceMs() {
    for (const StreamRow& row : readStreams(paths().index))
        if (row.isRecording) return row.startMs;
    return std::nullopt;
}

std::string joined(std::span<const ShownPicture> pictures) {
    std::string bytes;
    for (const ShownPicture& picture : pictures) bytes += picture.data;
    return bytes;
}

void write(const std::string& file, const std::string& content) {
    if (!(std::ofstream(file, std::ios::binary) << content << std::flush))
        throw Failure(kFailed, "cannot write " + file);
}

} // namespace

std::vector<std::string> recorderWords(const TourSettings& settings, const std::vector<std::string>& more) {
    std::vector<std::string> words{settings.recorder, "--test-pattern",
                                   "--size",          settings.size,
                                   "--fps",           "30",
                                   "--gop",           "30",
                                   "--chunk-size",    "8M"};
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

void recordStreams(const TourSettings& settings) {
    printHeading("recording");
    Child(recorderWords(settings, recordedWords()), "").finish(kRecords);
}

Tour::Tour(const TourSettings& settings, const World& world)
    : m_settings(settings), m_world(world),
      m_daemon({settings.daemon, "--foreground"}, world.root() + "/daemon.log"),
      m_recording(readRecording(paths().index, paths().card)), m_visits{{1, m_recording, m_begin},
                                                                        {2, m_recording, m_begin}} {
    awaitService(m_daemon);
}

double Tour::now() const {
    return std::chrono::duration<double>(TourClock::now() - m_begin).count();
}

void Tour::playRecorded() {
    printHeading("playback");
    printTableHead();
    Visit& visit = m_visits[0];
    visit.open(3);
    visit.tell();
    for (const Step& step : recordedSteps()) {
        visit.play(step);
        visit.tell();
    }
    visit.tearDown();
    visit.tell();
}

void Tour::playLive() {
    printHeading("playback of what is being recorded");
    Child recorder(recorderWords(m_settings, {"--live"}), m_world.root() + "/recorder.log");
    const double asked = now();
    std::optional<uint64_t> sinceMs;
    waitUntil(kComesUp, [&] { return recorder.hasEnded() || (sinceMs = recordingSinceMs()); });
    if (!sinceMs) {
        recorder.stop(kEnds); // which says why, if it has ended by itself
        throw Failure(kFailed, "the recorder does not record");
    }
    printTableHead();
    printLine(asked, "(tavirn-record --live begins)", "", timeOfDay(*sinceMs), "stream 4");
    waitUntil(kRecordedBefore, [] { return false; });
    Visit& visit = m_visits[1];
    visit.open(3); // a recording that has ended goes before one that goes on
    for (const Step& step : liveSteps()) visit.play(step);
    visit.tearDown();
    recorder.stop(kEnds);
    // Only now it can be known which picture is which.
    m_recording = readRecording(paths().index, paths().card);
    visit.tell();
}

void Tour::endDaemon() {
    const double asked = now();
    m_daemon.stop(kEnds);
    const std::string left = m_world.left();
    printLine(asked, "(SIGTERM to the daemon)", "", "", "left behind: " + (left.empty() ? "nothing" : left));
    if (!left.empty()) m_wrong.push_back("the daemon left behind: " + left);
}

void Tour::conclude() {
    printHeading("result");
    uint64_t missed = 0;
    size_t all = 0, same = 0;
    for (Visit& visit : m_visits) {
        missed += visit.report().missedBlocks;
        all += visit.pictures().size();
        same += visit.recordedPictures();
    }
    std::printf("%zu of %zu pictures are byte for byte as they were recorded\n", same, all);
    if (same != all) m_wrong.push_back("what came out is not what was recorded");
    if (missed != 0) m_wrong.push_back("blocks were missed");
    const auto late = m_visits[0].report().againstTurn;
    std::printf("blocks missed by the viewer: %llu; half of the pictures came within %.3g ms of their time\n",
                static_cast<unsigned long long>(missed), late ? late->p50 : 0.0);
    if (!m_settings.output.empty()) keepOutput();
}

std::vector<std::string> Tour::wrong() const {
    std::vector<std::string> all = m_wrong;
    for (const Visit& visit : m_visits) all.insert(all.end(), visit.wrong().begin(), visit.wrong().end());
    return all;
}

void Tour::keepOutput() const {
    const std::string directory = m_settings.output + '/';
    std::filesystem::create_directories(directory);
    write(directory + "session-1.h264", joined(m_visits[0].pictures()));
    write(directory + "session-2.h264", joined(m_visits[1].pictures()));
    write(directory + "playback.h264", joined(longestPlay(m_visits[0].pictures())));
    write(directory + "captions", m_visits[0].captions() + m_visits[1].captions());
}
