// mox-vconf: read and write configuration keys from the shell.
//   mox-vconf get KEY          prints the value; exit 1 when missing
//   mox-vconf set KEY VALUE    sets it; exit 1 on failure
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <vconf.h>

namespace {

constexpr const char* kUsage = "usage: mox-vconf get KEY\n       mox-vconf set KEY VALUE\n";

int Usage() {
    fputs(kUsage, stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        printf(
            "%sReads and writes the configuration keys of the MOX content engine: files below\n"
            "$MOX_VCONF_DIR (default /var/lib/mox/vconf) holding a decimal integer.\n"
            "Exit status: 0 done, 1 no such key or cannot set it, 2 wrong usage.\n",
            kUsage);
        return 0;
    }
    if (argc == 3 && strcmp(argv[1], "get") == 0) {
        int value = 0;
        if (vconf_get_int(argv[2], &value) != 0) {
            fprintf(stderr, "mox-vconf: %s: no such key\n", argv[2]);
            return 1;
        }
        printf("%d\n", value);
        return 0;
    }
    if (argc == 4 && strcmp(argv[1], "set") == 0) {
        char* end = nullptr;
        errno = 0;
        long value = strtol(argv[3], &end, 10);
        if (end == argv[3] || *end != '\0' || errno != 0 || value < INT_MIN || value > INT_MAX) {
            fprintf(stderr, "mox-vconf: %s: not an integer\n", argv[3]);
            return 2;
        }
        if (vconf_set_int(argv[2], static_cast<int>(value)) != 0) {
            fprintf(stderr, "mox-vconf: cannot set %s\n", argv[2]);
            return 1;
        }
        return 0;
    }
    return Usage();
}
