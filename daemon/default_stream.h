#pragma once

#include <cstdint>

class CtavirnShmServer;

/// A search without an upper bound on the stream ID.
inline constexpr uint32_t kNoStreamHint = 0xFFFFFFFF;

/// Error numbers of searchDefaultStream.
inline constexpr unsigned long kSearchNoError = 0;    ///< with result 0: there is no stream
inline constexpr unsigned long kSearchRefused = 1;    ///< the index refused a query
inline constexpr unsigned long kSearchUnreadable = 4; ///< card state unreadable, or no memory
inline constexpr unsigned long kSearchNoIndex = 5;    ///< the index file does not exist
inline constexpr unsigned long kSearchNoCard = 6;     ///< both card-state files read '1'

/// The stream a new session starts from: the newest one that holds recorded data and whose ID is not above
/// `hint`; without any, the one the recorder is writing, whatever the hint, once it holds a picture. 0 =
/// none, and `errorNo` (always set) says why. Main thread, while no session is open.
unsigned long searchDefaultStream(unsigned long hint, unsigned long* errorNo, CtavirnShmServer* status);
