// Paths that a client names, resolved strictly beneath one root directory
// (the USB root for the engine). No component may lead out of the root:
// ".." above it, absolute symbolic links and links pointing outside are all
// refused by the kernel (openat2 with RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS),
// so a link swapped in during the call cannot redirect it either.
//
// Every operation is a blocking file-system call: run it off the main loop.
// Objects are independent and cheap (one O_PATH descriptor); thread-safe.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <sys/types.h>

#include <functional>
#include <string>

class CMOXConfinedPath {
public:
    // `root` is an absolute directory, trusted (it comes from the daemon's
    // configuration, not from a client); it may itself be a symbolic link.
    explicit CMOXConfinedPath(std::string root);
    ~CMOXConfinedPath();
    CMOXConfinedPath(const CMOXConfinedPath&) = delete;
    CMOXConfinedPath& operator=(const CMOXConfinedPath&) = delete;

    bool IsValid() const { return m_rootFd >= 0; }

    // The part of an absolute `path` below the root ("a/b.jpg"), or false
    // when `path` does not start with the root (as given, or as resolved when
    // the given root holds links) followed by "/". Lexical only: ".." and
    // links are judged when the path is opened.
    bool Relative(const std::string& path, std::string& relative) const;

    // Opens a directory beneath the root (O_PATH | O_DIRECTORY). -1 and errno
    // on failure (EXDEV for an escape). The caller owns the descriptor.
    int OpenDirectory(const std::string& relative) const;
    // Opens the parent directory of `path` and names its last component, which
    // is never empty, "." or "..". -1 and errno on failure.
    int OpenParent(const std::string& path, std::string& leaf) const;
    // Opens an existing directory beneath the root for reading its entries
    // (O_RDONLY | O_DIRECTORY, never blocking). -1 and errno on failure.
    int OpenDirectoryForRead(const std::string& path) const;
    // Opens what an absolute `path` names beneath the root (O_PATH; links are
    // followed only while they stay beneath it). -1 and errno on failure:
    // EXDEV for anything leading out, decided before anything outside is
    // looked up, so the answer never depends on what exists there.
    int OpenPath(const std::string& path) const;
    // The absolute path of an open descriptor as the kernel knows it.
    static bool PathOfDescriptor(int fd, std::string& path);
    // Opens an existing regular file beneath the root for reading, without
    // blocking on a FIFO or device; anything else fails with EINVAL.
    int OpenRegularForRead(const std::string& path) const;

    // Removes the file (or empty directory) `path` names. A symbolic link as
    // the last component is removed itself, never followed.
    bool Remove(const std::string& path, int& error) const;

    // Creates or replaces the regular file `path` atomically: `fill` writes the
    // content to a temporary file beside it, which is synced and renamed into
    // place only when `fill` returned true. An existing destination that is
    // not a regular file (directory, link, FIFO, device) is refused (EINVAL)
    // and left alone; on any failure the old content stays intact.
    bool Replace(const std::string& path, mode_t mode, const std::function<bool(int fd)>& fill, int& error) const;

private:
    int m_rootFd = -1;
    std::string m_strRoot;      // without trailing slashes
    std::string m_strRealRoot;  // m_strRoot resolved; empty when it is the same
};

#pragma GCC visibility pop
