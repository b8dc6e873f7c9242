#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_request_list_command.h"

#include "mox_thread_annotations.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <set>

#include <mox/cache_reader.h>
#include <mox/mox_log.h>
#include <mox/mox_singleton.h>
#include <mox_unique_fd.h>

#include "cache_builder.h"
#include "cache_pool.h"
#include "mox_bus_text.h"
#include "mox_resultlist_builder.h"
#include "mox_source_manager.h"
#include "mox_worker_pool.h"

namespace {

// Bound on the group table a source may hand over.
constexpr size_t kMaxGroups = 1u << 16;

// Frees a data-block builder that was not handed to the pool, on every path.
class BuilderGuard {
public:
    explicit BuilderGuard(CCacheBuilder& builder) : m_builder(builder) {}
    ~BuilderGuard() {
        if (!m_bHandedOver) m_builder.Free();
    }
    BuilderGuard(const BuilderGuard&) = delete;
    BuilderGuard& operator=(const BuilderGuard&) = delete;
    void HandOver() { m_bHandedOver = true; }

private:
    CCacheBuilder& m_builder;
    bool m_bHandedOver = false;
};

// What a source answered is usable by the data-block builder: one length per
// item, lengths inside the bytes it wrote, a range a block can describe.
bool CheckSourceAnswer(const std::string& strSource, long long llWritten, int nLen, int nStartIndex, int nEndIndex,
                       int nTotalCount, const std::vector<mox_data_group_s>& groups,
                       const std::vector<mox_data_length_s>& lengths) {
    const int64_t nItemCount = static_cast<int64_t>(nEndIndex) - nStartIndex + 1;
    if (nStartIndex < 0 || nItemCount < 0 || nTotalCount < nItemCount) {
        MOX_WARN("Source[%s] answered a bad range: start[%d] end[%d] total[%d].", strSource.c_str(), nStartIndex,
                 nEndIndex, nTotalCount);
        return false;
    }
    if (nItemCount != static_cast<int64_t>(lengths.size())) {
        MOX_WARN("Source[%s] answered %lld items but %zu lengths.", strSource.c_str(),
                 static_cast<long long>(nItemCount), lengths.size());
        return false;
    }
    if (nLen < 0 || nLen != llWritten) {
        MOX_WARN("Source[%s] claims %d bytes but wrote %lld.", strSource.c_str(), nLen, llWritten);
        return false;
    }
    int64_t nSum = 0;
    for (const mox_data_length_s& length : lengths) {
        if (length.nLength < 0) {
            MOX_WARN("Source[%s] answered a negative item length.", strSource.c_str());
            return false;
        }
        nSum += length.nLength;
    }
    if (nSum > nLen) {
        MOX_WARN("Source[%s] item lengths (%lld bytes) overrun the %d bytes written.", strSource.c_str(),
                 static_cast<long long>(nSum), nLen);
        return false;
    }
    if (groups.size() > kMaxGroups) {
        MOX_WARN("Source[%s] answered %zu groups.", strSource.c_str(), groups.size());
        return false;
    }
    return true;
}

// Collects the absolute paths a query names (string members starting with
// "/", at any depth), normalised: storage events and the engine's writes
// forget the answers whose paths they touch.
void CollectPaths(const Json::Value& value, int nDepth, std::vector<std::string>& paths) {
    const int kMaxDepth = 8;
    const size_t kMaxPaths = 16;
    if (nDepth > kMaxDepth || paths.size() >= kMaxPaths) return;
    if (value.isString()) {
        const char* szBegin = nullptr;
        const char* szEnd = nullptr;
        if (value.getString(&szBegin, &szEnd) && szBegin != szEnd && *szBegin == '/') {
            std::string strPath = CCachePool::NormalisePath(std::string(szBegin, szEnd));
            if (!strPath.empty()) paths.push_back(std::move(strPath));
        }
    } else if (value.isArray() || value.isObject()) {
        for (const Json::Value& member : value) CollectPaths(member, nDepth + 1, paths);
    }
}

std::vector<std::string> QueryPaths(const std::string& strQueryCmd) {
    std::vector<std::string> paths;
    CJsonValue query(strQueryCmd);
    if (query.IsValid()) CollectPaths(query.Root(), 0, paths);
    return paths;
}

// The data blocks being written by source threads now (a stuck source may
// never let go of its own).
struct SBlocksInProgress {
    mox::Mutex mutex;
    std::set<std::string> names GUARDED_BY(mutex);
};

SBlocksInProgress& BlocksInProgress() {
    // Never destroyed: a stuck source thread may still use it at exit.
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory)
    static SBlocksInProgress* s_pBlocks = new SBlocksInProgress();
    return *s_pBlocks;
}

