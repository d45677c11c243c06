// Whether a tool may draw on the terminal.
#pragma once

#include <unistd.h>

/// Whether a line that is drawn anew and anew may be drawn on standard error: it is a terminal, and the
/// program is not a background job, which would draw over what the shell and other programs write there. It
/// changes as the job is put into the background and back (bg, fg).
inline bool drawsProgress() {
    return isatty(STDERR_FILENO) == 1 && tcgetpgrp(STDERR_FILENO) == getpgrp();
}
