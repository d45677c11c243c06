// The one way in which writing or reading a recording fails.
#pragma once

#include <stdexcept>

/// What cannot be recorded, in one sentence that names the thing and what to do.
struct RecordingError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
