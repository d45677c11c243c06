#pragma once

/// Refuses a second instance and writes this process's id, in decimal with a line feed, into the pid file.
/// 0; -1 the file there is empty or names a living process; -2 it holds no number or 0; -3 the process could
/// not be probed; -5 a stale file could not be removed; -6 the file could not be made, or not be written, and
/// then there is none.
int createPidFile();
