// Fuzz target of the result-list reader. Input: a 2-byte little-endian
// length L, then L bytes of result list, then the rest as a data block. The
// block is written under a name of this process; every block-name slot of
// the list whose first byte is '@' gets that name, so that entries reach a
// real block (other slots keep their fuzzed text).
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <mox/mox_cache_defines.h>
#include <mox/mox_resultlist.h>

#include "fuzz_shm_util.h"

namespace {

const std::string& ListName() {
    static const std::string s_name = "mox_fuzz_list_" + std::to_string(getpid());
    return s_name;
}
const std::string& BlockName() {
    static const std::string s_name = "mox_fuzz_blk_" + std::to_string(getpid());
    return s_name;
}

int32_t Field(const std::vector<uint8_t>& bytes, size_t nOffset) {
    int32_t n = 0;
    if (nOffset + 4 <= bytes.size()) memcpy(&n, bytes.data() + nOffset, 4);
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    moxfuzz::QuietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    size_t nListLen = static_cast<size_t>(data[0]) | (static_cast<size_t>(data[1]) << 8);
    data += 2;
    size -= 2;
    if (nListLen > size) nListLen = size;
    std::vector<uint8_t> list(data, data + nListLen);
    const int32_t nNameOffset = Field(list, 0);
    const int32_t nBlocks = Field(list, 28);
    for (int32_t k = 0; k < nBlocks && k < 64; ++k) {
        const int64_t nSlot = static_cast<int64_t>(nNameOffset) + int64_t(MOX_RESULTLIST_NAME_SLOT_SIZE) * k;
        if (nSlot < 0 || nSlot + MOX_RESULTLIST_NAME_SLOT_SIZE > static_cast<int64_t>(list.size())) break;
        if (list[nSlot] == '@') memcpy(&list[nSlot], BlockName().c_str(), BlockName().size() + 1);
    }
    if (!moxfuzz::WriteObject(ListName(), list.data(), list.size())) return 0;
    if (!moxfuzz::WriteObject(BlockName(), data + nListLen, size - nListLen)) return 0;
    {
        CResultList reader(ListName());
        volatile size_t sink = 0;
        sink += static_cast<size_t>(reader.SectionIndex()) + static_cast<size_t>(reader.GetTotalCount()) +
                static_cast<size_t>(reader.GetItemCount());
        const int nGroups = reader.GetGroupCount();
        for (int i = -1; i <= nGroups; ++i) {
            int a = 0, b = 0;
            if (reader.GetGroup(i, a, b)) sink += static_cast<size_t>(a) + static_cast<size_t>(b);
        }
        const int nBlockCount = reader.GetBlockCount();
        for (int i = -1; i <= nBlockCount; ++i) {
            std::string name;
            if (reader.GetBlockName(i, name)) sink += name.size();
        }
        // One step past each end of the range as well.
        for (int64_t n = int64_t(reader.StartIndex()) - 1; n <= int64_t(reader.EndIndex()) + 1; ++n) {
            if (n < INT32_MIN || n > INT32_MAX) continue;
            std::string item, shm;
            int nItemIndex = 0;
            if (reader.GetItem(static_cast<int>(n), item, shm, nItemIndex))
                for (char c : item) sink += static_cast<unsigned char>(c);
        }
        (void)sink;
    }
    shm_unlink(ListName().c_str());
    shm_unlink(BlockName().c_str());
    return 0;
}
