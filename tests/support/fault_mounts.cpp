#include "fault_mounts.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "temp_dir.h"

namespace moxtest {
namespace {

constexpr long kFuseSuperMagic = 0x65735546;

bool IsFuseMount(const std::string& path) {
    struct statfs st {};
    return statfs(path.c_str(), &st) == 0 && st.f_type == kFuseSuperMagic;
}

int Run(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str());
}

}  // namespace

FaultFs::FaultFs(const std::string& backing, const std::string& mountPoint)
    : m_mountPoint(mountPoint), m_control(backing + ".faultfs-rules") {
    if (access("/dev/fuse", R_OK | W_OK) != 0) {
        m_why = "/dev/fuse is not usable here";
        return;
    }
    WriteTextFile(m_control, "");
    m_pid = fork();
    if (m_pid == 0) {
        execl(MOX_FAULTFS_BINARY, MOX_FAULTFS_BINARY, backing.c_str(), mountPoint.c_str(), m_control.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 250 && m_pid > 0; ++i) {
        if (IsFuseMount(mountPoint)) {
            m_mounted = true;
            return;
        }
        int status = 0;
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            m_why = "mox_faultfs exited before mounting (no FUSE support?)";
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    m_why = "mox_faultfs did not mount within 5 s";
}

FaultFs::~FaultFs() {
    SetRules("");
    if (m_mounted) Run("fusermount3 -u -z '" + m_mountPoint + "'");
    if (m_pid > 0) {
        int status = 0;
        for (int i = 0; i < 100 && waitpid(m_pid, &status, WNOHANG) == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (waitpid(m_pid, &status, WNOHANG) == 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &status, 0);
        }
    }
    unlink(m_control.c_str());
}

void FaultFs::SetRules(const std::string& rules) {
    // Written to a new file and renamed, so the file system never reads half.
    const std::string next = m_control + ".next";
    WriteTextFile(next, rules);
    rename(next.c_str(), m_control.c_str());
}

LoopFs::LoopFs(const std::string& image, const std::string& mountPoint, int megabytes)
    : m_image(image), m_mountPoint(mountPoint) {
    if (geteuid() != 0) {
        m_why = "loop mounts need root";
        return;
    }
    if (Run("truncate -s " + std::to_string(megabytes) + "M '" + image + "'") != 0 ||
        Run("mkfs.ext4 -q -F '" + image + "'") != 0) {
        m_why = "could not make an ext4 image (mkfs.ext4 missing?)";
        return;
    }
    if (Run("mount -o loop '" + image + "' '" + mountPoint + "'") != 0) {
        m_why = "mount -o loop failed (no loop devices here?)";
        return;
    }
    m_mounted = true;
}

LoopFs::~LoopFs() {
    if (m_mounted) Run("umount -l '" + m_mountPoint + "'");
    unlink(m_image.c_str());
}

}  // namespace moxtest
