// A private temporary directory for one test, removed with everything in it
// when the owner goes out of scope.
#pragma once

#include <string>

namespace moxtest {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    // Absolute path of a name inside the directory.
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Writes text to a file (creating parent directories); returns false on error.
bool WriteTextFile(const std::string& path, const std::string& text);
// Whole content of a file, or empty when it cannot be read.
std::string ReadTextFile(const std::string& path);
// Runs a shell command quietly; true when it exited with 0.
bool Shell(const std::string& command);

}  // namespace moxtest