// Registers one GetData call (its source and its block) for its lifetime.
class CInProgressCall {
public:
    CInProgressCall(const std::string& strSource, std::string strBlock)
        : m_call(strSource), m_strBlock(std::move(strBlock)) {
        SBlocksInProgress& blocks = BlocksInProgress();
        mox::MutexLock lock(blocks.mutex);
        blocks.names.insert(m_strBlock);
    }
    ~CInProgressCall() {
        SBlocksInProgress& blocks = BlocksInProgress();
        mox::MutexLock lock(blocks.mutex);
        blocks.names.erase(m_strBlock);
    }
    CInProgressCall(const CInProgressCall&) = delete;
    CInProgressCall& operator=(const CInProgressCall&) = delete;

private:
    CMOXSourceCall m_call;
    std::string m_strBlock;
};

// An answer above this size is served as several data blocks, each within
// it, so that no block comes near MOX_SHM_OBJECT_MAX_SIZE and a reader maps
// (and copies) one part at a time.
constexpr int64_t kMaxBlockBytes = 16 * 1024 * 1024;

// A sorted list of more items than this read and keyed some ten megabytes.
constexpr int64_t kTrimAfterItems = 50000;

int64_t BlockBytes(int64_t nItemBytes, size_t nGroups, size_t nItems) {
    return MOX_DATABLOCK_HEADER_SIZE + nItemBytes + 3 + 8 * static_cast<int64_t>(nGroups) +
           4 * static_cast<int64_t>(nItems);
}

// Copies items [nFirst, nLast] of the answer written at the stream's item
// data (fd, offset nOffset from the item data) into a block of its own.
bool CopyPart(int fd, int64_t nOffset, int64_t nBytes, CCacheBuilder& part) {
    FILE* pOut = part.GetStream();
    if (pOut == nullptr) return false;
    std::vector<char> buffer(static_cast<size_t>(std::min<int64_t>(nBytes, 1 << 20)));
    while (nBytes > 0) {
        const size_t nChunk = static_cast<size_t>(std::min<int64_t>(nBytes, static_cast<int64_t>(buffer.size())));
        const ssize_t nRead = pread(fd, buffer.data(), nChunk, MOX_DATABLOCK_HEADER_SIZE + nOffset);
        if (nRead <= 0 || fwrite(buffer.data(), 1, static_cast<size_t>(nRead), pOut) != static_cast<size_t>(nRead)) {
            MOX_WARN("Can not copy a part of block[%s]: %s.", part.GetName().c_str(), strerror(errno));
            return false;
        }
        nOffset += nRead;
        nBytes -= nRead;
    }
    return true;
}

// The blocks of each result list built and not dropped yet, so that a drop
// lets go of them without opening the list again. Bounded: a list beyond
// kMaxRemembered is not remembered and its drop reads the list instead.
struct SListBlocks {
    static constexpr size_t kMaxRemembered = 65536;
    mox::Mutex mutex;
    std::map<std::string, std::vector<int>> lists GUARDED_BY(mutex);
};

SListBlocks& ListBlocks() {
    static SListBlocks* s_pLists = new SListBlocks();  // NOLINT(cppcoreguidelines-owning-memory): never destroyed
    return *s_pLists;
}

int32_t LittleInt32(const char* pData, size_t nOffset) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(pData) + nOffset;
    return static_cast<int32_t>(static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                                static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24);
}

