// Loading of a shared-memory object that another process may have written:
// data blocks and result lists are readable (and often writable) by every
// client, so a reader must survive any content and any concurrent change.
//
// The object is copied once into private memory instead of being mapped. A
// mapping would let the writer shrink the object under the reader (SIGBUS on
// the next access) or rewrite offsets after they were checked; a private copy
// is checked once and then stays as checked. Unlinking the object afterwards
// does not affect the copy, like an existing mapping.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace mox_shm {

// A loaded copy of one object: nSize bytes at pData.
struct SObjectCopy {
    std::unique_ptr<char[]> pData;
    int nSize = 0;
};

// Opens strShmName read-only and copies its first nSize bytes, nSize being the
// 32-bit little-endian integer at nSizeFieldOffset of the object's header of
// nHeaderSize bytes. nSize must lie in [nHeaderSize, object size] and must not
// exceed MOX_SHM_OBJECT_MAX_SIZE. False, with one warning, when the object
// cannot be opened (missing, no permission) or is bad (too small, size field
// inconsistent, too large, changed while read).
bool LoadObject(const std::string& strShmName, int nHeaderSize, int nSizeFieldOffset, SObjectCopy& out);

// The 32-bit little-endian integer at byte offset nOffset (unaligned access is
// fine). The caller has checked nOffset + 4 <= the buffer's size.
int32_t ReadInt32(const char* pData, int64_t nOffset);

}  // namespace mox_shm
