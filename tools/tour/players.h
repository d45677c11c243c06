// The recording as players see it that know nothing of the daemon: through the RTSP server.
#pragma once

#include "tools/tour/tour.h"

/// Starts daemon and server over the world's recording once more. ffmpeg fetches ten seconds around an alarm
/// into alarm.mp4, GStreamer plays fast and backward into scale-4-00000.png and so on; captions grows by
/// these, all in the settings' output directory. Throws Failure, which says which of them did not.
void watchWithPlayers(const TourSettings& settings, const World& world);
