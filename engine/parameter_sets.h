// Cutting SPS and PPS out of a recorded picture, for the answer to an open request.
#pragma once

#include <cstddef>
#include <cstdint>

class CPbStreamVideo;

/// Where SPS and PPS lie.
struct ParameterSets {
    bool found = false;  ///< both an SPS and a PPS behind it are there
    size_t position = 0; ///< of the SPS's start code
    size_t length = 0;   ///< bytes up to the start code of the SEI behind the PPS; 0 = no SEI follows
};

/// Scans an H.264 picture in Annex B form. Only four-byte start codes count, and none within the picture's
/// last five bytes.
ParameterSets scanParameterSets(const uint8_t* picture, size_t size);

/// One attempt: moves on to the next I-picture and cuts its parameter sets out. Their length, at most
/// kParameterSetAnswerBytes, or -1 with a message. Main thread, before the playback thread exists; it does
/// not decide where playback starts.
int m_get_sps_pps(CPbStreamVideo& video, char* buffer);
