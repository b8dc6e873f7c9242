#include "mox_extract_wire.h"

#include <sys/socket.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <iterator>

#include <glib.h>

#include "mox_extractor.h"

namespace mox_extract_wire {

namespace {

constexpr uint32_t kRequestMagic = 0x4d585242;  // "MXRB"
constexpr uint32_t kAnswerMagic = 0x4d585241;   // "MXRA"
constexpr uint32_t kFlagExtra = 1;

// True when `s` needs no cleaning: valid UTF-8 (which excludes NUL bytes)
// within `maxBytes`, as TextToUtf8 would return it unchanged.
bool IsClean(std::string_view s, size_t maxBytes) {
    return s.size() <= maxBytes && g_utf8_validate_len(s.data(), static_cast<gssize>(s.size()), nullptr);
}

class Writer {
public:
    Writer() { m_out.reserve(512); }
    explicit Writer(std::string out) : m_out(std::move(out)) {}
    void U32(uint32_t v) { m_out.append(reinterpret_cast<const char*>(&v), sizeof(v)); }
    void I32(int v) { U32(static_cast<uint32_t>(v)); }
    void F64(double v) { m_out.append(reinterpret_cast<const char*>(&v), sizeof(v)); }
    void Raw(std::string_view s) {
        U32(static_cast<uint32_t>(s.size()));
        m_out += s;
    }
    void Str(const std::string& s, size_t maxBytes = CMOXExtractor::kMaxTextBytes) {
        if (IsClean(s, maxBytes))
            Raw(s);
        else
            Raw(CMOXExtractor::TextToUtf8(s, maxBytes));
    }
    std::string Take() { return std::move(m_out); }

private:
    std::string m_out;
};

class Reader {
public:
    explicit Reader(std::string_view in) : m_in(in) {}
    bool U32(uint32_t& v) {
        if (m_in.size() - m_pos < sizeof(v)) return false;
        memcpy(&v, m_in.data() + m_pos, sizeof(v));
        m_pos += sizeof(v);
        return true;
    }
    bool I32(int& v) {
        uint32_t u;
        if (!U32(u)) return false;
        v = static_cast<int>(u);
        return true;
    }
    bool F64(double& v) {
        if (m_in.size() - m_pos < sizeof(v)) return false;
        memcpy(&v, m_in.data() + m_pos, sizeof(v));
        m_pos += sizeof(v);
        return std::isfinite(v);
    }
    bool Raw(std::string_view& s, size_t maxBytes) {
        uint32_t len;
        if (!U32(len) || len > maxBytes || m_in.size() - m_pos < len) return false;
        s = m_in.substr(m_pos, len);
        m_pos += len;
        return true;
    }
    bool AtEnd() const { return m_pos == m_in.size(); }
    size_t Pos() const { return m_pos; }

private:
    std::string_view m_in;
    size_t m_pos = 0;
};

}  // namespace

std::string EncodeRequest(const std::vector<SRequestItem>& items, bool bExtra) {
    Writer w;
    w.U32(kRequestMagic);
    w.U32(bExtra ? kFlagExtra : 0);
    w.U32(static_cast<uint32_t>(items.size()));
    for (const SRequestItem& item : items) {
        w.I32(item.nMediaType);
        // Any bytes will do: the name only picks the reader by its extension.
        std::string_view name(item.strName);
        if (name.size() > kMaxNameBytes) name.remove_prefix(name.size() - kMaxNameBytes);
        w.Raw(name);
    }
    return w.Take();
}

bool DecodeRequest(std::string_view msg, std::vector<SRequestItem>& items, bool& bExtra) {
    Reader r(msg);
    uint32_t magic, flags, count;
    if (!r.U32(magic) || magic != kRequestMagic || !r.U32(flags) || (flags & ~kFlagExtra) || !r.U32(count) ||
        count == 0 || count > kMaxBatch)
        return false;
    items.resize(count);
    for (SRequestItem& item : items) {
        std::string_view name;
        if (!r.I32(item.nMediaType) || !r.Raw(name, kMaxNameBytes)) return false;
        item.strName.assign(name);
    }
    bExtra = (flags & kFlagExtra) != 0;
    return r.AtEnd();
}

namespace {

void WriteAnswer(Writer& w, const media_info_s& info, const SMOXExtractExtra* pExtra) {
    for (const std::string* s : {&info.strTitle, &info.strDateTaken, &info.strExposureTime, &info.strModel,
                                 &info.strAlbum, &info.strArtist, &info.strGenre, &info.strComposer, &info.strYear,
                                 &info.strRecordedDate, &info.strCopyright, &info.strTrackNum})
        w.Str(*s);
    for (double d : {info.dLatitude, info.dLongitude, info.dFNumber}) w.F64(std::isfinite(d) ? d : 0.0);
    for (int n : {info.nISOSpeed, info.nOrientation, info.nWidth, info.nHeight, info.nBitrate, info.nDuration,
                  info.nSampleRate, info.nChannels})
        w.I32(n);
    const SMOXExtractExtra none;
    const SMOXExtractExtra& extra = pExtra ? *pExtra : none;
    for (int n : {extra.nVideoWidth, extra.nVideoHeight, extra.nVideoDuration}) w.I32(n < 0 ? 0 : n);
    w.Str(extra.strDateOffset, kMaxOffsetBytes);
}

constexpr size_t kAnswerHeader = 12;

}  // namespace

CAnswerWriter::CAnswerWriter(uint32_t first) {
    m_out.reserve(4096);
    Reset(first);
}

void CAnswerWriter::Reset(uint32_t first) {
    m_out.clear();
    Writer w(std::move(m_out));
    w.U32(kAnswerMagic);
    w.U32(first);
    w.U32(0);  // the count, set by Add
    m_out = w.Take();
    m_nCount = 0;
}

void CAnswerWriter::Add(const media_info_s& info, const SMOXExtractExtra* pExtra) {
    Writer w(std::move(m_out));
    WriteAnswer(w, info, pExtra);
    m_out = w.Take();
    ++m_nCount;
    memcpy(&m_out[8], &m_nCount, sizeof(m_nCount));
}

bool CAnswerReader::Header(uint32_t& first, uint32_t& count) {
    Reader r(m_msg);
    uint32_t magic;
    if (m_msg.size() > kMaxMessageBytes || !r.U32(magic) || magic != kAnswerMagic || !r.U32(first) || !r.U32(count) ||
        count == 0 || count > kMaxBatch)
        return false;
    m_pos = kAnswerHeader;
    return true;
}

namespace {

// `text` into `out`, reusing its buffer; cleaned as TextToUtf8 does when it
// is not valid UTF-8 or too long.
void AssignText(std::string& out, std::string_view text, size_t maxBytes) {
    if (IsClean(text, maxBytes))
        out.assign(text);
    else
        out = CMOXExtractor::TextToUtf8(text, maxBytes);
}

}  // namespace

bool CAnswerReader::Next(media_info_s& info, SMOXExtractExtra* pExtra, bool bLast) {
    if (m_pos < kAnswerHeader) return false;
    // Checked whole before anything is stored: the texts stay views into the
    // message until then.
    Reader r(m_msg.substr(m_pos));
    std::string* const texts[] = {&info.strTitle, &info.strDateTaken,    &info.strExposureTime, &info.strModel,
                                  &info.strAlbum, &info.strArtist,       &info.strGenre,        &info.strComposer,
                                  &info.strYear,  &info.strRecordedDate, &info.strCopyright,    &info.strTrackNum};
    std::string_view raw[std::size(texts)];
    for (std::string_view& s : raw)
        if (!r.Raw(s, CMOXExtractor::kMaxTextBytes)) return false;
    double d[3];
    for (double& v : d)
        if (!r.F64(v)) return false;
    int n[8];
    for (int& v : n)
        if (!r.I32(v)) return false;
    int video[3];
    for (int& v : video)
        if (!r.I32(v) || v < 0) return false;
    std::string_view offset;
    if (!r.Raw(offset, kMaxOffsetBytes) || (bLast && !r.AtEnd())) return false;
    m_pos += r.Pos();

    for (size_t i = 0; i < std::size(texts); ++i) AssignText(*texts[i], raw[i], CMOXExtractor::kMaxTextBytes);
    info.dLatitude = d[0];
    info.dLongitude = d[1];
    info.dFNumber = d[2];
    int* const numbers[] = {&info.nISOSpeed, &info.nOrientation, &info.nWidth,      &info.nHeight,
                            &info.nBitrate,  &info.nDuration,    &info.nSampleRate, &info.nChannels};
    for (size_t i = 0; i < std::size(numbers); ++i) *numbers[i] = n[i];
    if (pExtra) {
        pExtra->nVideoWidth = video[0];
        pExtra->nVideoHeight = video[1];
        pExtra->nVideoDuration = video[2];
        AssignText(pExtra->strDateOffset, offset, kMaxOffsetBytes);
    }
    return true;
}

std::string EncodeAnswer(const media_info_s& info, const SMOXExtractExtra* pExtra, uint32_t index) {
    CAnswerWriter w(index);
    w.Add(info, pExtra);
    return w.Message();
}

bool DecodeAnswer(std::string_view msg, media_info_s& info, SMOXExtractExtra* pExtra, uint32_t index) {
    CAnswerReader r(msg);
    uint32_t first = 0, count = 0;
    if (!r.Header(first, count) || first != index || count != 1) return false;
    return r.Next(info, pExtra, true);
}

uint64_t PackProgress(uint32_t index, uint64_t startUs) {
    return (static_cast<uint64_t>(index + 1) << 56) | (startUs & ((uint64_t(1) << 56) - 1));
}

bool UnpackProgress(uint64_t word, uint32_t& index, uint64_t& startUs) {
    const uint32_t top = static_cast<uint32_t>(word >> 56);
    if (top == 0 || top > kMaxBatch) return false;
    index = top - 1;
    startUs = word & ((uint64_t(1) << 56) - 1);
    return true;
}

bool Send(int sock, std::string_view msg, const int* fds, size_t nFds) {
    if (msg.size() > kMaxMessageBytes || nFds > kMaxBatch) return false;
    struct iovec iov;
    iov.iov_base = const_cast<char*>(msg.data());
    iov.iov_len = msg.size();
    struct msghdr hdr;
    memset(&hdr, 0, sizeof(hdr));
    hdr.msg_iov = &iov;
    hdr.msg_iovlen = 1;
    alignas(struct cmsghdr) char control[CMSG_SPACE(kMaxBatch * sizeof(int))];
    if (nFds > 0) {
        hdr.msg_control = control;
        hdr.msg_controllen = CMSG_SPACE(nFds * sizeof(int));
        struct cmsghdr* cmsg = CMSG_FIRSTHDR(&hdr);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(nFds * sizeof(int));
        memcpy(CMSG_DATA(cmsg), fds, nFds * sizeof(int));
    }
    ssize_t n;
    do {
        n = sendmsg(sock, &hdr, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(msg.size());
}

long Receive(int sock, CMessage& msg, std::vector<mox_util::UniqueFd>* fds, bool bDontWait) {
    msg.m_nSize = 0;
    if (fds) fds->clear();
    struct iovec iov;
    iov.iov_base = msg.m_data.get();
    iov.iov_len = kMaxMessageBytes;
    struct msghdr hdr;
    memset(&hdr, 0, sizeof(hdr));
    hdr.msg_iov = &iov;
    hdr.msg_iovlen = 1;
    // Room for more descriptors than a request carries, so extra ones are
    // received (and closed) instead of being dropped silently.
    alignas(struct cmsghdr) char control[CMSG_SPACE((kMaxBatch + 4) * sizeof(int))];
    hdr.msg_control = control;
    hdr.msg_controllen = sizeof(control);
    ssize_t n;
    do {
        n = recvmsg(sock, &hdr, MSG_CMSG_CLOEXEC | (bDontWait ? MSG_DONTWAIT : 0));
    } while (n < 0 && errno == EINTR);
    if (n < 0) return -1;
    for (struct cmsghdr* c = CMSG_FIRSTHDR(&hdr); c; c = CMSG_NXTHDR(&hdr, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int received;
            memcpy(&received, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
            mox_util::UniqueFd owner(received);
            if (fds) fds->push_back(std::move(owner));
        }
    }
    if (hdr.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) {
        if (fds) fds->clear();
        errno = EMSGSIZE;
        return -1;
    }
    msg.m_nSize = static_cast<size_t>(n);
    return static_cast<long>(n);
}

}  // namespace mox_extract_wire
