// The command line of tavirn-record, and what it asks for.
#pragma once

#include "tools/record/media_source.h"
#include "tools/record/recorder.h"

namespace CLI {
class App;
}

struct RecordOptions {
    std::string file;
    bool testPattern = false;
    std::string start;               ///< clock time as typed; empty = now
    double split = 0;                ///< seconds of a stream; 0 = one stream
    double gap = 0;                  ///< seconds on the clock between two streams
    double duration = 0;             ///< seconds; 0 = the whole file, a minute of a test pattern
    std::vector<std::string> events; ///< each SECONDS[:TRIGGER], after the start by the clock
    uint64_t chunkBytes = 64u << 20;
    double fps = 30;               ///< pictures a second
    std::string size = "1280x720"; ///< WIDTHxHEIGHT, pixels
    uint32_t gop = 0;              ///< pictures; 0 = a second of them
    uint32_t bitrateKbit = 0;      ///< kbit/s; 0 = by size and frame rate
    bool live = false;
    bool json = false;
};

/// `options` is filled when the command line is parsed.
void declare(CLI::App& app, RecordOptions& options);

/// Without a start time where none is given. Throws Failure(kUsage) for a value that means nothing, before
/// anything is written.
RecorderSettings recorderSettings(const RecordOptions& options);
TestPattern testPattern(const RecordOptions& options);

/// To the nearest millisecond.
uint64_t inMs(double seconds);
