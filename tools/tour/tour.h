// The tour: records three streams, plays them in every way there is, follows a recorder that writes a fourth,
// and holds each picture that comes out against what was recorded.
#pragma once

#include <string>
#include <vector>

#include "tools/tour/processes.h"
#include "tools/tour/visit.h"

struct TourSettings {
    std::string daemon = {};   ///< tavirn-rooted
    std::string recorder = {}; ///< tavirn-record
    std::string size = {};     ///< of the pictures
    std::string output = {};   ///< directory for what came out; empty: it is not kept
    std::string server = {};   ///< tavirn-rtsp
    std::string player = {};   ///< rtsp-pictures
};

/// How to start the recorder; `more` tells what and how long.
std::vector<std::string> recorderWords(const TourSettings& settings, const std::vector<std::string>& more);

/// Records the three streams in the world that paths() names. Throws Failure.
void recordStreams(const TourSettings& settings);

/// One tour through that world, its steps in the order in which they stand here. What cannot go on throws
/// Failure; whatever else is not as it should be is told by `wrong`.
class Tour {
public:
    /// Starts the daemon.
    Tour(const TourSettings& settings, const World& world);

    void playRecorded();
    void playLive();
    void endDaemon();
    /// Sums up, and writes what is to be kept.
    void conclude();
    /// A sentence for each thing that is.
    std::vector<std::string> wrong() const;

private:
    double now() const;
    void keepOutput() const;

    const TourSettings m_settings;
    const World& m_world;
    const TourClock::time_point m_begin = TourClock::now();
    Child m_daemon;
    Recording m_recording;
    Visit m_visits[2];
    std::vector<std::string> m_wrong;
};
