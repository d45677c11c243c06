// A video at standard input.
#pragma once

#include <atomic>
#include <string>

/// The path under which the whole of it can be read, as often as is wanted, while the process lives: of a
/// pipe a copy in the directory for temporary files, which nobody else sees. Reads the pipe to its end, or
/// until `stop`. Throws RecordingError.
std::string standardInputAsFile(const std::atomic<bool>& stop);