// What a result list needs of a data block: its range and its groups, read
// in place (a reader would copy every item).
struct SBlockHead {
    std::string strName;
    int nStart = 0;
    int nEnd = -1;
    int nTotal = 0;
    std::vector<mox_data_group_s> groups;
    int ItemCount() const { return nEnd - nStart + 1; }
};

// Reads the header and group table of a block this engine built; checked as
// a reader checks them. False (warning) when it can not be read.
bool ReadBlockHead(const std::string& strName, SBlockHead& head) {
    mox_util::UniqueFd fd(shm_open(strName.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC, 0));
    struct stat st;
    char header[MOX_DATABLOCK_HEADER_SIZE];
    if (!fd.IsValid() || fstat(fd.Get(), &st) != 0 ||
        pread(fd.Get(), header, sizeof(header), 0) != static_cast<ssize_t>(sizeof(header))) {
        MOX_WARN("Can not read the header of block[%s]: %s.", strName.c_str(), strerror(errno));
        return false;
    }
    const int32_t nGroupOffset = LittleInt32(header, 0);
    const int32_t nLengthOffset = LittleInt32(header, 4);
    head.nStart = LittleInt32(header, 8);
    head.nEnd = LittleInt32(header, 12);
    head.nTotal = LittleInt32(header, 16);
    const int32_t nGroups = LittleInt32(header, 20);
    const int32_t nSize = LittleInt32(header, 24);
    const int64_t nItems = static_cast<int64_t>(head.nEnd) - head.nStart + 1;
    const int64_t nGroupEnd = static_cast<int64_t>(nGroupOffset) + 8 * static_cast<int64_t>(nGroups);
    if (nItems < 0 || nGroups < 0 || nGroupOffset < MOX_DATABLOCK_HEADER_SIZE || nLengthOffset != nGroupEnd ||
        nLengthOffset + 4 * nItems > nSize || nSize > st.st_size) {
        MOX_WARN("Data block[%s] has a bad header.", strName.c_str());
        return false;
    }
    head.groups.resize(static_cast<size_t>(nGroups));
    const size_t nBytes = 8 * head.groups.size();
    if (nBytes > 0 && pread(fd.Get(), head.groups.data(), nBytes, nGroupOffset) != static_cast<ssize_t>(nBytes)) {
        MOX_WARN("Can not read the groups of block[%s].", strName.c_str());
        return false;
    }
    head.strName = strName;
    return true;
}

}  // namespace

void CMOXRequestListCommand::UnlinkBlocksInProgress() {
    SBlocksInProgress& blocks = BlocksInProgress();
    mox::MutexLock lock(blocks.mutex);
    for (const std::string& strBlock : blocks.names) {
        MOX_WARN("Data block[%s] still being built at exit: unlinked.", strBlock.c_str());
        shm_unlink(strBlock.c_str());
    }
    blocks.names.clear();
}

bool CMOXRequestListCommand::TakeBlocksOfList(const std::string& strList, std::vector<int>& cacheIds) {
    SListBlocks& lists = ListBlocks();
    mox::MutexLock lock(lists.mutex);
    auto found = lists.lists.find(strList);
    if (found == lists.lists.end()) return false;
    cacheIds = std::move(found->second);
    lists.lists.erase(found);
    return true;
}

std::vector<std::string> CMOXRequestListCommand::PathsOfDocument(const std::string& strDocument) {
    return QueryPaths(strDocument);
}

