// The place a recording needs: directories, key file and, in a rooted world, a usable card; one recording
// at a time.
#pragma once

/// Makes what is missing below paths(). A rooted world has no SD controller, so its two card-state files are
/// made as well, saying that a card is there and can be written. Without a root it has to be a device, which
/// has them. Throws RecordingError, in that case before anything is written.
void makePlace(bool rooted);

/// Keeps every other tavirn-record out of the place until the program ends, however it ends: they take a
/// stream that is being written for one that a killed recorder has left. Throws RecordingError when another
/// is there.
void lockPlace();
