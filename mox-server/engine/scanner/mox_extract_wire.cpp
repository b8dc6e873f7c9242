#include "mox_extract_wire.h"

#include <sys/socket.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>

#include "mox_extractor.h"

namespace mox_extract_wire {

namespace {

constexpr uint32_t kRequestMagic = 0x4d585251;  // "MXRQ"
constexpr uint32_t kAnswerMagic = 0x4d585241;   // "MXRA"

class Writer {
public:
    void U32(uint32_t v) { m_out.append(reinterpret_cast<const char*>(&v), sizeof(v)); }
    void I32(int v) { U32(static_cast<uint32_t>(v)); }
    void F64(double v) { m_out.append(reinterpret_cast<const char*>(&v), sizeof(v)); }
    void Str(const std::string& s) {
        std::string text = CMOXExtractor::TextToUtf8(s);
        U32(static_cast<uint32_t>(text.size()));
        m_out += text;
    }
    std::string Take() { return std::move(m_out); }

private:
    std::string m_out;
};

class Reader {
public:
    explicit Reader(const std::string& in) : m_in(in) {}
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
    bool Str(std::string& s, size_t maxBytes) {
        uint32_t len;
        if (!U32(len) || len > maxBytes || m_in.size() - m_pos < len) return false;
        s = CMOXExtractor::TextToUtf8(std::string_view(m_in.data() + m_pos, len), maxBytes);
        m_pos += len;
        return true;
    }
    bool AtEnd() const { return m_pos == m_in.size(); }

private:
    const std::string& m_in;
    size_t m_pos = 0;
};

}  // namespace

std::string EncodeRequest(int mediaType, const std::string& name) {
    Writer w;
    w.U32(kRequestMagic);
    w.I32(mediaType);
    // The name only picks the reader by its extension; any bytes will do.
    w.U32(static_cast<uint32_t>(name.size()));
    std::string msg = w.Take();
    msg += name;
    return msg;
}

bool DecodeRequest(const std::string& msg, int& mediaType, std::string& name) {
    Reader r(msg);
    uint32_t magic, len;
    if (!r.U32(magic) || magic != kRequestMagic || !r.I32(mediaType) || !r.U32(len)) return false;
    constexpr size_t kHeader = 12;
    if (len != msg.size() - kHeader) return false;
    name.assign(msg, kHeader, len);
    return true;
}

std::string EncodeAnswer(const media_info_s& info) {
    Writer w;
    w.U32(kAnswerMagic);
    for (const std::string* s : {&info.strTitle, &info.strDateTaken, &info.strExposureTime, &info.strModel,
                                 &info.strAlbum, &info.strArtist, &info.strGenre, &info.strComposer, &info.strYear,
                                 &info.strRecordedDate, &info.strCopyright, &info.strTrackNum})
        w.Str(*s);
    for (double d : {info.dLatitude, info.dLongitude, info.dFNumber}) w.F64(std::isfinite(d) ? d : 0.0);
    for (int n : {info.nISOSpeed, info.nOrientation, info.nWidth, info.nHeight, info.nBitrate, info.nDuration,
                  info.nSampleRate, info.nChannels})
        w.I32(n);
    return w.Take();
}

bool DecodeAnswer(const std::string& msg, media_info_s& info) {
    if (msg.size() > kMaxMessageBytes) return false;
    Reader r(msg);
    uint32_t magic;
    if (!r.U32(magic) || magic != kAnswerMagic) return false;
    media_info_s out = info;
    for (std::string* s :
         {&out.strTitle, &out.strDateTaken, &out.strExposureTime, &out.strModel, &out.strAlbum, &out.strArtist,
          &out.strGenre, &out.strComposer, &out.strYear, &out.strRecordedDate, &out.strCopyright, &out.strTrackNum})
        if (!r.Str(*s, CMOXExtractor::kMaxTextBytes)) return false;
    for (double* d : {&out.dLatitude, &out.dLongitude, &out.dFNumber})
        if (!r.F64(*d)) return false;
    for (int* n : {&out.nISOSpeed, &out.nOrientation, &out.nWidth, &out.nHeight, &out.nBitrate, &out.nDuration,
                   &out.nSampleRate, &out.nChannels})
        if (!r.I32(*n)) return false;
    if (!r.AtEnd()) return false;
    info = std::move(out);
    return true;
}

bool Send(int sock, const std::string& msg, int fd) {
    if (msg.size() > kMaxMessageBytes) return false;
    struct iovec iov;
    iov.iov_base = const_cast<char*>(msg.data());
    iov.iov_len = msg.size();
    struct msghdr hdr;
    memset(&hdr, 0, sizeof(hdr));
    hdr.msg_iov = &iov;
    hdr.msg_iovlen = 1;
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    if (fd >= 0) {
        memset(control, 0, sizeof(control));
        hdr.msg_control = control;
        hdr.msg_controllen = sizeof(control);
        struct cmsghdr* cmsg = CMSG_FIRSTHDR(&hdr);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(cmsg), &fd, sizeof(int));
    }
    ssize_t n;
    do {
        n = sendmsg(sock, &hdr, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(msg.size());
}

long Receive(int sock, std::string& msg, mox_util::UniqueFd* fd) {
    // Not zero-filled: only the received bytes are copied out.
    std::unique_ptr<char[]> buffer(new char[kMaxMessageBytes]);
    msg.clear();
    struct iovec iov;
    iov.iov_base = buffer.get();
    iov.iov_len = kMaxMessageBytes;
    struct msghdr hdr;
    memset(&hdr, 0, sizeof(hdr));
    hdr.msg_iov = &iov;
    hdr.msg_iovlen = 1;
    // Room for more descriptors than expected, so extra ones are received
    // (and closed) instead of being dropped silently.
    alignas(struct cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))];
    hdr.msg_control = control;
    hdr.msg_controllen = sizeof(control);
    ssize_t n;
    do {
        n = recvmsg(sock, &hdr, MSG_CMSG_CLOEXEC);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return -1;
    msg.assign(buffer.get(), static_cast<size_t>(n));
    for (struct cmsghdr* c = CMSG_FIRSTHDR(&hdr); c; c = CMSG_NXTHDR(&hdr, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int received;
            memcpy(&received, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
            mox_util::UniqueFd owner(received);
            if (fd && !fd->IsValid()) *fd = std::move(owner);
        }
    }
    if (hdr.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) {
        errno = EMSGSIZE;
        return -1;
    }
    return static_cast<long>(n);
}

}  // namespace mox_extract_wire
