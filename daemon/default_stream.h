#pragma once

#include <cstdint>

class CtavirnShmServer;

/// A search without an upper bound on the stream ID.
inline constexpr uint32_t kNoStreamHint = 0xFFFFFFFF;

/// Error numbers of searchDefaultStream.
inline constexpr unsigned long kDefaultStreamNoError = 0;    ///< with result 0: there is no stream
inline constexpr unsigned long kDefaultStreamRefused = 1;    ///< the index refused a query
inline constexpr unsigned long kDefaultStreamUnreadable = 4; ///< card state unreadable, or no memory
inline constexpr unsigned long kDefaultStreamNoIndex = 5;    ///< the index file does not exist
inline constexpr unsigned long kDefaultStreamNoCard = 6;     ///< both card-state files read '1'

/// The stream a new session starts from: the newest one that holds recorded data and whose ID is not above
/// `hint`; without any, the one the recorder is writing, whatever the hint, once it holds a picture. 0 =
/// none, and `errorNo` (always set) says why. Main thread, while no session is open.
unsigned long searchDefaultStream(unsigned long hint, unsigned long* errorNo, CtavirnShmServer* status);
