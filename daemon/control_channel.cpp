#include "daemon/control_channel.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "daemon/signals.h"
#include "platform/clock.h"
#include "platform/kw_com.h"
#include "platform/log.h"

namespace {

constexpr timeval kPeerTimeout{20, 0};
constexpr timeval kRetryPause{0, 100000};
constexpr int kWriteAttempts = 3;

int sendAnswer(const char* name, int connection, const char* answer, int length) {
    for (int attempt = 0; attempt < kWriteAttempts; ++attempt) {
        if (s_write_data(connection, answer, length) >= 0) return 0;
        logNamed(LOG_ERR, name, "s_write_data(sps) error");
        wallclock::sleepFor(kRetryPause);
    }
    return -1;
}

/// White space, then digits up to the first other character. What does not fit 32 bits is the largest
/// number, as a 32-bit strtoul would have it.
uint32_t leadingNumber(std::string_view text) {
    const size_t start = text.find_first_not_of(" \t\n\v\f\r");
    if (start == std::string_view::npos) return 0;
    uint64_t number = 0;
    for (const char c : text.substr(start)) {
        if (c < '0' || c > '9') break;
        number = number * 10 + static_cast<uint64_t>(c - '0');
        if (number > UINT32_MAX) return UINT32_MAX;
    }
    return static_cast<uint32_t>(number);
}

unsigned long numberOf(const rtsp_request& request, std::string_view name) {
    for (int i = 0; i < headerCount(request); ++i)
        if (isNamed(request.header[i], name)) return leadingNumber(fieldText(request.header[i].value));
    return 0;
}

} // namespace

int recv_rtsp_request(int listeningSocket, rtsp_request* request) {
    const int connection = s_accept_client(listeningSocket);
    if (connection < 0) {
        logAt(LOG_ERR, "accept error");
        return -1;
    }
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &kPeerTimeout, sizeof kPeerTimeout);
    setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &kPeerTimeout, sizeof kPeerTimeout);
    setReadingFrom(connection);
    const bool isRead = s_read_data(connection, request, sizeof *request) >= 0;
    setReadingFrom(-1);
    if (!isRead) {
        logAt(LOG_ERR, "s_read_data error");
        close(connection);
        return -1;
    }
    return connection;
}

int send_sps_pps(int connection, const char* answer, int length) {
    return sendAnswer(__func__, connection, answer, length);
}

int send_status(int connection, const char* answer, int length) {
    return sendAnswer(__func__, connection, answer, length);
}

unsigned long rtsp_session_id(const rtsp_request* request) {
    return numberOf(*request, "Session");
}

unsigned long rtsp_ff_skiptime(const rtsp_request* request) {
    return numberOf(*request, "FFTime");
}

int fillFailure(ParameterSetAnswer& answer, OpenFailure failure) {
    answer.fill(failure == OpenFailure::setUpFailed ? '\0' : '\xFF');
    switch (failure) {
    case OpenFailure::noStream:
        answer[3] = '\xFE';
        break;
    case OpenFailure::alreadyOpen:
        answer[3] = '\xFD';
        break;
    case OpenFailure::searchFailed:
        answer[3] = '\xFC';
        break;
    case OpenFailure::setUpFailed:
        break;
    }
    return kParameterSetAnswerBytes;
}

void fillStatus(StatusAnswer& answer, const char* word) {
    memcpy(answer.data(), word, strlen(word) + 1);
}
