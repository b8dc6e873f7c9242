#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_request_list_command.h"

#include "mox_thread_annotations.h"

#include <sys/mman.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <set>

#include <boost/thread/thread.hpp>

#include <mox/cache_reader.h>
#include <mox/mox_log.h>
#include <mox/mox_singleton.h>

#include "cache_builder.h"
#include "cache_pool.h"
#include "mox_bus_text.h"
#include "mox_resultlist_builder.h"
#include "mox_source_manager.h"

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

std::vector<std::string> CMOXRequestListCommand::PathsOfDocument(const std::string& strDocument) {
    return QueryPaths(strDocument);
}

bool CMOXRequestListCommand::m_AskValidity(IWebSource* pSource, const std::string& strSource,
                                           const std::string& strQueryCmd, SCacheValidity& validity) {
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
    try {
        boost::thread worker(&CMOXRequestListCommand::GetRequestListThreadProc, this, std::move(strCommand));
        worker.detach();
    } catch (...) {
        // No thread: answer on the caller's thread so that the job ends.
        MOX_WARN("Can not start the request thread.");
        m_fnDone(std::string(), MOX_ERROR_GENERIC);
    }
}

void CMOXRequestListCommand::GetRequestListThreadProc(std::string strCommand) {
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
    std::map<std::string, std::string> blocks;
    for (const std::string& strSource : sources) blocks[strSource];

    // One source (the common case) runs on this thread: no thread to start.
    boost::thread_group group;
    for (const std::string& strSource : sources) {
        CJsonValue query(doc);
        query.Set("mox_source", strSource);
        std::string strQueryCmd = query.ToString();
        MOX_DEBUG("Request list from source[%s], strQueryCmd[%s].", strSource.c_str(),
                  mox_bus::ForLog(strQueryCmd).c_str());
        if (sources.size() == 1) {
            GetListFromSourceProc(strQueryCmd, strSource, &blocks[strSource]);
            break;
        }
        try {
            group.create_thread([this, strQueryCmd, strSource, pSlot = &blocks[strSource]]() {
                GetListFromSourceProc(strQueryCmd, strSource, pSlot);
            });
        } catch (...) {
            MOX_WARN("Can not start a thread for source[%s].", strSource.c_str());
            m_eError = MOX_ERROR_GENERIC;
            break;
        }
    }
    group.join_all();
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
    if (strShmName.empty()) m_ReleaseBlocks(blocks);
    return strShmName;
}

void CMOXRequestListCommand::GetListFromSourceProc(std::string strQueryCmd, std::string strSource,
                                                   std::string* pShmName) {
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
        if (!m_AskValidity(pSource, strSource, strQueryCmd, validity)) {
            validity.bKeep = false;
        } else if (pPool->HitCache(strQueryCmd, *pShmName, validity.strStamp)) {
            MOX_DEBUG("Hit success, get data from cache.");
            return;
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
        if (!builder.Build(nLen, nStartIndex, nEndIndex, nTotalCount, groups, lengths)) {
            m_eError = MOX_ERROR_GENERIC;
            return;
        }
        MOX_DEBUG("End to build resultBlock.");
        guard.HandOver();  // the pool releases or frees the builder
        if (!pPool->Add(strQueryCmd, builder, *pShmName, validity)) {
            pShmName->clear();
            m_eError = MOX_ERROR_GENERIC;
        }
        MOX_DEBUG("Sub thread working done.");
    } catch (...) {
        MOX_WARN("Source thread of [%s] failed with an exception.", strSource.c_str());
        m_eError = MOX_ERROR_GENERIC;
    }
}

std::string CMOXRequestListCommand::m_GenerateResultList(CJsonValue& doc, std::map<std::string, std::string>& blocks,
                                                         mox_error_code_e& eError) {
    MOX_DEBUG("Enter...");
    std::vector<std::unique_ptr<CCacheReader>> owned;
    std::vector<CCacheReader*> readers;
    int nStart = 0, nEnd = -1, nTotal = 0, nGroups = 0;
    int64_t nItems = 0;
    for (const auto& entry : blocks) {
        if (entry.second.empty()) continue;
        auto pReader = std::make_unique<CCacheReader>(entry.second);
        if (!pReader->IsLoaded()) {
            MOX_WARN("Can not read block[%s] of source[%s].", entry.second.c_str(), entry.first.c_str());
            eError = MOX_ERROR_GENERIC;
            return std::string();
        }
        nStart = pReader->StartIndex();
        nGroups = pReader->GetGroupCount();
        nItems += pReader->GetItemCount();
        if (blocks.size() < 2) {
            nEnd = pReader->EndIndex();
            nTotal = pReader->GetTotalCount();
        }
        readers.push_back(pReader.get());
        owned.push_back(std::move(pReader));
    }
    if (blocks.size() >= 2) {
        if (nItems > INT32_MAX) nItems = INT32_MAX;
        nEnd = static_cast<int>(nItems) - 1;
        nTotal = static_cast<int>(nItems);
    }
    int nSection = -1;
    if (doc.IsInt("mox_sectionindex")) doc.Get("mox_sectionindex", nSection);
    MOX_DEBUG("Get item[section = %d][start = %d][edn = %d][total = %d][group = %d], [read size = %d]", nSection,
              nStart, nEnd, nTotal, nGroups, static_cast<int>(readers.size()));
    // The list's range must hold exactly the items added below; with several
    // sources whose windows do not start at 0 it does not.
    if (readers.empty() || static_cast<int64_t>(nEnd) - nStart + 1 != nItems) {
        MOX_WARN("Result range [%d..%d] can not hold %lld items.", nStart, nEnd, static_cast<long long>(nItems));
        eError = MOX_ERROR_GENERIC;
        return std::string();
    }
    CResultListBuilder builder(nSection, nStart, nEnd, nTotal, nGroups, static_cast<int>(readers.size()));
    if (!builder.IsValid()) {
        eError = MOX_ERROR_GENERIC;
        return std::string();
    }
    for (CCacheReader* pReader : readers)
        for (int j = 0; j < pReader->GetItemCount(); ++j) builder.AddItem(pReader->GetName(), j);
    for (CCacheReader* pReader : readers) {
        for (int k = 0; k < pReader->GetGroupCount() && k < nGroups; ++k) {
            int a = 0, b = 0;
            if (pReader->GetGroup(k, a, b)) builder.AddGroup(k, a, b);
        }
    }
    CMOXSortFunction fn;
    fn.readers = &readers;
    if (m_GetComandKeyTypeInfo(doc, fn)) {
        MOX_DEBUG("comparison[%d], key[%s].", fn.comparison, fn.key.c_str());
        builder.SortItems(fn);
    }
    owned.clear();
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
    if (strKey == "FileName" || strKey == "Title")
        eType = MOX_VALUE_STRING;
    else if (strKey == "FileSize" || strKey == "FileTime")
        eType = MOX_VALUE_INT;
}

void CMOXRequestListCommand::m_ReleaseBlocks(const std::map<std::string, std::string>& blocks) {
    for (const auto& entry : blocks) {
        int nCacheId = -1;
        if (!entry.second.empty() && CCacheBuilder::GetCacheId(entry.second, nCacheId))
            CMOXSingleton<CCachePool>::Get()->Delete(nCacheId);
    }
}
