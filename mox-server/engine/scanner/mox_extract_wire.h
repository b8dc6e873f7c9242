// Messages between the daemon and the mox-extract helper, over a
// SOCK_SEQPACKET socket pair: one request per batch of files (media type and
// file name of each, the open files passed in one SCM_RIGHTS message, in the
// same order) and, when the batch is done, one message with the answers of
// its files in order (the content fields of media_info_s and the library's
// extra fields; split over more messages only when they would not fit one).
// So that the daemon keeps a deadline per file and knows which file a crash
// or stall belongs to without a message (and a wake-up) per file, the helper
// writes the position and start time of the file it is parsing into a
// progress word in memory shared with the daemon. Decoding checks every
// length and value, and the progress word is only believed within bounds,
// since the side that parses media is the one a hostile file may have taken
// over.
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
// Files of one request: the media library's batch, so that its files cost
// one round trip (two wake-ups, a few system calls) per 64 rather than per
// 16. The helper holds their descriptors at once, below its RLIMIT_NOFILE of
// 96 with room for the libraries' own; the progress word counts to 254.
constexpr size_t kMaxBatch = 64;
static_assert(kMaxBatch < 255, "the progress word holds a batch position in 8 bits");
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

// Answers: a header (position of the first answer in its request, number of
// answers) and the answers in order.
class CAnswerWriter {
public:
    explicit CAnswerWriter(uint32_t first);
    // Starts a new message at `first`, keeping the buffer.
    void Reset(uint32_t first);
    void Add(const media_info_s& info, const SMOXExtractExtra* pExtra);
    uint32_t Count() const { return m_nCount; }
    size_t Size() const { return m_out.size(); }
    const std::string& Message() const { return m_out; }

private:
    std::string m_out;
    uint32_t m_nCount = 0;
};
// Most bytes one answer takes.
constexpr size_t kMaxAnswerBytes = 13 * 1024;

class CAnswerReader {
public:
    explicit CAnswerReader(std::string_view msg) : m_msg(msg) {}
    // False when the message is not a header of 1 or more answers.
    bool Header(uint32_t& first, uint32_t& count);
    // The next answer into `info` (content fields, texts made valid UTF-8)
    // and *pExtra when given; false, and both untouched, when malformed (or,
    // with bLast, when anything follows it).
    bool Next(media_info_s& info, SMOXExtractExtra* pExtra, bool bLast);
    bool AtEnd() const { return m_pos == m_msg.size(); }

private:
    std::string_view m_msg;
    size_t m_pos = 0;
};

// A message with one answer, at position `index`.
std::string EncodeAnswer(const media_info_s& info, const SMOXExtractExtra* pExtra = nullptr, uint32_t index = 0);
// The answer of a message holding exactly one, at position `index`; false and
// `info`/*pExtra untouched otherwise.
bool DecodeAnswer(std::string_view msg, media_info_s& info, SMOXExtractExtra* pExtra = nullptr, uint32_t index = 0);

// The progress word: the position in its request of the file being parsed
// and when its parse began (CLOCK_MONOTONIC, microseconds). 0: none yet.
uint64_t PackProgress(uint32_t index, uint64_t startUs);
// False for 0 and for a word that cannot be a progress word.
bool UnpackProgress(uint64_t word, uint32_t& index, uint64_t& startUs);
// Bytes of the shared memory that holds it.
constexpr size_t kProgressBytes = 4096;

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
