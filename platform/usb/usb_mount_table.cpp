#include "usb_mount_table.h"

#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace {

// Decodes the kernel's "\ooo" escapes of space, tab, newline and backslash.
std::string Unescape(const std::string& field) {
    std::string out;
    out.reserve(field.size());
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' && field[i + 1] <= '3' &&
            field[i + 2] >= '0' && field[i + 2] <= '7' && field[i + 3] >= '0' && field[i + 3] <= '7') {
            out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
            i += 3;
        } else {
            out += field[i];
        }
    }
    return out;
}

bool ParseDevice(const std::string& field, dev_t& dev) {
    size_t colon = field.find(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 >= field.size()) return false;
    char* end = nullptr;
    unsigned long major = strtoul(field.c_str(), &end, 10);
    if (end != field.c_str() + colon) return false;
    unsigned long minor = strtoul(field.c_str() + colon + 1, &end, 10);
    if (*end != '\0') return false;
    dev = makedev(major, minor);
    return true;
}

}  // namespace

std::vector<UsbMountEntry> UsbMountTable::Parse(const std::string& text) {
    std::vector<UsbMountEntry> entries;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        // id parent major:minor root mount-point options [optional...] - fstype source super-options
        std::istringstream fields(line);
        std::vector<std::string> f;
        std::string word;
        while (fields >> word) f.push_back(word);
        if (f.size() < 7) continue;
        size_t sep = 6;
        while (sep < f.size() && f[sep] != "-") ++sep;
        if (sep + 2 >= f.size()) continue;
        UsbMountEntry entry;
        if (!ParseDevice(f[2], entry.device)) continue;
        entry.mountPoint = Unescape(f[4]);
        entry.fsType = f[sep + 1];
        entry.source = Unescape(f[sep + 2]);
        entries.push_back(std::move(entry));
    }
    return entries;
}

bool UsbMountTable::ReadFd(int fd, std::string& text) {
    text.clear();
    if (lseek(fd, 0, SEEK_SET) < 0) return false;
    char buf[8192];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        text.append(buf, static_cast<size_t>(n));
    }
}

bool UsbMountTable::IsBelow(const std::string& path, const std::string& root) {
    std::string base = root;
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    if (base == "/") return path.size() > 1 && path[0] == '/';
    return path.size() > base.size() + 1 && path.compare(0, base.size(), base) == 0 && path[base.size()] == '/';
}