bool CMOXRequestListCommand::m_AskValidity(IWebSource* pSource, const std::string& strSource,
                                           const std::string& strQueryCmd, SCacheValidity& validity, bool& bOrdered) {
    bOrdered = false;
    // ABI-1 sources have no slot for the question: their answers are kept.
    if (CMOXSingleton<CMOXSourceMgr>::Get()->GetSourceAbi(strSource) < 2) return true;
    mox_answer_validity_e eValidity = MOX_ANSWER_NO_KEEP;
    CMOXSourceCall call(strSource);
    try {
        eValidity = pSource->GetAnswerValidity(strQueryCmd, validity.strStamp);
    } catch (...) {
        MOX_WARN("Source[%s] threw from GetAnswerValidity: its answer is not kept.", strSource.c_str());
        validity.strStamp.clear();
        return false;
    }
    // The order flag rides along with any validity.
    const int nValidity = static_cast<int>(eValidity);
    bOrdered = (nValidity & MOX_ANSWER_ORDERED) != 0;
    eValidity = static_cast<mox_answer_validity_e>(nValidity & ~MOX_ANSWER_ORDERED);
    // Kept with every cached answer (up to 8192 of them): short.
    const size_t kMaxStampBytes = 256;
    switch (eValidity) {
        case MOX_ANSWER_KEEP: validity.strStamp.clear(); return true;
        case MOX_ANSWER_STAMPED:
            if (!validity.strStamp.empty() && validity.strStamp.size() <= kMaxStampBytes) return true;
            if (!validity.strStamp.empty())
                MOX_WARN("Source[%s] gave a stamp of %zu bytes: its answer is not kept.", strSource.c_str(),
                         validity.strStamp.size());
            validity.strStamp.clear();
            return false;  // nothing to compare (the folder can not be read, say): ask afresh
        case MOX_ANSWER_NO_KEEP: validity.strStamp.clear(); return false;
        default:
            MOX_WARN("Source[%s] answered validity %d: its answer is not kept.", strSource.c_str(),
                     static_cast<int>(eValidity));
            validity.strStamp.clear();
            return false;
    }
}

CMOXRequestListCommand::CMOXRequestListCommand(MOXCommandCallback fnDone) : m_fnDone(std::move(fnDone)) {}

CMOXRequestListCommand::~CMOXRequestListCommand() = default;

void CMOXRequestListCommand::Execute(std::string strCommand) {
    MOX_TRACE("In CMOXRequestListCommand::Execute().");
    // A pool thread, not one of its own: starting a thread per request cost
    // more than answering a cached one.
    if (!CMOXWorkerPool::Get().Submit([this, strCommand = std::move(strCommand)]() mutable {
            GetRequestListThreadProc(std::move(strCommand));
        })) {
        // Saturated: answer on the caller's thread so that the job ends.
        m_fnDone(std::string(), MOX_ERROR_GENERIC);
    }
}

void CMOXRequestListCommand::GetRequestListThreadProc(const std::string& strCommand) {
    // The callback deletes this command: keep what is needed after it.
    MOXCommandCallback fnDone = m_fnDone;
    std::string strShmName;
    mox_error_code_e eError = MOX_ERROR_GENERIC;
    try {
        strShmName = m_RunRequest(strCommand, eError);
    } catch (...) {
        MOX_WARN("Request thread failed with an exception.");
        strShmName.clear();
        eError = MOX_ERROR_GENERIC;
    }
    try {
        fnDone(strShmName, eError);
    } catch (...) {
        MOX_WARN("Completion callback failed with an exception.");
    }
    MOX_DEBUG("Main thread working done.");
}

bool CMOXRequestListCommand::m_GetSources(const CJsonValue& doc, std::vector<std::string>& sources,
                                          mox_error_code_e& eError) {
    const Json::Value& member = doc.Root().get("mox_source", Json::Value());
    if (member.isNull() || (member.isArray() && member.empty())) {
        MOX_WARN("There is no source.");
        eError = MOX_ERROR_NO_SUCH_SOURCE;
        return false;
    }
    if (!member.isArray()) {
        MOX_WARN("\"mox_source\" is not an array of strings.");
        eError = MOX_ERROR_INVALID_PARAMETER;
        return false;
    }
    std::set<std::string> seen;
    for (const Json::Value& item : member) {
        if (!item.isString()) {
            MOX_WARN("\"mox_source\" is not an array of strings.");
            eError = MOX_ERROR_INVALID_PARAMETER;
            return false;
        }
        std::string strSource = item.asString();
        // A repeated name shares its block slot: ask its source once.
        if (!seen.insert(strSource).second) continue;
        if (seen.size() > kMaxSources) {
            MOX_WARN("Too many sources in one request (more than %zu).", kMaxSources);
            eError = MOX_ERROR_INVALID_PARAMETER;
            return false;
        }
        sources.push_back(std::move(strSource));
    }
    return true;
}

