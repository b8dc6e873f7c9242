// Runs a fuzz target over saved inputs without libFuzzer, so that ctest can
// replay the seeds (crafted headers included) under the sanitizers of any
// build. Arguments are files or directories of files.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool Replay(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    int nInputs = 0;
    for (int i = 1; i < argc; ++i) {
        struct stat st {};
        if (stat(argv[i], &st) != 0) return 1;
        if (!S_ISDIR(st.st_mode)) {
            if (!Replay(argv[i])) return 1;
            ++nInputs;
            continue;
        }
        DIR* dir = opendir(argv[i]);
        if (dir == nullptr) return 1;
        while (struct dirent* entry = readdir(dir)) {
            if (entry->d_name[0] == '.') continue;
            if (!Replay(std::string(argv[i]) + "/" + entry->d_name)) return 1;
            ++nInputs;
        }
        closedir(dir);
    }
    printf("replayed %d inputs\n", nInputs);
    return nInputs > 0 ? 0 : 1;
}
