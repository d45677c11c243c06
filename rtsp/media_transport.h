// The way of RTP and RTCP packets to the client: between the replies on its connection, or by UDP.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "rtsp/connection.h"

/// What a SETUP asks for.
struct TransportWish {
    bool tcp = false;
    int first = 0, second = 1; ///< channels, or the client's ports
};

/// The first of the transports in the header that can be had; nothing when there is none. `tcpOnly`: what
/// goes beside the connection would go in the clear.
std::optional<TransportWish> readTransport(std::string_view header, bool tcpOnly = false);

class MediaTransport {
public:
    virtual ~MediaTransport() = default;
    /// Whether the client keeps up; while it does not, pictures are better left out.
    virtual bool keepsUp() = 0;
    /// Whether more can be handed in than time has passed for: never where it would be lost.
    virtual bool takesMore() { return false; }
    virtual bool holdsBack() const { return false; } ///< takesMore means something
    virtual void rtp(std::string_view packet) = 0;
    virtual void rtcp(std::string_view packet) = 0;
    /// What has been handed in goes out at once.
    virtual void flush() {}
    /// When the client has last been heard of; microseconds, monotonic.
    virtual int64_t lastSign() const = 0;
    /// The reply's Transport header.
    virtual std::string description(uint32_t ssrc) const = 0;
};

std::unique_ptr<MediaTransport> interleavedTransport(Connection& connection, const TransportWish& wish);
/// Null when no pair of ports is free.
std::unique_ptr<MediaTransport> udpTransport(Connection& connection, const TransportWish& wish);