std::string CMOXRequestListCommand::m_RunRequest(const std::string& strCommand, mox_error_code_e& eError) {
    MOX_TRACE("In CMOXRequestListCommand::GetRequestListThreadProc().");
    CJsonValue doc(strCommand);
    if (!doc.IsValid()) {
        MOX_WARN("The list command is not a JSON object.");
        eError = MOX_ERROR_INVALID_PARAMETER;
        return std::string();
    }
    std::vector<std::string> sources;
    if (!m_GetSources(doc, sources, eError)) return std::string();

    doc.Remove("mox_source");
    // One slot per source, created before any thread starts: the threads
    // write only their own slot, the map itself never changes under them.
    BlockMap blocks;
    for (const std::string& strSource : sources) blocks[strSource];

    // One source (the common case) runs on this thread; several share the
    // worker pool with this thread, which never waits for a queued one.
    std::vector<std::function<void()>> tasks;
    for (const std::string& strSource : sources) {
        CJsonValue query(doc);
        query.Set("mox_source", strSource);
        std::string strQueryCmd = query.ToString();
        MOX_DEBUG("Request list from source[%s], strQueryCmd[%s].", strSource.c_str(),
                  mox_bus::ForLog(strQueryCmd).c_str());
        tasks.emplace_back([this, strQueryCmd = std::move(strQueryCmd), strSource, pSlot = &blocks[strSource]]() {
            GetListFromSourceProc(strQueryCmd, strSource, pSlot);
        });
    }
    if (tasks.size() == 1)
        tasks.front()();
    else
        CMOXWorkerPool::Get().RunTogether(std::move(tasks));
    MOX_DEBUG("All subthread working done.");

    if (m_eError != MOX_ERROR_NONE) {
        MOX_DEBUG("request list fail.");
        m_ReleaseBlocks(blocks);
        eError = static_cast<mox_error_code_e>(m_eError.load());
        return std::string();
    }
    MOX_DEBUG("Request list success.begin to build resultList.");
    eError = MOX_ERROR_NONE;
    std::string strShmName = m_GenerateResultList(doc, blocks, eError);
    MOX_DEBUG("End to build resultList.");
    // Without a list nobody will ever drop the blocks: let go of them now
    // (cached blocks stay in the pool for later requests).
    if (strShmName.empty()) {
        m_ReleaseBlocks(blocks);
        return strShmName;
    }
    std::vector<int> cacheIds;
    for (const auto& entry : blocks) {
        for (const std::string& strBlock : entry.second) {
            int nCacheId = -1;
            if (CCacheBuilder::GetCacheId(strBlock, nCacheId)) cacheIds.push_back(nCacheId);
        }
    }
    SListBlocks& lists = ListBlocks();
    mox::MutexLock lock(lists.mutex);
    if (lists.lists.size() < SListBlocks::kMaxRemembered) lists.lists[strShmName] = std::move(cacheIds);
    return strShmName;
}

