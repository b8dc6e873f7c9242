#define MOX_LOG_TAG "MOX-CACHE"
#include "cache_builder.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include <mox/mox_log.h>

#include "shm_mapping.h"

namespace {

const char kNamePrefix[] = "mox_datablock_";

}  // namespace

void CCacheBuilder::SStreamCloser::operator()(FILE* pStream) const {
    if (fclose(pStream) != 0) MOX_WARN("fclose failed.");  // NOLINT(cppcoreguidelines-owning-memory): the owner
}

mox_shm::CShmNamer& CCacheBuilder::m_Namer() {
    // One process-wide sequence of block names, from 0.
    static mox_shm::CShmNamer s_namer(kNamePrefix, 0);
    return s_namer;
}

CCacheBuilder::CCacheBuilder(mox_cache_block_type eType) : m_eType(eType) {
    int nId = -1;
    int fd = m_Namer().CreateExclusive(m_strShmName, nId);
    if (fd < 0) return;
    MOX_DEBUG("Generate ShmName[%s].", m_strShmName.c_str());
    FILE* pStream = fdopen(fd, "r+");
    if (pStream == nullptr) {
        MOX_WARN("fdopen failed for [%s]: %s.", m_strShmName.c_str(), strerror(errno));
        close(fd);
        shm_unlink(m_strShmName.c_str());  // created exclusively just now: ours
        return;
    }
    m_pStream.reset(pStream);
}

CCacheBuilder::~CCacheBuilder() {
    // Every builder ends released (the pool owns the object) or freed.
    assert(m_bReleased == true);
}

FILE* CCacheBuilder::GetStream() {
    assert(m_bReleased == false);
    if (!IsValid()) {
        MOX_WARN("No shared memory behind builder[%s].", m_strShmName.c_str());
        return nullptr;
    }
    int ret = fseek(m_pStream.get(), MOX_DATABLOCK_HEADER_SIZE, SEEK_SET);
    assert(ret == 0);
    (void)ret;
    return m_pStream.get();
}

