// One session of the tour, from open to teardown: makes requests, sees what comes of each, and tells it.
#pragma once

#include <string>
#include <vector>

#include "tools/tour/script.h"
#include "tools/tour/session.h"

using TourClock = std::chrono::steady_clock;

class Visit {
public:
    /// `begin`: what the transcript's times count from. `recording` may be changed while nothing is told.
    Visit(size_t number, const Recording& recording, TourClock::time_point begin);

    /// Shows the first picture of that stream.
    void open(int64_t stream);
    void play(const Step& step);
    void tearDown();

    /// Prints what has been asked for and not yet been told.
    void tell();

    const std::vector<ShownPicture>& pictures() const { return m_session.pictures(); }
    size_t recordedPictures() const;
    ViewReport report() const { return m_session.report(); }
    /// A line each: session, picture from 0 on, text.
    const std::string& captions() const { return m_captions; }
    const std::vector<std::string>& wrong() const { return m_wrong; }

private:
    /// A request that has been made; the pictures `first` to below `last` came out.
    struct Asked {
        double at; ///< seconds
        std::string request, status, wanted;
        size_t first, last;
        Check check;
        int64_t expected;
    };

    double now() const;
    /// Until so many pictures have come in all, and playback rests; what the transcript tells if it does not.
    void readUntilQuiet(size_t count);
    void tell(const Asked& asked);

    const size_t m_number;
    const Recording& m_recording;
    const TourClock::time_point m_begin;
    Session m_session;
    std::vector<Asked> m_untold;
    std::string m_captions;
    std::vector<std::string> m_wrong;
};
