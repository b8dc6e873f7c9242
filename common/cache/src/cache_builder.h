// CCacheBuilder: writes one data block ("mox_datablock_T_N", layout in
// <mox/cache_reader.h>) into POSIX shared memory.
//
// Used by one thread (a request-list worker): construct (the object is
// created empty under the next free name), let the producer write the item
// strings through GetStream(), then Build() and Release() the block to the
// cache pool, or Free() it when the producer failed. Every builder must be
// released or freed before it is destroyed (asserted).
//
// Creating the object can fail (shared memory exhausted, foreign objects
// under every name tried): the builder is then not valid, GetStream()
// returns NULL and Build() false, and the caller must Free() it. Build() also
// refuses producer output that does not describe a well-formed block.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <mox/mox_cache_defines.h>

#include "cache_block.h"
#include "shm_mapping.h"

class CCacheBuilder {
public:
    explicit CCacheBuilder(mox_cache_block_type eType);
    ~CCacheBuilder();
    CCacheBuilder(const CCacheBuilder&) = delete;
    CCacheBuilder& operator=(const CCacheBuilder&) = delete;

    // True when the shared-memory object was created.
    bool IsValid() const { return m_pStream != nullptr; }
    // True after a successful Build().
    bool IsBuilt() const { return m_bBuilt; }
    const std::string& GetName() const { return m_strShmName; }
    mox_cache_block_type GetType() const { return m_eType; }

    // The stream positioned at the item data (offset 28); NULL when the builder
    // is not valid. The builder flushes it before Build() maps the object.
    FILE* GetStream();
    // Lays out the block around the nLen item bytes written through the
    // stream: item count = nEndIndex - nStartIndex + 1 must equal
    // lengths.size() (asserted). False, with a warning, when the builder is not
    // valid, nLen is negative, the item lengths do not fit in nLen bytes, the
    // block would exceed MOX_SHM_OBJECT_MAX_SIZE, or the object cannot be
    // sized or mapped.
    bool Build(int nLen, int nStartIndex, int nEndIndex, int nTotalCount, std::vector<mox_data_group_s>& groups,
               std::vector<mox_data_length_s>& lengths);
    // Hands the built block over; the object stays. Requires IsBuilt().
    std::unique_ptr<CCacheBlock> Release();
    // Unlinks the object (producer failed or returned nothing).
    void Free();

    // The cache id of a block name: the decimal number after its last "_".
    // False (nId = -1) for a name without a number there, as a name that a
    // client wrote into a result list may be.
    static bool GetCacheId(const std::string& strShmName, int& nId);
    // n itself when a multiple of 4, else the next multiple of 4 above it.
    static int m_AlignTo4ByteBoundary(int n);

private:
    struct SStreamCloser {
        void operator()(FILE* pStream) const;
    };
    // Names "mox_datablock_T_N" (see CShmNamer: never a name someone else holds).
    static mox_shm::CShmNamer& m_Namer();

    bool m_bReleased = false;
    bool m_bBuilt = false;
    std::string m_strShmName;
    mox_cache_block_type m_eType;
    std::unique_ptr<FILE, SStreamCloser> m_pStream;  // owns the descriptor too
    int m_nSize = 0;
};
