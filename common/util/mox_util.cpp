#define MOX_LOG_TAG "MOX-COMMON"
#include <mox/mox_log.h>

#include <mox/mox_util.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <glib.h>

#include <algorithm>
#include <cassert>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <sstream>

#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_generators.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <utility>

#include <system_info.h>
#include <vconf.h>

#include <mox_unique_fd.h>

using mox_util::UniqueBuffer;
using mox_util::UniqueFd;
using mox_util::UniqueFile;

namespace {

constexpr const char* kBlanks = " \t";

bool IsRegularFile(int fd) {
    struct stat st;
    return fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

int mox_uuid_time(char* out) {
    assert(out != NULL);
    uuid_t uuid;
    // A non-zero result only says the clock sequence was not shared safely
    // with other processes; the identifier is still unique enough here.
    (void)uuid_generate_time_safe(uuid);
    uuid_unparse_lower(uuid, out);
    MOX_DEBUG("generate uuid=%s\n", out);
    uuid_clear(uuid);
    return 0;
}

int mox_uuid_random(char* out) {
    assert(out != NULL);
    uuid_t uuid;
    uuid_generate_random(uuid);
    uuid_unparse_lower(uuid, out);
    MOX_DEBUG("generate uuid=%s\n", out);
    uuid_clear(uuid);
    return 0;
}

std::string CMOXUtil::GetUUID() {
    try {
        boost::uuids::random_generator generator;
        boost::uuids::uuid uuid = generator();
        std::ostringstream ss;
        ss << uuid;
        return ss.str();
    } catch (const std::exception& e) {
        // The generator throws when the system entropy source fails; libuuid
        // falls back to its own source and gives the same version-4 form.
        MOX_WARN("Exception Handled by[%s]: [%s] \n", "GetUUID", e.what());
        char text[37];
        uuid_t uuid;
        uuid_generate_random(uuid);
        uuid_unparse_lower(uuid, text);
        return std::string(text);
    }
}

long long CMOXUtil::GetCurrentSystemTime() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<long long>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

void CMOXUtil::AssignValue(char** dst, const char* src) {
    assert(dst != NULL);
    if (src == nullptr || *src == '\0') return;
    size_t len = strlen(src);
    char* copy = new char[len + 1];  // NOLINT(cppcoreguidelines-owning-memory): a C buffer for the caller
    memcpy(copy, src, len + 1);
    *dst = copy;
}

void CMOXUtil::AssignValueByCStyle(char** dst, const char* src) {
    assert(dst != NULL);
    if (src == nullptr) {
        MOX_WARN("src  == NULL");
        return;
    }
    if (*src == '\0') return;
    size_t len = strlen(src);
    char* copy = static_cast<char*>(malloc(len + 1));  // NOLINT(cppcoreguidelines-owning-memory): for the caller
    if (copy == nullptr) {
        // src may be as large as a client made it: not an assertion.
        MOX_WARN("FAILED TO ALLOC MEMORY! %lld", static_cast<long long>(len + 1));
        return;
    }
    memcpy(copy, src, len + 1);
    *dst = copy;
}

std::string CMOXUtil::GetFileExtension(const char* szPath) {
    if (szPath == nullptr) {
        MOX_WARN("szPath == NULL");
        return std::string();
    }
    const char* dot = strrchr(szPath, '.');
    return dot ? std::string(dot + 1) : std::string();
}

std::string CMOXUtil::GetFileName(const std::string& strPath) {
    size_t slash = strPath.rfind('/');
    return slash == std::string::npos ? std::string() : strPath.substr(slash + 1);
}

std::string CMOXUtil::GetFileNameWithoutExt(const std::string& strName) {
    size_t dot = strName.rfind('.');
    return dot == std::string::npos ? std::string() : strName.substr(0, dot);
}

bool CMOXUtil::CompareExtension(std::string strExt, const char** list, int count) {
    if (count < 1) return false;
    assert(list != NULL);
    std::string lower = ToLower(std::move(strExt));
    for (int i = 0; i < count; ++i)
        if (list[i] != nullptr && lower == list[i]) return true;
    return false;
}

bool CMOXUtil::CompareField(std::string strField, const char** list, int count) {
    if (count < 1) return false;
    assert(list != NULL);
    std::transform(strField.begin(), strField.end(), strField.begin(),
                   [](unsigned char c) { return static_cast<char>(toupper(c)); });
    for (int i = 0; i < count; ++i)
        if (list[i] != nullptr && strField == list[i]) return true;
    return false;
}

bool CMOXUtil::CompareMediaExtension(const std::vector<std::string>& list, std::string strExt) {
    std::string lower = ToLower(std::move(strExt));
    for (const std::string& ext : list)
        if (ext == lower) return true;
    return false;
}

std::string CMOXUtil::ToLower(std::string str) {
    std::transform(str.begin(), str.end(), str.begin(), [](unsigned char c) { return static_cast<char>(tolower(c)); });
    return str;
}

std::string CMOXUtil::AddQuoteInPath(std::string strPath) {
    if (strPath.find('\'') == std::string::npos) return strPath;
    std::string quoted;
    quoted.reserve(strPath.size() + 8);
    for (char c : strPath) {
        quoted += c;
        if (c == '\'') quoted += '\'';
    }
    return quoted;
}

std::string CMOXUtil::RemoveForwardSlashInPath(std::string strPath) {
    size_t last = strPath.find_last_not_of('/');
    strPath.resize(last == std::string::npos ? 0 : last + 1);
    return strPath;
}

std::string CMOXUtil::CharToString(const char* sz) {
    return sz ? std::string(sz) : std::string();
}

void CMOXUtil::SplitToDouble(const char* szText, double* out, int* count) {
    assert(out != NULL && count != NULL);
    std::string text = szText ? szText : "";
    size_t end = text.find_last_not_of(kBlanks);
    if (end == std::string::npos) {
        out[0] = 0.0;
        *count = 1;
        return;
    }
    text.resize(end + 1);
    int stored = 0;
    size_t pos = 0;
    while (stored < 3) {
        size_t start = text.find_first_not_of(kBlanks, pos);
        if (start == std::string::npos) break;
        size_t stop = text.find_first_of(kBlanks, start);
        if (stop == std::string::npos) stop = text.size();
        out[stored++] = strtod(text.substr(start, stop - start).c_str(), nullptr);
        pos = stop;
    }
    *count = stored;
}

int CMOXUtil::str2int(const std::string& str) {
    std::istringstream ss(str);
    int n = 0;
    ss >> n;
    return n;
}

std::string CMOXUtil::int2str(int n) {
    std::ostringstream ss;
    ss << n;
    return ss.str();
}

std::string CMOXUtil::long2str(long long n) {
    std::ostringstream ss;
    ss << n;
    return ss.str();
}

std::string CMOXUtil::double2str(double d) {
    std::ostringstream ss;
    ss << d;
    return ss.str();
}

bool CMOXUtil::IsFileExist(const char* szFilePath) {
    assert(szFilePath != NULL);
    return access(szFilePath, R_OK) == 0;
}

bool CMOXUtil::LoadFile(const std::string& strPath, void** buf, long long* size) {
    assert(buf != NULL && size != NULL);
    // Non-blocking so that a FIFO under that name cannot stall the caller; it
    // is refused below like every other non-regular file.
    UniqueFd fd(open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    UniqueFile fp(fd.IsValid() ? fdopen(fd.Get(), "rb") : nullptr);
    if (!fp) {
        MOX_WARN("FAILED TO OPEN FILE, %s, %d\n", strPath.c_str(), errno);
        return false;
    }
    fd.Release();  // the stream owns the descriptor now
    // A directory opens too, and its end offset can be LLONG_MAX.
    if (!IsRegularFile(fileno(fp.get()))) {
        MOX_WARN("FAILED TO OPEN FILE, %s, %d\n", strPath.c_str(), EISDIR);
        return false;
    }
    long long length = -1;
    if (fseeko(fp.get(), 0, SEEK_END) == 0) length = ftello(fp.get());
    if (length < 1) {
        MOX_WARN("UUID file size is %lld", length);
        return false;
    }
    rewind(fp.get());
    UniqueBuffer data(static_cast<char*>(malloc(static_cast<size_t>(length) + 1)));
    if (!data) {
        MOX_WARN("FAILED TO ALLOC MEMORY! %lld", length + 1);
        return false;
    }
    size_t read = fread(data.get(), 1, static_cast<size_t>(length), fp.get());
    if (read == 0) {
        MOX_WARN("FAILED TO READ FILE, %lld", length);
        return false;
    }
    data.get()[read] = '\0';
    *buf = data.release();
    *size = static_cast<long long>(read);
    return true;
}

bool CMOXUtil::ReadFile(const std::string& strPath, char** buf, long long* size) {
    assert(buf != NULL && size != NULL);
    UniqueFd fd(open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.IsValid()) {
        MOX_WARN("FAILED TO open %s, %d\n", strPath.c_str(), errno);
        return false;
    }
    // Released by closing the descriptor, on every path out of here.
    if (m_ReadLock(fd.Get(), 0, SEEK_SET, 0) == -1) {
        MOX_WARN("FAILED TO mReadLock %s, %d\n", strPath.c_str(), errno);
        return false;
    }
    if (!IsRegularFile(fd.Get())) {
        MOX_WARN("FAILED TO open %s, %d\n", strPath.c_str(), EISDIR);
        return false;
    }
    long long length = lseek64(fd.Get(), 0, SEEK_END);
    if (length >= 1 && lseek64(fd.Get(), 0, SEEK_SET) != 0) length = -1;
    if (length < 1) {
        MOX_WARN("UUID file size is %lld", length);
        return false;
    }
    UniqueBuffer data(static_cast<char*>(malloc(static_cast<size_t>(length) + 1)));
    if (!data) {
        MOX_WARN("FAILED TO ALLOC MEMORY! %lld", length + 1);
        return false;
    }
    ssize_t got = read(fd.Get(), data.get(), static_cast<size_t>(length));
    if (got < 1) {
        MOX_WARN("FAILED TO READ FILE, %lld", length);
        return false;
    }
    data.get()[got] = '\0';
    *buf = data.release();
    *size = static_cast<long long>(got);
    return true;
}

bool CMOXUtil::ReadFile(const std::string& strPath, std::string& content) {
    char* raw = nullptr;
    long long size = 0;
    if (!ReadFile(strPath, &raw, &size)) {
        MOX_WARN("FAILED TO LOAD FILE!, %s", strPath.c_str());
        return false;
    }
    UniqueBuffer data(raw);
    content.assign(data.get());
    return true;
}

bool CMOXUtil::SaveAsFile(const char* data, long long size, const std::string& strPath) {
    assert(data != NULL || size == 0);
    if (size < 0) {
        MOX_WARN("COULDN'T WRITE FILE %s, %lld\n", strPath.c_str(), size);
        return false;
    }
    // Truncated only once the lock is held: a file another process holds
    // locked is left intact when the lock is refused.
    UniqueFd fd(open(strPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0777));
    if (!fd.IsValid()) {
        MOX_WARN("FAILED TO OPEN FILE, %s, %d\n", strPath.c_str(), errno);
        return false;
    }
    if (m_WriteLock(fd.Get(), 0, SEEK_SET, 0) == -1) {
        MOX_WARN("FAILED TO mWriteLock %s, %d\n", strPath.c_str(), errno);
        return false;
    }
    if (ftruncate(fd.Get(), 0) != 0) {
        MOX_WARN("COULDN'T WRITE FILE %s, %lld\n", strPath.c_str(), size);
        return false;
    }
    const char* pos = data;
    long long remaining = size;
    ssize_t lastWrite = 0;
    while (remaining > 0) {
        lastWrite = write(fd.Get(), pos, static_cast<size_t>(remaining));
        if (lastWrite < 0 && errno == EINTR) continue;
        if (lastWrite <= 0) break;
        pos += lastWrite;
        remaining -= lastWrite;
    }
    bool bResult = remaining == 0;
    if (bResult)
        MOX_WARN("file saved, %lld, %d, %s\n", size, static_cast<int>(lastWrite), strPath.c_str());
    else
        MOX_WARN("COULDN'T WRITE FILE %s, %lld\n", strPath.c_str(), size);
    if (fsync(fd.Get()) != 0) MOX_WARN("CMOXUtil::SaveAsFile : fsync() failed errno == %d\n.", errno);
    return bResult;
}

namespace {

// Reads the length-prefixed content of a shared-memory object a client wrote.
// The length is checked against the object's real size, so a short, negative
// or oversized field is refused instead of over-reading. content stays null
// for a zero length.
bool ReadShmContent(FILE* stream, const char* szShmName, UniqueBuffer& content, int32_t& length) {
    struct stat st;
    if (fstat(fileno(stream), &st) != 0) {
        MOX_WARN("CMOXUtil: fstat shm [%s] failed.", szShmName);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        MOX_WARN("CMOXUtil: shm [%s] is not a shared-memory object.", szShmName);
        return false;
    }
    const long long objectSize = static_cast<long long>(st.st_size);
    if (objectSize < static_cast<long long>(sizeof(length)) || fread(&length, sizeof(length), 1, stream) != 1) {
        MOX_WARN("CMOXUtil: shm [%s] has no length field (size %lld).", szShmName, objectSize);
        return false;
    }
    const long long available = objectSize - static_cast<long long>(sizeof(length));
    if (length < 0 || length > available) {
        MOX_WARN("CMOXUtil: shm [%s] length [%d] out of range [0, %lld].", szShmName, length, available);
        return false;
    }
    if (length == 0) return true;
    content.reset(static_cast<char*>(
        calloc(static_cast<size_t>(length), 1)));  // NOLINT(cppcoreguidelines-owning-memory): into its owner
    if (!content) {
        MOX_WARN("FAILED TO ALLOC MEMORY! %lld", static_cast<long long>(length));
        return false;
    }
    if (fread(content.get(), static_cast<size_t>(length), 1, stream) != 1) {
        MOX_WARN("CMOXUtil: shm [%s] read of [%d] bytes failed.", szShmName, length);
        content.reset();
        return false;
    }
    return true;
}

}  // namespace

std::string CMOXUtil::FileNameToUtf8(std::string_view name) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(name.size());
    auto escape = [&](unsigned char c) {
        out += "\\x";
        out.push_back(kHex[c >> 4]);
        out.push_back(kHex[c & 0xF]);
    };
    std::string_view rest = name;
    while (!rest.empty()) {
        const gchar* end = nullptr;
        bool bValid = g_utf8_validate_len(rest.data(), rest.size(), &end);
        size_t good = bValid ? rest.size() : static_cast<size_t>(end - rest.data());
        for (size_t i = 0; i < good; ++i) {
            if (rest[i] == '\\')
                escape('\\');
            else
                out.push_back(rest[i]);
        }
        if (bValid) break;
        // g_utf8_validate stops at a NUL too: it is escaped like any bad byte.
        escape(static_cast<unsigned char>(rest[good]));
        rest.remove_prefix(good + 1);
    }
    return out;
}

std::string CMOXUtil::FileNameFromUtf8(std::string_view text) {
    auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        // "\x00" stays as it is: no name holds a NUL, and a path must not end early.
        if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' && hex(text[i + 2]) >= 0 &&
            hex(text[i + 3]) >= 0 && (text[i + 2] != '0' || text[i + 3] != '0')) {
            out.push_back(static_cast<char>(hex(text[i + 2]) * 16 + hex(text[i + 3])));
            i += 3;
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

std::string CMOXUtil::CutForLog(const std::string& str, size_t nMax) {
    if (str.size() <= nMax) return str;
    size_t cut = nMax;
    while (cut > 0 && (static_cast<unsigned char>(str[cut]) & 0xC0) == 0x80) --cut;
    return str.substr(0, cut) + "...(" + std::to_string(str.size()) + " bytes)";
}

bool CMOXUtil::WriteFile(const char* szFilePath, const char* szShmName) {
    assert(szFilePath != NULL && szShmName != NULL);
    UniqueFd fd(shm_open(szShmName, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0));
    if (!fd.IsValid()) {
        MOX_WARN("CMOXUtil: shm_open [%s] failed.", szShmName);
        return false;
    }
    UniqueFile stream(fdopen(fd.Get(), "r"));
    if (!stream) {
        MOX_WARN("CMOXUtil: fdopen [%d] failed.", fd.Get());
        if (shm_unlink(szShmName) != 0) MOX_WARN("CMOXUtil: shm_unlink [%s] failed.", szShmName);
        return false;
    }
    fd.Release();  // the stream owns the descriptor now

    UniqueBuffer content;
    int32_t length = 0;
    bool bRead = ReadShmContent(stream.get(), szShmName, content, length);

    // The object is consumed whether or not the file gets written.
    if (fclose(stream.release()) != 0) MOX_WARN("CMOXUtil: fclose [%s] failed.", szShmName);
    if (shm_unlink(szShmName) != 0) MOX_WARN("CMOXUtil: shm_unlink [%s] failed.", szShmName);
    if (!bRead) return false;
    if (!content) {
        MOX_WARN("szContext == NULL.");
        return false;
    }

    UniqueFile out(fopen(szFilePath, "wbe"));
    if (!out) {
        MOX_WARN("CMOXUtil: fopen [%s] failed.", szFilePath);
        return false;
    }
    bool bWritten = fwrite(content.get(), static_cast<size_t>(length), 1, out.get()) == 1;
    // A failing flush or close loses the tail just like a failing fwrite.
    bWritten = (fflush(out.get()) == 0) && bWritten;
    bWritten = (fclose(out.release()) == 0) && bWritten;
    if (!bWritten) {
        MOX_WARN("CMOXUtil: fwrite failed.");
        if (remove(szFilePath) != 0) MOX_WARN("CMOXUtil: remove [%s] failed.", szFilePath);
        return false;
    }
    return true;
}

bool CMOXUtil::RemoveFile(const char* szPath) {
    assert(szPath != NULL);
    if (remove(szPath) != 0) {
        MOX_WARN("CMOXUtil: remove [%s] failed.", szPath);
        return false;
    }
    return true;
}

int CMOXUtil::m_LockReg(int fd, int cmd, int type, off_t start, int whence, off_t len) {
    struct flock lock;
    memset(&lock, 0, sizeof(lock));
    lock.l_type = static_cast<short>(type);
    lock.l_start = start;
    lock.l_whence = static_cast<short>(whence);
    lock.l_len = len;
    return fcntl(fd, cmd, &lock);
}

int CMOXUtil::m_ReadLock(int fd, off_t start, int whence, off_t len) {
    return m_LockReg(fd, F_SETLK, F_RDLCK, start, whence, len);
}

int CMOXUtil::m_WriteLock(int fd, off_t start, int whence, off_t len) {
    return m_LockReg(fd, F_SETLK, F_WRLCK, start, whence, len);
}

bool CMOXUtil::GetVConfigValueInt(const char* szKey, int* value) {
    if (szKey == nullptr || value == nullptr) {
        MOX_INFO("Arguments key or value is NULL");
        return false;
    }
    int read = 0;
    int ret = vconf_get_int(szKey, &read);
    if (ret == 0) {
        *value = read;
        return true;
    }
    if (ret != -1) MOX_INFO("Unexpected error code: %d", ret);
    return false;
}

bool CMOXUtil::SetVConfigValueInt(const char* szKey, int value) {
    if (szKey == nullptr) {
        MOX_INFO("Arguments key is NULL");
        return false;
    }
    int ret = vconf_set_int(szKey, value);
    if (ret == 0) return true;
    if (ret != -1) MOX_INFO("Unexpected error code: %d", ret);
    return false;
}

bool CMOXUtil::IsSupportKinview() {
    bool bSupport = false;
    if (system_info_get_value_bool(SYSTEM_INFO_KEY_KINVIEW_SUPPORT, &bSupport) != SYSTEM_INFO_ERROR_NONE) {
        MOX_WARN("Get kinview Support failed");
        return false;
    }
    MOX_INFO("Kinview Support : [%d]", bSupport);
    return bSupport;
}
