// Fuzz target of the data-block reader: the input is the whole object.
#include <unistd.h>

#include <cstdint>
#include <string>

#include <mox/cache_reader.h>

#include "fuzz_shm_util.h"

namespace {
const std::string& ObjectName() {
    static const std::string s_name = "mox_fuzz_block_" + std::to_string(getpid());
    return s_name;
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    moxfuzz::QuietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!moxfuzz::WriteObject(ObjectName(), data, size)) return 0;
    {
        CCacheReader reader(ObjectName());
        volatile size_t sink = 0;
        sink += static_cast<size_t>(reader.StartIndex()) + static_cast<size_t>(reader.EndIndex()) +
                static_cast<size_t>(reader.GetTotalCount());
        // One step past each end: indices a result list names are not trusted.
        const int nGroups = reader.GetGroupCount();
        for (int i = -1; i <= nGroups; ++i) {
            int a = 0, b = 0;
            if (reader.GetGroup(i, a, b)) sink += static_cast<size_t>(a) + static_cast<size_t>(b);
        }
        const int nItems = reader.GetItemCount();
        for (int i = -1; i <= nItems; ++i) {
            std::string item;
            if (reader.GetItem(i, item))
                for (char c : item) sink += static_cast<unsigned char>(c);
        }
        (void)sink;
    }
    shm_unlink(ObjectName().c_str());
    return 0;
}
