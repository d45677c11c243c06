// Both ends of the daemon's side of the control channel: reading a request record and its header lines, and
// the bytes of every answer. Main thread only. docs/control-channel.md has the whole contract.
#pragma once

#include <array>

#include "daemon/rtsp_request.h"

/// Accepts the next connection and reads its record, for at most 20 seconds, and no longer once a stop is
/// wanted. The connected socket, which the caller closes, or -1.
int recv_rtsp_request(int listeningSocket, rtsp_request* request);

/// Writes an answer, in at most three attempts; 0 or -1.
int send_sps_pps(int connection, const char* answer, int length);
int send_status(int connection, const char* answer, int length);

/// The number in the first header line "Session", in milliseconds in "FFTime"; 0 when there is none. Digits
/// only, no sign; a number above 32 bits is taken as the largest.
unsigned long rtsp_session_id(const rtsp_request* request);
unsigned long rtsp_ff_skiptime(const rtsp_request* request);

using ParameterSetAnswer = std::array<char, kParameterSetAnswerBytes>;
using StatusAnswer = std::array<char, kStatusAnswerBytes>;

/// Why no session was opened.
enum class OpenFailure {
    noStream,     ///< nothing is recorded
    alreadyOpen,  ///< there is a session
    searchFailed, ///< card or index error
    setUpFailed,  ///< the engine, its start picture or its parameter sets could not be had
};

/// Fills the whole answer; its length.
int fillFailure(ParameterSetAnswer& answer, OpenFailure failure);

/// Puts the word and its NUL at the start and leaves the rest, which carries no meaning, as it was.
void fillStatus(StatusAnswer& answer, const char* word);
