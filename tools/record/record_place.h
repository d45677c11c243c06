// The place a recording needs: directories, key file and, in a rooted world, a usable card.
#pragma once

/// Makes what is missing below paths(). A rooted world has no SD controller, so its two card-state files are
/// made as well, saying that a card is there and can be written. Throws RecordingError.
void makePlace(bool rooted);
