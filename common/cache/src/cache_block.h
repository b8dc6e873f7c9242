// CCacheBlock: the cache pool's record of one finished data block. Whoever
// holds the record owns the shared-memory object: destroying the record
// unlinks it (readers that already loaded it keep their copy). Made by
// CCacheBuilder::Release and owned by CCachePool from then on.
#pragma once

#include <string>

#include <mox/mox_cache_defines.h>

class CCacheBlock {
public:
    // strName must be a name made by CCacheBuilder ("mox_datablock_T_N").
    CCacheBlock(std::string strName, int nSize, mox_cache_block_type eType);
    ~CCacheBlock();
    CCacheBlock(const CCacheBlock&) = delete;
    CCacheBlock& operator=(const CCacheBlock&) = delete;

    const std::string& GetName() const { return m_strName; }
    int GetSize() const { return m_nSize; }
    mox_cache_block_type GetType() const { return m_eType; }
    int GetCacheId() const { return m_nCacheId; }

private:
    std::string m_strName;
    int m_nSize;
    mox_cache_block_type m_eType;
    int m_nCacheId;
};
