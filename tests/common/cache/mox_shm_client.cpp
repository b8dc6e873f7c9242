// A client process of the engine's shared memory: links only libmoxcommon and
// the public headers. Usage: mox_shm_client block|list NAME; prints the dump
// of the object and exits 0 when it loaded, 2 when it did not.
#include <cstdio>
#include <cstring>
#include <string>

#include <mox/cache_reader.h>
#include <mox/mox_resultlist.h>

#include "shm_dump.h"

int main(int argc, char** argv) {
    if (argc != 3 || (strcmp(argv[1], "block") != 0 && strcmp(argv[1], "list") != 0)) {
        fprintf(stderr, "usage: %s block|list NAME\n", argv[0]);
        return 1;
    }
    const bool bBlock = strcmp(argv[1], "block") == 0;
    std::string text = bBlock ? moxtest::DumpBlock(argv[2]) : moxtest::DumpList(argv[2]);
    fputs(text.c_str(), stdout);
    return text.rfind("loaded 1\n", 0) == 0 ? 0 : 2;
}