void CMOXRequestListCommand::GetListFromSourceProc(std::string strQueryCmd, const std::string& strSource,
                                                   std::vector<std::string>* pNames) {
    try {
        MOX_TRACE("In CMOXRequestListCommand::GetListFromSourceProc.");
        IWebSource* pSource = CMOXSingleton<CMOXSourceMgr>::Get()->GetSource(strSource);
        if (pSource == nullptr) {
            MOX_WARN("Can not get source[%s].", strSource.c_str());
            m_eError = MOX_ERROR_NO_SUCH_SOURCE;
            return;
        }
        CCachePool* pPool = CMOXSingleton<CCachePool>::Get();
        SCacheValidity validity;
        // Read before the source is asked: an invalidation from now on keeps
        // this answer out of the cache.
        validity.nGeneration = pPool->GetGeneration();
        validity.paths = QueryPaths(strQueryCmd);
        bool bOrdered = false;
        const bool bKeep = m_AskValidity(pSource, strSource, strQueryCmd, validity, bOrdered);
        if (bOrdered) m_nOrderedSources.fetch_add(1);
        if (!bKeep) {
            validity.bKeep = false;
        } else {
            std::string strHit;
            if (pPool->HitCache(strQueryCmd, strHit, validity.strStamp)) {
                MOX_DEBUG("Hit success, get data from cache.");
                pNames->push_back(std::move(strHit));
                return;
            }
        }
        MOX_DEBUG("Hit fail, request data from network.");
        CCacheBuilder builder(MOX_CACHE_BLOCK_LRU);
        BuilderGuard guard(builder);
        FILE* pStream = builder.GetStream();
        if (pStream == nullptr) {
            m_eError = MOX_ERROR_GENERIC;
            return;
        }
        int nLen = 0, nStartIndex = 0, nEndIndex = -1, nTotalCount = 0;
        std::vector<mox_data_group_s> groups;
        std::vector<mox_data_length_s> lengths;
        mox_error_code_e eRet = MOX_ERROR_GENERIC;
        MOX_DEBUG("Begin: pSource->GetData[%s].", mox_bus::ForLog(strQueryCmd).c_str());
        CInProgressCall call(strSource, builder.GetName());
        try {
            eRet = pSource->GetData(m_bStop, strQueryCmd, pStream, nLen, nStartIndex, nEndIndex, nTotalCount, groups,
                                    lengths);
        } catch (const std::exception& e) {
            MOX_WARN("Source[%s] threw from GetData: %.256s.", strSource.c_str(), e.what());
            eRet = MOX_ERROR_GENERIC;
        } catch (...) {
            MOX_WARN("Source[%s] threw from GetData.", strSource.c_str());
            eRet = MOX_ERROR_GENERIC;
        }
        MOX_DEBUG("End: pSource->GetData");
        if (eRet != MOX_ERROR_NONE) {
            m_eError = eRet;
            MOX_DEBUG("GetData fail[%d].", eRet);
            return;
        }
        fflush(pStream);
        const long long llWritten = static_cast<long long>(ftell(pStream)) - MOX_DATABLOCK_HEADER_SIZE;
        if (!CheckSourceAnswer(strSource, llWritten, nLen, nStartIndex, nEndIndex, nTotalCount, groups, lengths)) {
            m_eError = MOX_ERROR_SOURCE_CONTRACT;
            return;
        }
        if (nTotalCount == 0 || lengths.empty()) {
            MOX_WARN("GetData return empty.");
            m_eError = MOX_ERROR_FAILED_RESULT;
            return;
        }
        MOX_DEBUG("GetData success,begin to build resultBlock.");
        if (BlockBytes(nLen, groups.size(), lengths.size()) > kMaxBlockBytes) {
            // Too big for one block (and for the cache): served in parts.
            if (!m_ServeInParts(builder, nLen, nStartIndex, nTotalCount, groups, lengths, *pNames)) {
                m_eError = MOX_ERROR_GENERIC;
            }
            return;  // the guard frees the whole answer's object
        }
        if (!builder.Build(nLen, nStartIndex, nEndIndex, nTotalCount, groups, lengths)) {
            m_eError = MOX_ERROR_GENERIC;
            return;
        }
        MOX_DEBUG("End to build resultBlock.");
        guard.HandOver();  // the pool releases or frees the builder
        std::string strName;
        if (pPool->Add(strQueryCmd, builder, strName, validity))
            pNames->push_back(std::move(strName));
        else
            m_eError = MOX_ERROR_GENERIC;
        MOX_DEBUG("Sub thread working done.");
    } catch (...) {
        MOX_WARN("Source thread of [%s] failed with an exception.", strSource.c_str());
        m_eError = MOX_ERROR_GENERIC;
    }
}

