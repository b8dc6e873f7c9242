// A client process of the engine's shared memory: links only libmoxcommon and
// the public headers. Usage: mox_shm_client NAME; prints the dump of the
// result list NAME and exits 0 when it loaded, 2 when it did not.
#include <cstdio>
#include <string>

#include "shm_dump.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s NAME\n", argv[0]);
        return 1;
    }
    const std::string text = moxtest::DumpList(argv[1]);
    fputs(text.c_str(), stdout);
    return text.rfind("loaded 1\n", 0) == 0 ? 0 : 2;
}
