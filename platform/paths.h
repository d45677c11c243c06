// Every fixed path of the system stands here and nowhere else.
//
// The product links paths_fixed.cpp, which returns the documented paths as they are. Tests, the demo and
// the tools link paths_rooted.cpp, which puts the directory named by TAVIRN_ROOT in front of each, so that
// a whole world (socket, index, key file, pid file, card) lives in one directory. The library for clients has
// the latter: without TAVIRN_ROOT, these are the documented paths.
#pragma once

struct FixedPaths {
    const char* controlSocket; ///< listening socket of the control channel
    const char* pidFile;       ///< single-instance check
    const char* ipcKey;        ///< key file for ftok; never created by the daemon
    const char* index;         ///< SQLite index of streams and events, written by the recorder
    const char* cardDetect;    ///< first byte '1' or not
    const char* cardReadOnly;  ///< first byte '1' or not
    const char* card;          ///< directory of the chunk files (host platform only)
};

inline constexpr FixedPaths kFixedPaths{
    .controlSocket = "/tmp/tavirn",
    .pidFile = "/var/run/tavirn.pid",
    .ipcKey = "/tmp/shm9",
    .index = "/tmp/DB.dat",
    .cardDetect = "/sys/devices/platform/dw_mmc.0/CardDetect",
    .cardReadOnly = "/sys/devices/platform/dw_mmc.0/ReadOnly",
    .card = "/mnt/card",
};

/// ftok project ids on FixedPaths::ipcKey.
inline constexpr int kStatusSegmentProject = 'y';
inline constexpr int kOutputMemoryProject = 'z';

/// The paths in force. Constant unless setPathsRoot is called; the strings are never freed.
const FixedPaths& paths();