std::string CMOXRequestListCommand::m_GenerateResultList(CJsonValue& doc, BlockMap& blocks, mox_error_code_e& eError) {
    MOX_DEBUG("Enter...");
    CMOXSortFunction fn;
    bool bSort = m_GetComandKeyTypeInfo(doc, fn);
    // One source that ordered its answer itself (through an index, say):
    // sorting it again would only cost, and could reorder equal keys.
    if (bSort && blocks.size() == 1 && m_nOrderedSources.load() == 1) {
        MOX_DEBUG("Answer of source[%s] is in the asked order already.", blocks.begin()->first.c_str());
        bSort = false;
    }
    // Only the headers are read here; a sort reads (copies) one block at a
    // time while it takes the keys.
    std::vector<SBlockHead> heads;
    int nStart = 0, nEnd = -1, nTotal = 0, nGroups = 0;
    int64_t nItems = 0;
    for (const auto& entry : blocks) {
        // A source's answer is one block, or several consecutive parts.
        for (size_t nPart = 0; nPart < entry.second.size(); ++nPart) {
            const std::string& strBlock = entry.second[nPart];
            SBlockHead head;
            ReadBlockHead(strBlock, head);
            if (head.strName.empty()) {
                MOX_WARN("Can not read block[%s] of source[%s].", strBlock.c_str(), entry.first.c_str());
                eError = MOX_ERROR_GENERIC;
                return std::string();
            }
            if (nPart == 0) nStart = head.nStart;
            nGroups = static_cast<int>(head.groups.size());
            nItems += head.ItemCount();
            if (blocks.size() < 2) {
                nEnd = head.nEnd;
                nTotal = head.nTotal;
            }
            heads.push_back(std::move(head));
        }
    }
    if (blocks.size() >= 2) {
        if (nItems > INT32_MAX) nItems = INT32_MAX;
        nEnd = static_cast<int>(nItems) - 1;
        nTotal = static_cast<int>(nItems);
    }
    int nSection = -1;
    if (doc.IsInt("mox_sectionindex")) doc.Get("mox_sectionindex", nSection);
    MOX_DEBUG("Get item[section = %d][start = %d][edn = %d][total = %d][group = %d], [read size = %d]", nSection,
              nStart, nEnd, nTotal, nGroups, static_cast<int>(heads.size()));
    // The list's range must hold exactly the items added below; with several
    // sources whose windows do not start at 0 it does not.
    if (heads.empty() || static_cast<int64_t>(nEnd) - nStart + 1 != nItems) {
        MOX_WARN("Result range [%d..%d] can not hold %lld items.", nStart, nEnd, static_cast<long long>(nItems));
        eError = MOX_ERROR_GENERIC;
        return std::string();
    }
    CResultListBuilder builder(nSection, nStart, nEnd, nTotal, nGroups, static_cast<int>(heads.size()));
    if (!builder.IsValid()) {
        eError = MOX_ERROR_GENERIC;
        return std::string();
    }
    for (const SBlockHead& head : heads)
        for (int j = 0; j < head.ItemCount(); ++j) builder.AddItem(head.strName, j);
    for (const SBlockHead& head : heads)
        for (int k = 0; k < static_cast<int>(head.groups.size()) && k < nGroups; ++k)
            builder.AddGroup(k, head.groups[k].nStartIndex, head.groups[k].nCount);
    if (bSort) {
        std::vector<std::string> names;  // block slot order, as added above
        names.reserve(heads.size());
        for (const SBlockHead& head : heads) names.push_back(head.strName);
        fn.blockNames = &names;
        MOX_DEBUG("comparison[%d], key[%s].", fn.comparison, fn.key.c_str());
        builder.SortItems(fn);
    }
    // The keys of a big answer are gone: give their pages back now rather
    // than keep them as free heap for the daemon's lifetime.
    if (bSort && nItems > kTrimAfterItems) malloc_trim(0);
    std::string strShmName = builder.Release();
    MOX_DEBUG("release resultlist[%s].", strShmName.c_str());
    MOX_DEBUG("release resultlist end");
    return strShmName;
}