bool CCacheBuilder::Build(int nLen, int nStartIndex, int nEndIndex, int nTotalCount,
                          std::vector<mox_data_group_s>& groups, std::vector<mox_data_length_s>& lengths) {
    assert(m_bReleased == false);
    const int64_t nItemCount = static_cast<int64_t>(nEndIndex) - nStartIndex + 1;
    assert(nItemCount == static_cast<int64_t>(lengths.size()));
    m_bBuilt = false;
    if (!IsValid()) {
        MOX_WARN("No shared memory behind builder[%s].", m_strShmName.c_str());
        return false;
    }
    if (nLen < 0 || nLen > MOX_SHM_OBJECT_MAX_SIZE) {
        MOX_WARN("Bad nLen[%d] for [%s].", nLen, m_strShmName.c_str());
        return false;
    }
    // Items 0 .. n-2 must end inside the nLen bytes; the last one runs to the
    // padding whatever its length says.
    int64_t nOffset = MOX_DATABLOCK_HEADER_SIZE;
    for (int64_t k = 0; k + 1 < nItemCount; ++k) {
        nOffset += lengths[k].nLength;
        if (lengths[k].nLength < 0 || nOffset > MOX_DATABLOCK_HEADER_SIZE + static_cast<int64_t>(nLen)) {
            MOX_WARN("Item[%lld] length[%d] does not fit nLen[%d] of [%s].", static_cast<long long>(k),
                     lengths[k].nLength, nLen, m_strShmName.c_str());
            return false;
        }
    }
    const int64_t nAlignedLen = m_AlignTo4ByteBoundary(nLen);
    const int64_t nGroupOffset = MOX_DATABLOCK_HEADER_SIZE + nAlignedLen;
    const int64_t nLengthOffset = nGroupOffset + 8 * static_cast<int64_t>(groups.size());
    const int64_t nSize = nLengthOffset + 4 * nItemCount;
    if (nSize > MOX_SHM_OBJECT_MAX_SIZE) {
        MOX_WARN("Block[%s] would be too large[%lld].", m_strShmName.c_str(), static_cast<long long>(nSize));
        return false;
    }
    m_nSize = static_cast<int>(nSize);
    MOX_DEBUG("m_nSize[%d].", m_nSize);

    // The producer's writes may still sit in the stream's buffer.
    if (fflush(m_pStream.get()) != 0) {
        MOX_WARN("fflush of [%s] failed: %s.", m_strShmName.c_str(), strerror(errno));
        return false;
    }
    const int fd = fileno(m_pStream.get());
    if (!mox_shm::SizeWithMemory(fd, m_nSize)) {
        MOX_WARN("No shared memory for [%s] of [%d] bytes: %s.", m_strShmName.c_str(), m_nSize, strerror(errno));
        return false;
    }
    mox_shm::CShmMapping mapping(fd, static_cast<size_t>(m_nSize));
    if (!mapping.IsMapped()) {
        MOX_WARN("mmap of [%s] failed: %s.", m_strShmName.c_str(), strerror(errno));
        return false;
    }
    char* pAddr = mapping.Get();
    mox_shm::PutInt32(pAddr, 0, static_cast<int32_t>(nGroupOffset));
    mox_shm::PutInt32(pAddr, 4, static_cast<int32_t>(nLengthOffset));
    mox_shm::PutInt32(pAddr, 8, nStartIndex);
    mox_shm::PutInt32(pAddr, 12, nEndIndex);
    mox_shm::PutInt32(pAddr, 16, nTotalCount);
    mox_shm::PutInt32(pAddr, 20, static_cast<int32_t>(groups.size()));
    mox_shm::PutInt32(pAddr, 24, m_nSize);
    if (nLen % 4 != 0) {
        int nAligned = static_cast<int>(nAlignedLen) - nLen;
        assert(nAligned >= 0 && nAligned < 4);
        memset(pAddr + MOX_DATABLOCK_HEADER_SIZE + nLen, 0, static_cast<size_t>(nAligned));
        MOX_DEBUG("Init aligned [%d]charactor with ", nAligned);
    }
    if (!groups.empty()) memcpy(pAddr + nGroupOffset, groups.data(), 8 * groups.size());
    if (nItemCount > 0) {
        int32_t nEntry = MOX_DATABLOCK_HEADER_SIZE;
        mox_shm::PutInt32(pAddr, static_cast<size_t>(nLengthOffset), nEntry);
        for (int64_t k = 0; k + 1 < nItemCount; ++k) {
            nEntry += lengths[k].nLength;
            mox_shm::PutInt32(pAddr, static_cast<size_t>(nLengthOffset + 4 * (k + 1)), nEntry);
        }
    }
    m_bBuilt = true;
    return true;
}

std::unique_ptr<CCacheBlock> CCacheBuilder::Release() {
    assert(m_bReleased == false);
    assert(m_bBuilt);
    m_bReleased = true;
    return std::unique_ptr<CCacheBlock>(new CCacheBlock(m_strShmName, m_nSize, m_eType));
}

void CCacheBuilder::Free() {
    assert(m_bReleased == false);
    m_bReleased = true;
    if (!IsValid()) return;  // no object was created under the name
    MOX_DEBUG("unlink share memory[%s].", m_strShmName.c_str());
    if (shm_unlink(m_strShmName.c_str()) != 0) MOX_WARN("shm_unlink failed.");
}

bool CCacheBuilder::GetCacheId(const std::string& strShmName, int& nId) {
    nId = -1;
    size_t nPos = strShmName.rfind('_');
    nPos = nPos == std::string::npos ? 0 : nPos + 1;
    if (nPos >= strShmName.size() || strShmName.size() - nPos > 9) {
        MOX_WARN("No cache id in name[%s].", strShmName.c_str());
        return false;
    }
    int nValue = 0;
    for (size_t i = nPos; i < strShmName.size(); ++i) {
        char c = strShmName[i];
        if (c < '0' || c > '9') {
            MOX_WARN("No cache id in name[%s].", strShmName.c_str());
            return false;
        }
        nValue = nValue * 10 + (c - '0');  // at most 9 digits: no overflow
    }
    nId = nValue;
    return true;
}

int CCacheBuilder::m_AlignTo4ByteBoundary(int n) {
    int nRest = n % 4;
    if (nRest == 0) return n;
    return nRest > 0 ? n + (4 - nRest) : n - nRest;
}
