// Real mounted file systems for fault tests: a FUSE file system that hangs or
// fails chosen operations on demand (mox_faultfs), and a loop-mounted ext4
// image. Both need root and kernel support; Available() says whether this
// machine has it, so a test can skip with a clear message.
#pragma once

#include <sys/types.h>

#include <string>

namespace moxtest {

// Mounts mox_faultfs over `backing` at `mountPoint` (both must exist) and
// unmounts it when destroyed, after releasing every hang.
class FaultFs {
public:
    FaultFs(const std::string& backing, const std::string& mountPoint);
    ~FaultFs();
    FaultFs(const FaultFs&) = delete;
    FaultFs& operator=(const FaultFs&) = delete;

    // True when the mount came up; false (with Why()) where FUSE is not usable.
    bool Mounted() const { return m_mounted; }
    const std::string& Why() const { return m_why; }
    // Replaces the rules: lines of "hang|eio|slow OP SUBSTRING" (see mox_faultfs.cpp).
    // An empty text clears every rule and releases hung operations.
    void SetRules(const std::string& rules);

private:
    std::string m_mountPoint;
    std::string m_control;
    pid_t m_pid = -1;
    bool m_mounted = false;
    std::string m_why;
};

// An ext4 image of `megabytes` MiB, loop-mounted at `mountPoint` (which must
// exist) and lazily unmounted when destroyed.
class LoopFs {
public:
    LoopFs(const std::string& image, const std::string& mountPoint, int megabytes = 32);
    ~LoopFs();
    LoopFs(const LoopFs&) = delete;
    LoopFs& operator=(const LoopFs&) = delete;

    bool Mounted() const { return m_mounted; }
    const std::string& Why() const { return m_why; }

private:
    std::string m_image;
    std::string m_mountPoint;
    bool m_mounted = false;
    std::string m_why;
};

}  // namespace moxtest
