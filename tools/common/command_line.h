// tools/common/ holds what all tools share: how they take options, fail, and print times and JSON. It knows
// no daemon and no recording.
//
// Here: what their mains share: the options that every tool has, how a wrong command line is told, and
// the one way to fail: a sentence on standard error that begins with the program's name, and an exit code.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>

namespace CLI {
class App;
}

/// Codes that mean the same in every tool; what a tool adds begins at 3.
enum ExitCode { kDone = 0, kFailed = 1, kUsage = 2 };

/// Ends a tool. The sentence names the thing and what to do; no program name, no full stop.
struct Failure : std::runtime_error {
    Failure(int exitCode, const std::string& sentence) : std::runtime_error(sentence), code(exitCode) {}
    int code;
};

/// What main returns. Adds --root and --version to `app`, whose name is the program's, parses the command
/// line and does `work`, which gives the exit code. A wrong command line is kUsage, a Failure its own code,
/// any other std::exception kFailed.
int runTool(CLI::App& app, int argc, char** argv, const std::function<int()>& work);

/// Whether --root or TAVIRN_ROOT moves the paths; from `work` on.
bool pathsAreRooted();
