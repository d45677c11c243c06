// Tells the daemon which stream is being written and how many pictures it holds, as a recorder does.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

class CShmClient;
struct REC_STATUS;

/// The segment is the daemon's: it comes when the daemon starts, zeroed, and goes when it ends. While there
/// is none, publishing does nothing but look for it once a second.
class StatusPublisher {
public:
    explicit StatusPublisher(const std::string& keyFile);
    ~StatusPublisher();
    StatusPublisher(const StatusPublisher&) = delete;
    StatusPublisher& operator=(const StatusPublisher&) = delete;

    /// Both words, under the segment's lock. They stay as they are in a gap and when the recording ends: a
    /// playback that follows the stream then still learns its last pictures, which a stream of 0 would keep
    /// from it.
    void publish(uint32_t streamId, uint32_t pictures);

private:
    bool attach();

    const std::string m_keyFile;
    std::unique_ptr<CShmClient> m_client;
    REC_STATUS* m_status = nullptr;
    long m_lastLook = 0; ///< seconds since the epoch
};
