// Messages between the daemon and the mox-extract helper, over a
// SOCK_SEQPACKET socket pair: one request per batch of files (media type and
// file name of each, the open files passed in one SCM_RIGHTS message, in the
// same order) and one answer per file (the content fields of media_info_s and
// the library's extra fields), sent as soon as that file is parsed: the
// daemon keeps a deadline per file and knows which file a crash or stall
// belongs to. Decoding checks every length and value, since the side that
// parses media is the one a hostile file may have taken over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <mox_unique_fd.h>

struct media_info_s;
struct SMOXExtractExtra;

namespace mox_extract_wire {

// Largest message either side sends or accepts.
constexpr size_t kMaxMessageBytes = 64 * 1024;
// Files of one request. The helper holds their descriptors at once, below
// its RLIMIT_NOFILE of 32 with room for the libraries' own.
constexpr size_t kMaxBatch = 16;
// Bytes of a file name sent: its end, which holds the extension that picks
// the reader.
constexpr size_t kMaxNameBytes = 255;
// Longest time-zone text accepted ("+HH:MM" and a little slack).
constexpr size_t kMaxOffsetBytes = 16;

struct SRequestItem {
    int nMediaType = 0;
    std::string strName;
};

// bExtra asks for the SMOXExtractExtra fields too. 1 to kMaxBatch items.
std::string EncodeRequest(const std::vector<SRequestItem>& items, bool bExtra);
bool DecodeRequest(std::string_view msg, std::vector<SRequestItem>& items, bool& bExtra);

// The answer for the file at position `index` of its request.
std::string EncodeAnswer(const media_info_s& info, const SMOXExtractExtra* pExtra = nullptr, uint32_t index = 0);
// Copies the content fields (texts made valid UTF-8) into `info` and the
// extra ones into *pExtra when given; false, and both untouched, when the
// message is malformed or answers another position than `index`.
bool DecodeAnswer(std::string_view msg, media_info_s& info, SMOXExtractExtra* pExtra = nullptr, uint32_t index = 0);

// A receive buffer reused from message to message.
class CMessage {
public:
    CMessage() : m_data(new char[kMaxMessageBytes]) {}
    std::string_view View() const { return std::string_view(m_data.get(), m_nSize); }

private:
    friend long Receive(int, CMessage&, std::vector<mox_util::UniqueFd>*, bool);
    std::unique_ptr<char[]> m_data;
    size_t m_nSize = 0;
};

// Sends one message with the descriptors `fds[0..nFds)` attached (at most
// kMaxBatch). Never raises SIGPIPE.
bool Send(int sock, std::string_view msg, const int* fds = nullptr, size_t nFds = 0);
// Receives one message and the descriptors attached to it (closed when `fds`
// is null). Returns the message size, 0 when the peer closed, -1 on error
// (errno set; EAGAIN when bDontWait and nothing is there).
long Receive(int sock, CMessage& msg, std::vector<mox_util::UniqueFd>* fds, bool bDontWait = false);

}  // namespace mox_extract_wire
