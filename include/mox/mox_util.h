// CMOXUtil: stateless helpers for strings, paths, files, shared memory,
// configuration keys and identifiers, shared by the daemon and the source
// plug-ins. Every function is re-entrant and may be called from any thread.
// Failures are a warning (tag "MOX-COMMON"; info for the configuration-key
// helpers) and a false or empty result; out-parameters are left untouched on
// failure. Only null out-parameters (our own misuse) are asserted.
//
// Buffers handed out: AssignValue allocates with new[] (free with delete[]);
// AssignValueByCStyle, LoadFile and ReadFile allocate with malloc (free with
// free). File locks are fcntl record locks taken without waiting: a
// conflicting lock held by another process makes ReadFile/SaveAsFile fail at
// once; the lock lasts until the descriptor is closed inside the call.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

// Time-based and random identifiers in lower-case 8-4-4-4-12 text form. out
// must hold 37 bytes. Both return 0.
int mox_uuid_time(char* out);
int mox_uuid_random(char* out);

class CMOXUtil {
public:
    CMOXUtil() = delete;

    // Random (version 4) identifier in lower-case 8-4-4-4-12 form.
    static std::string GetUUID();
    // Milliseconds since the epoch.
    static long long GetCurrentSystemTime();

    // Copies a non-empty src into a new[] buffer stored in *dst; a null or
    // empty src leaves *dst untouched.
    static void AssignValue(char** dst, const char* src);
    // The same with malloc; a null src is logged.
    static void AssignValueByCStyle(char** dst, const char* src);

    // Text after the last '.' of the whole string (a dot in a directory name
    // counts; callers pass file names). Empty without a dot or for null.
    static std::string GetFileExtension(const char* szPath);
    // Text after the last '/'; empty when there is none.
    static std::string GetFileName(const std::string& strPath);
    // Text before the last '.'; empty when there is none.
    static std::string GetFileNameWithoutExt(const std::string& strName);
    // Lower-cased ext equals one of the count strings of list.
    static bool CompareExtension(std::string strExt, const char** list, int count);
    // Upper-cased field equals one of the count strings of list.
    static bool CompareField(std::string strField, const char** list, int count);
    // Lower-cased ext equals one of the strings of list.
    static bool CompareMediaExtension(const std::vector<std::string>& list, std::string strExt);
    static std::string ToLower(std::string str);
    // Doubles every single quote so the path can stand in a quoted literal.
    static std::string AddQuoteInPath(std::string strPath);
    // Drops every trailing '/' (a path of slashes only becomes empty).
    static std::string RemoveForwardSlashInPath(std::string strPath);
    // Empty for null.
    static std::string CharToString(const char* sz);
    // Text cut to nMax bytes (not splitting a UTF-8 character) and marked
    // "...(N bytes)", so that client-sized strings cost little in the log.
    static std::string CutForLog(const std::string& str, size_t nMax = 4096);
    // A file name or path as UTF-8 that still tells names apart (the
    // engine's rule for names in bus texts and in list items): valid UTF-8
    // without a backslash is returned unchanged; otherwise every byte that is
    // not part of valid UTF-8, every NUL and every backslash becomes "\xNN"
    // (upper-case hex).
    static std::string FileNameToUtf8(std::string_view name);
    // The inverse, for paths clients send back: every "\xNN" (hex, either
    // case) becomes the byte NN; everything else is kept. Names the engine
    // handed out name the same file again.
    static std::string FileNameFromUtf8(std::string_view text);
    // Splits text at runs of blanks (trailing blanks ignored) and stores at
    // most three numbers in out (which holds three); *count gets how many.
    // An empty, blank-only or null text stores one 0.0.
    static void SplitToDouble(const char* szText, double* out, int* count);
    static int str2int(const std::string& str);
    static std::string int2str(int n);
    static std::string long2str(long long n);
    static std::string double2str(double d);

    // Readable by this process.
    static bool IsFileExist(const char* szFilePath);
    // Whole file into a malloc'd buffer with a terminating zero byte after the
    // *size bytes read. An empty file is a failure.
    static bool LoadFile(const std::string& strPath, void** buf, long long* size);
    // As LoadFile, under a read lock over the whole file.
    static bool ReadFile(const std::string& strPath, char** buf, long long* size);
    // The same; content gets the bytes up to the first zero byte.
    static bool ReadFile(const std::string& strPath, std::string& content);
    // Creates or truncates strPath (mode 0777 before the umask) and writes
    // size bytes under a write lock over the whole file, then fsyncs it.
    static bool SaveAsFile(const char* data, long long size, const std::string& strPath);
    // Copies the shared-memory object shmName, laid out as a native-endian
    // 32-bit length N followed by N bytes, into the file filePath. The object
    // is unlinked in every case once it could be opened (consumed). A length
    // below 1 or beyond the object's size is refused.
    // Not confined to any root: paths a client names go through the engine's
    // own confined writer instead.
    static bool WriteFile(const char* szFilePath, const char* szShmName);
    static bool RemoveFile(const char* szPath);

    // Configuration key as an integer; false when missing.
    static bool GetVConfigValueInt(const char* szKey, int* value);
    static bool SetVConfigValueInt(const char* szKey, int value);
    // The kinview feature flag (platform feature 524); false when unknown.
    static bool IsSupportKinview();

private:
    // fcntl record lock; returns fcntl's result.
    static int m_LockReg(int fd, int cmd, int type, off_t start, int whence, off_t len);
    // Non-waiting read / write lock.
    static int m_ReadLock(int fd, off_t start, int whence, off_t len);
    static int m_WriteLock(int fd, off_t start, int whence, off_t len);
};

#pragma GCC visibility pop
