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
    std::string start;
    double split = 0;
    double gap = 0;
    double duration = 0;
    std::vector<std::string> events;
    uint64_t chunkBytes = 64u << 20;
    double fps = 30;
    std::string size = "1280x720";
    uint32_t gop = 0;
    uint32_t bitrateKbit = 0;
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
