// From the header lines of a play or pause request to the one record that the playback thread takes. Keeps
// nothing, and takes no lock.
#pragma once

#include <optional>

#include "engine/pb_types.h"

struct rtsp_request;

/// What the request asks for; nothing for one that is neither play nor pause.
std::optional<PBDATA> analyzeRequest(const rtsp_request& request);