bool CMOXRequestListCommand::m_GetComandKeyTypeInfo(CJsonValue& doc, CMOXSortFunction& fn) {
    int nComparison = 0;
    if (!doc.IsInt("SortedType") || !doc.IsString("SortedKey")) {
        // A list asked without sorting is a normal list: this line is an
        // info line then, not the warning it once was, which is kept for a
        // half-given or malformed sort.
        if (doc.Has("SortedType") || doc.Has("SortedKey"))
            MOX_WARN("Can not get sort info.");
        else
            MOX_INFO("Can not get sort info.");
        return false;
    }
    doc.Get("SortedType", nComparison);
    doc.Get("SortedKey", fn.key);
    fn.comparison = static_cast<MOX_COMPARETYPE>(nComparison);
    m_getSortValueType(fn.key, fn.keyType);
    return true;
}

void CMOXRequestListCommand::m_getSortValueType(std::string& strKey, MOX_VALUETYPE& eType) {
    // Item members of the shipped sources; the media library's too, so that
    // a list of several sources sorts by them.
    if (strKey == "FileName" || strKey == "Title" || strKey == "Artist" || strKey == "Album" || strKey == "Genre" ||
        strKey == "GroupName")
        eType = MOX_VALUE_STRING;
    else if (strKey == "FileSize" || strKey == "FileTime" || strKey == "DateTaken" || strKey == "TrackNumber" ||
             strKey == "Duration" || strKey == "Count")
        eType = MOX_VALUE_INT;
}

void CMOXRequestListCommand::m_ReleaseBlocks(const BlockMap& blocks) {
    for (const auto& entry : blocks) {
        for (const std::string& strBlock : entry.second) {
            int nCacheId = -1;
            if (CCacheBuilder::GetCacheId(strBlock, nCacheId)) CMOXSingleton<CCachePool>::Get()->Delete(nCacheId);
        }
    }
}

bool CMOXRequestListCommand::m_ServeInParts(CCacheBuilder& whole, int nLen, int nStartIndex, int nTotalCount,
                                            std::vector<mox_data_group_s>& groups,
                                            std::vector<mox_data_length_s>& lengths, std::vector<std::string>& names) {
    FILE* pWhole = whole.GetStream();
    if (pWhole == nullptr) return false;
    const int fd = fileno(pWhole);
    CCachePool* pPool = CMOXSingleton<CCachePool>::Get();
    SCacheValidity once;
    once.bKeep = false;  // one query maps to one block: parts answer this request only
    size_t nFirst = 0;
    int64_t nOffset = 0;
    while (nFirst < lengths.size()) {
        size_t nLast = nFirst;
        int64_t nBytes = lengths[nFirst].nLength;
        while (nLast + 1 < lengths.size() &&
               BlockBytes(nBytes + lengths[nLast + 1].nLength, groups.size(), nLast + 2 - nFirst) <= kMaxBlockBytes)
            nBytes += lengths[++nLast].nLength;
        // The answer's last item runs to the end of what was written.
        if (nLast + 1 == lengths.size()) nBytes = nLen - nOffset;
        std::vector<mox_data_length_s> partLengths(lengths.begin() + static_cast<std::ptrdiff_t>(nFirst),
                                                   lengths.begin() + static_cast<std::ptrdiff_t>(nLast) + 1);
        CCacheBuilder part(MOX_CACHE_BLOCK_LRU);
        BuilderGuard guard(part);
        if (!CopyPart(fd, nOffset, nBytes, part) ||
            !part.Build(static_cast<int>(nBytes), nStartIndex + static_cast<int>(nFirst),
                        nStartIndex + static_cast<int>(nLast), nTotalCount, groups, partLengths))
            return false;
        guard.HandOver();
        std::string strName;
        if (!pPool->Add(std::string(), part, strName, once)) return false;
        names.push_back(std::move(strName));
        nOffset += nBytes;
        nFirst = nLast + 1;
    }
    MOX_INFO("Answer of %zu items served in %zu parts.", lengths.size(), names.size());
    return true;
}
