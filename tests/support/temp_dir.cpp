#include "temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace moxtest {

TempDir::TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "moxtest-XXXXXX").string();
    if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
    m_path = tmpl;
}

TempDir::~TempDir() {
    std::error_code ec;
    // Tests may leave read-only directories behind; make them removable first.
    for (auto it = std::filesystem::recursive_directory_iterator(m_path, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                                     ec);
    }
    std::filesystem::remove_all(m_path, ec);
}

bool WriteTextFile(const std::string& path, const std::string& text) {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

std::string ReadTextFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool Shell(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

}  // namespace moxtest
