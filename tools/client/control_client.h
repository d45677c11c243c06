// The viewer's side of the control channel: builds request records and exchanges them with the daemon.
// Used by tavirn-ctl, tests and benchmarks.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "daemon/rtsp_request.h"

/// A record of the given type; add header lines with `with`.
struct ControlRequest {
    explicit ControlRequest(int32_t type);
    /// Appends a header line; text that does not fit its field is cut, without a NUL then.
    ControlRequest& with(const std::string& name, const std::string& value);

    rtsp_request record{};
};

/// Connects to `socketPath`, writes the record, reads until the daemon closes. The answer's bytes (none for
/// most types); nothing, with errno set, when the daemon cannot be reached or does not close in time.
std::optional<std::string> exchange(const char* socketPath, const rtsp_request& request,
                                    int timeoutMs = 30000);

/// What an answer to RTSP_REQ_OPEN means.
enum class OpenAnswer { opened, noStream, alreadyOpen, searchFailed, setUpFailed, malformed };
OpenAnswer readOpenAnswer(const std::string& answer);

/// The status word of an answer to RTSP_REQ_STATUS; empty when the answer is not 64 bytes with a NUL.
std::string readStatusAnswer(const std::string& answer);
