// CMOXFile64: one large-file descriptor (64-bit offsets) plus static helpers
// for single file operations. The open state is guarded by the mutex, so
// Open/Destroy/IsOpened may race from several threads; reads and writes on
// one object are not serialised, and a Destroy racing a Read or Write is the
// caller's error: one thread uses an open object at a time.
// Failures are warnings (tag "MOX-COMMON") followed by the errno line of
// ErrMsg, and a false result. Null names and buffers are asserted.
// The descriptor and its stream are closed by Destroy() or the destructor.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <sys/types.h>

#include <cstdio>

#include <mox/platform/mox_thread_annotations.h>

class CMOXFile64 {
public:
    enum {
        MODE_READ_ONLY = 0,
        MODE_WRITE_ONLY = 1,
        MODE_READ_WRITE = 2,
    };

    CMOXFile64();
    ~CMOXFile64();
    CMOXFile64(const CMOXFile64&) = delete;
    CMOXFile64& operator=(const CMOXFile64&) = delete;

    // Logs errnum and its text as a warning.
    static void ErrMsg(int errnum);
    // Creates the file (mode 0777 before the umask) if missing. A refusal for
    // lack of permission (EACCES) counts as success: the caller cannot tell a
    // protected existing file from a missing one and goes on to Open.
    static bool Create(const char* szName);
    static bool Remove(const char* szName);
    // A regular file (following links).
    static bool FileExists(const char* szName);
    static bool FileSize(const char* szName, off64_t* size);

    // Opens szName in nMode (MODE_*) with extra open(2) flags; true at once
    // when already open. With bCheckReadable in read-only mode the path must
    // be a regular file with the owner-read bit. A missing file (ENOENT) is
    // tried six times in all before failing.
    bool Open(const char* szName, int nMode, int nFlags, bool bCheckReadable);
    // One read/write of *count bytes; *count gets the bytes transferred
    // (0 on failure).
    bool Read(void* buffer, unsigned long* count);
    bool Write(const void* buffer, unsigned long* count);
    // fsync (and the write stream's fflush); refused in read-only mode.
    bool Flush();
    // Closes the file; a second call only warns.
    void Destroy();

    // The open flag only changes with Open and Destroy, so that it always
    // says whether a descriptor is held.
    bool IsOpened();

private:
    bool m_Transfer(void* buffer, unsigned long* count, bool bWrite);
    // Closes descriptor and stream.
    void m_CloseLocked() REQUIRES(m_mutex);

    // Open and Destroy hold the mutex throughout, so racing callers see
    // either a closed object or a fully opened one.
    mox::Mutex m_mutex;
    int m_fd GUARDED_BY(m_mutex);        // -1 when closed
    int m_openMode GUARDED_BY(m_mutex);  // MODE_* of the open file
    bool m_bOpened GUARDED_BY(m_mutex);
    FILE* m_pStream GUARDED_BY(m_mutex);  // write stream owning m_fd, null in read-only mode
};

#pragma GCC visibility pop
