#define MOX_LOG_TAG "MOX-CACHE"
#include "cache_block.h"

#include <sys/mman.h>

#include <mox/mox_log.h>

#include "cache_builder.h"

CCacheBlock::CCacheBlock(std::string strName, int nSize, mox_cache_block_type eType)
    : m_strName(std::move(strName)), m_nSize(nSize), m_eType(eType), m_nCacheId(-1) {
    // Our own builder made the name, so it always carries an id.
    bool bParsed = CCacheBuilder::GetCacheId(m_strName, m_nCacheId);
    assert(bParsed);
    (void)bParsed;
    MOX_DEBUG("strCacheId[%s], m_nCacheId[%d].", m_strName.substr(m_strName.rfind('_') + 1).c_str(), m_nCacheId);
}

CCacheBlock::~CCacheBlock() {
    MOX_DEBUG("unlink share memory[%s].", m_strName.c_str());
    if (shm_unlink(m_strName.c_str()) != 0) MOX_WARN("shm_unlink failed.");
}
