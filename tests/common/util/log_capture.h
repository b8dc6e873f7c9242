// Routes the platform log of a test binary into a private file so that tests
// can check which lines a call wrote. The sink reads MOX_LOG once, at the
// first log call, so the variable is set during static initialisation.
#pragma once

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>
#include <string>

#include "temp_dir.h"

namespace moxtest {

class LogCaptureEnvironment : public ::testing::Environment {
public:
    LogCaptureEnvironment() {
        char tmpl[] = "/tmp/moxtest-log-XXXXXX";
        int fd = mkstemp(tmpl);
        if (fd >= 0) {
            close(fd);
            m_path = tmpl;
            setenv("MOX_LOG", ("file:" + m_path).c_str(), 1);
        }
    }
    void TearDown() override {
        if (!m_path.empty()) unlink(m_path.c_str());
    }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

inline LogCaptureEnvironment* const g_logCapture =
    static_cast<LogCaptureEnvironment*>(::testing::AddGlobalTestEnvironment(new LogCaptureEnvironment));

// Remembers the end of the log file; Text() is what was logged after that.
class LogMark {
public:
    LogMark() {
        struct stat st;
        m_offset = stat(g_logCapture->path().c_str(), &st) == 0 ? static_cast<size_t>(st.st_size) : 0;
    }
    std::string Text() const {
        std::string all = ReadTextFile(g_logCapture->path());
        return m_offset < all.size() ? all.substr(m_offset) : std::string();
    }
    bool Contains(const std::string& text) const { return Text().find(text) != std::string::npos; }

private:
    size_t m_offset;
};

}  // namespace moxtest
