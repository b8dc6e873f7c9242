// Messages between the daemon and the mox-extract helper, over a
// SOCK_SEQPACKET socket pair: one request (media type, file name, and the open
// file passed as SCM_RIGHTS) and one answer (the content fields of
// media_info_s) per file. Decoding checks every length and value, since the
// side that parses media is the one a hostile file may have taken over.
#pragma once

#include <cstddef>
#include <string>

#include <mox_unique_fd.h>

struct media_info_s;

namespace mox_extract_wire {

// Largest message either side sends or accepts.
constexpr size_t kMaxMessageBytes = 64 * 1024;

std::string EncodeRequest(int mediaType, const std::string& name);
bool DecodeRequest(const std::string& msg, int& mediaType, std::string& name);

std::string EncodeAnswer(const media_info_s& info);
// Copies the content fields (texts made valid UTF-8) into `info`; false and
// `info` untouched when the message is malformed.
bool DecodeAnswer(const std::string& msg, media_info_s& info);

// Sends one message, with `fd` attached unless it is -1. Never raises SIGPIPE.
bool Send(int sock, const std::string& msg, int fd);
// Receives one message and the descriptor attached to it, if any. Returns
// the message size, 0 when the peer closed, -1 on error (errno set).
long Receive(int sock, std::string& msg, mox_util::UniqueFd* fd);

}  // namespace mox_extract_wire
