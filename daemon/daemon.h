// daemon/: the process, its control channel and its one session at a time. Commands the engine; moves no
// pictures.
#pragma once

/// Exit codes of a start-up that failed; each comes after one message.
enum ExitCode : int {
    kExitDetach = 3,
    kExitSignals = 4,
    kExitPidFile = 5,
    kExitSocket = 6,
    kExitStatusSegment = 7,
};

/// Whether the daemon begins by detaching; the product always does.
enum class Detach { yes, no };

/// The whole life of the daemon: detaches, sets everything up, serves requests until a stop signal, and
/// takes everything down again. The process's exit code, 0 after an orderly end. A start-up that fails
/// leaves what it has made: the next one finds it stale.
int runDaemon(Detach detach = Detach::yes);
