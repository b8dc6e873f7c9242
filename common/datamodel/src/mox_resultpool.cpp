#define MOX_LOG_TAG "MOX-CACHE"
#include <mox/mox_resultpool.h>

#include <algorithm>
#include <climits>

#include <mox/mox_log.h>

CResultPool::CResultPool(int windowSections, int sectionSize, EMOXPrefetchType type)
    : m_bValid(windowSections > 0 && sectionSize > 0 && windowSections <= INT_MAX / 5),
      m_nWindowSize(m_bValid ? 5 * windowSections : 0),
      m_nSectionSize(sectionSize),
      m_ePrefetchType(type) {
    MOX_DEBUG("windowSections[%d], sectionSize[%d], type[%d], valid[%d].", windowSections, sectionSize, type, m_bValid);
    mox::MutexLock lock(m_mutex);
    m_MoveWindow(0);
}

CResultPool::~CResultPool() {
    mox::MutexLock lock(m_mutex);
    m_InternalCursor = Cursor();
    m_Result.clear();
}

void CResultPool::SetCallBack(MOXResultPoolPrefetchFunc func_prefetch, void* pPrefetchUserData,
                              MOXResultPoolDropFunc func_drop, void* pDropUserData) {
    assert(func_prefetch != NULL);
    assert(func_drop != NULL);
    mox::MutexLock lock(m_mutex);
    m_OnPrefetch = func_prefetch;
    m_pPrefetchUserData = pPrefetchUserData;
    m_OnDrop = func_drop;
    m_pDropUserData = pDropUserData;
}

bool CResultPool::Push(CResultList* list) {
    assert(list != NULL);
    std::unique_ptr<CResultList> pList(list);
    mox::MutexLock lock(m_mutex);
    const int nSection = pList->SectionIndex();
    if (!pList->IsLoaded() || nSection < 0) {
        MOX_WARN("Result list[%s] is not usable (loaded[%d], section[%d]), drop it.", pList->GetName().c_str(),
                 pList->IsLoaded(), nSection);
        m_Drop(pList->GetName());
        return false;
    }
    if (m_nTotalCount == 0 && pList->GetTotalCount() > 0) {
        m_nTotalCount = pList->GetTotalCount();
        // The window was clamped to an empty result until now.
        m_MoveWindow(m_InternalCursor.pCurrentList ? m_InternalCursor.nIndex : 0);
    }
    // Requested or not, this section is no longer on its way.
    m_Prefetching.erase(nSection);
    if (m_ePrefetchType != MOX_PREFETCH_SEQUENTIAL && !m_IsNeeded(pList.get())) {
        MOX_DEBUG("Section[%d] is out of actived window. drop it", nSection);
        m_Drop(pList->GetName());
        return false;
    }
    if (m_Result.count(nSection)) {
        MOX_WARN("Section[%d] is already held, drop [%s].", nSection, pList->GetName().c_str());
        m_Drop(pList->GetName());
        return false;
    }
    CResultList* pHeld = pList.get();
    m_Result.emplace(nSection, std::move(pList));
    if (m_ePrefetchType == MOX_PREFETCH_SEQUENTIAL) m_AutoPrefetch(pHeld);
    return true;
}

int CResultPool::GetGroupCount() {
    mox::MutexLock lock(m_mutex);
    if (m_Result.empty()) {
        MOX_WARN("There is no result list.");
        return 0;
    }
    if (m_Result.size() == 1) {
        MOX_DEBUG("Partial request only 1 group.");
        return m_Result.begin()->second->GetGroupCount();
    }
    std::vector<std::pair<int, int>> groups;
    m_CollectGroups(groups);
    return static_cast<int>(groups.size());
}

bool CResultPool::GetGroup(int index, int& start, int& count) {
    mox::MutexLock lock(m_mutex);
    if (m_Result.empty()) {
        MOX_WARN("There is no result list.");
        return false;
    }
    if (m_Result.size() == 1) return m_Result.begin()->second->GetGroup(index, start, count);
    std::vector<std::pair<int, int>> groups;
    m_CollectGroups(groups);
    if (index < 0 || index >= static_cast<int>(groups.size())) {
        MOX_WARN("Group index[%d] out of range[0-%d).", index, static_cast<int>(groups.size()));
        return false;
    }
    start = groups[index].first;
    count = groups[index].second;
    return true;
}

CResultPool::Cursor CResultPool::GetCursor() {
    mox::MutexLock lock(m_mutex);
    return m_InternalCursor;
}

void CResultPool::ResetCursor() {
    mox::MutexLock lock(m_mutex);
    m_InternalCursor = Cursor();
}

mox_error_code_e CResultPool::MoveToIndex(int index) {
    mox::MutexLock lock(m_mutex);
    return m_MoveToIndex(index);
}

mox_error_code_e CResultPool::MoveToNext() {
    mox::MutexLock lock(m_mutex);
    if (m_InternalCursor.pCurrentList == nullptr) {
        MOX_WARN("m_InternalCursor is invalid.");
        return MOX_ERROR_NOT_READY;
    }
    const int nNext = m_InternalCursor.nIndex + 1;  // the index is below the total: no overflow
    if (!m_InternalCursor.pCurrentList->IsValidIndex(nNext)) return m_MoveToIndex(nNext);
    m_InternalCursor.nIndex = nNext;
    if (m_ePrefetchType != MOX_PREFETCH_SEQUENTIAL) {
        m_MoveWindow(nNext);
        m_CheckListStatus(MOX_CURSOR_FORWARD);
    }
    return MOX_ERROR_NONE;
}

mox_error_code_e CResultPool::MoveToPrevious() {
    mox::MutexLock lock(m_mutex);
    if (m_InternalCursor.pCurrentList == nullptr) {
        MOX_WARN("m_InternalCursor is invalid.");
        return MOX_ERROR_NOT_READY;
    }
    const int nPrevious = m_InternalCursor.nIndex - 1;  // the index is at least 0: no overflow
    if (!m_InternalCursor.pCurrentList->IsValidIndex(nPrevious)) return m_MoveToIndex(nPrevious);
    m_InternalCursor.nIndex = nPrevious;
    if (m_ePrefetchType != MOX_PREFETCH_SEQUENTIAL) {
        m_MoveWindow(nPrevious);
        m_CheckListStatus(MOX_CURSOR_BACKWARD);
    }
    return MOX_ERROR_NONE;
}

mox_error_code_e CResultPool::GetCurrentItem(std::string& strItem, std::string& strShmName, int& nItemIndex) {
    mox::MutexLock lock(m_mutex);
    if (m_InternalCursor.pCurrentList == nullptr) {
        MOX_WARN("m_InternalCursor is invalid.");
        return MOX_ERROR_NOT_READY;
    }
    if (!m_InternalCursor.pCurrentList->GetItem(m_InternalCursor.nIndex, strItem, strShmName, nItemIndex))
        return MOX_ERROR_FAILED_RESULT;
    return MOX_ERROR_NONE;
}

int CResultPool::GetTotalCount() {
    mox::MutexLock lock(m_mutex);
    return m_nTotalCount;
}

void CResultPool::GetWindow(int& nStart, int& nEnd) {
    mox::MutexLock lock(m_mutex);
    nStart = m_nWindowStart;
    nEnd = m_nWindowEnd;
}

std::vector<int> CResultPool::GetHeldSections() {
    mox::MutexLock lock(m_mutex);
    std::vector<int> sections;
    for (const auto& entry : m_Result) sections.push_back(entry.first);
    return sections;
}

std::vector<int> CResultPool::GetPrefetchingSections() {
    mox::MutexLock lock(m_mutex);
    return std::vector<int>(m_Prefetching.begin(), m_Prefetching.end());
}

void CResultPool::m_CalcSection(int nSection, int& nStart, int& nEnd) const {
    // 64-bit: section numbers may come from a list's content. Callers only ask
    // for sections that start inside the result, so both ends fit an int.
    const int64_t nFirst = static_cast<int64_t>(nSection) * m_nSectionSize;
    int64_t nLast = nFirst + m_nSectionSize - 1;
    if (m_nTotalCount > 0 && nLast > m_nTotalCount - 1) nLast = m_nTotalCount - 1;
    nStart = static_cast<int>(std::min<int64_t>(nFirst, INT_MAX));
    nEnd = static_cast<int>(std::min<int64_t>(nLast, INT_MAX));
    MOX_DEBUG("Section[%d] region is from [%d] to [%d].", nSection, nStart, nEnd);
}

void CResultPool::m_MoveWindow(int index) {
    const int64_t nHalf = m_nWindowSize / 2;
    int64_t nStart = index - nHalf;
    int64_t nEnd = (m_nWindowSize % 2 != 0) ? index + nHalf : index + nHalf - 1;
    if (nStart < 0) nStart = 0;
    if (nEnd > m_nTotalCount - 1) nEnd = m_nTotalCount - 1;
    m_nWindowStart = static_cast<int>(nStart);
    m_nWindowEnd = static_cast<int>(nEnd);
}

bool CResultPool::m_IsNeeded(const CResultList* pList) const {
    if (!m_bValid) return true;
    return pList->StartIndex() <= m_nWindowEnd && pList->EndIndex() >= m_nWindowStart;
}

void CResultPool::m_AutoPrefetch(const CResultList* pList) {
    if (!m_bValid) return;
    const int nSection = pList->SectionIndex();
    const int64_t nNextStart = (static_cast<int64_t>(nSection) + 1) * m_nSectionSize;
    if (pList->GetItemCount() <= 0 || pList->EndIndex() >= m_nTotalCount - 1 || nNextStart >= m_nTotalCount) {
        MOX_TRACE("Stop partial");
        return;
    }
    const int nNext = nSection + 1;  // nNextStart is below the total: no overflow
    MOX_TRACE("Current Resultlist: Name[%s], Section[%d], Begin to prefetch data from next Section[%d].",
              pList->GetName().c_str(), nSection, nNext);
    if (m_Result.count(nNext) || m_Prefetching.count(nNext)) return;
    m_Prefetch(nNext);
}

void CResultPool::m_Prefetch(int nSection) {
    int nStart, nEnd;
    m_CalcSection(nSection, nStart, nEnd);
    MOX_DEBUG("MOX_ASSERT( m_OnPrefetch != NULL ) in tid: %d", mox_log_gettid());
    MOX_ASSERT(m_OnPrefetch != NULL);
    if (m_OnPrefetch == nullptr) return;
    m_Prefetching.insert(nSection);
    if (!m_OnPrefetch(m_pPrefetchUserData, nStart, nEnd, nSection)) {
        MOX_DEBUG("Prefetch of section[%d] declined.", nSection);
        m_Prefetching.erase(nSection);
    }
}

void CResultPool::m_Drop(const std::string& strShmName) {
    MOX_DEBUG("MOX_ASSERT( m_OnDrop != NULL ) in tid: %d", mox_log_gettid());
    MOX_ASSERT(m_OnDrop != NULL);
    if (m_OnDrop != nullptr) m_OnDrop(m_pDropUserData, strShmName);
    MOX_DEBUG("MOX_ASSERT( m_OnDrop != NULL ) after in tid: %d", mox_log_gettid());
}

mox_error_code_e CResultPool::m_MoveToIndex(int index) {
    if (!m_bValid || index < 0 || index >= m_nTotalCount) {
        MOX_TRACE("Invalid index[%d], m_nTotalCount[%d].", index, m_nTotalCount);
        return MOX_ERROR_INVALID_PARAMETER;
    }
    CResultList* pFound = nullptr;
    for (const auto& entry : m_Result) {
        if (entry.second->IsValidIndex(index)) {
            pFound = entry.second.get();
            break;
        }
    }
    if (pFound == nullptr) {
        MOX_DEBUG("Index[%d] is in no held section, section[%lld] must be pushed first.", index,
                  static_cast<long long>(index / m_nSectionSize));
        return MOX_ERROR_NOT_READY;
    }
    EMOXCursorMoveMent eMovement = MOX_CURSOR_FORWARD;
    if (const CResultList* pOld = m_InternalCursor.pCurrentList) {
        if (pOld->SectionIndex() == pFound->SectionIndex())
            eMovement = index >= m_InternalCursor.nIndex ? MOX_CURSOR_FORWARD : MOX_CURSOR_BACKWARD;
        else
            eMovement = pFound->SectionIndex() > pOld->SectionIndex() ? MOX_CURSOR_FORWARD : MOX_CURSOR_BACKWARD;
    }
    m_InternalCursor.pCurrentList = pFound;
    m_InternalCursor.nIndex = index;
    if (m_ePrefetchType != MOX_PREFETCH_SEQUENTIAL) {
        m_MoveWindow(index);
        m_CheckListStatus(eMovement);
    }
    return MOX_ERROR_NONE;
}

void CResultPool::m_CheckListStatus(EMOXCursorMoveMent eMovement) {
    int nStartSection = 0, nSectionCount = 0;
    if (m_IsPrefetchable(eMovement, nStartSection, nSectionCount)) {
        for (int k = 0; k < nSectionCount; ++k) {
            const int nSection = eMovement == MOX_CURSOR_FORWARD ? nStartSection + k : nStartSection - k;
            if (m_Prefetching.count(nSection) || m_Result.count(nSection)) continue;
            m_Prefetch(nSection);
        }
    }
    while (CResultList* pList = m_IsDropable(eMovement)) {
        MOX_DEBUG("Should drop the section[%d] region from [%d] to [%d].", pList->SectionIndex(), pList->StartIndex(),
                  pList->EndIndex());
        m_Drop(pList->GetName());
        m_Remove(pList);
    }
}

bool CResultPool::m_IsPrefetchable(EMOXCursorMoveMent eMovement, int& nStartSectionIndex, int& nSectionCount) const {
    assert(!m_Result.empty());  // the cursor stands in a held list
    // Sections are derived from item indices, not from the lists' section
    // fields, so a list whose range and section disagree cannot make us ask
    // for a negative or runaway section.
    int64_t nFirst, nLast;
    if (eMovement == MOX_CURSOR_FORWARD) {
        const CResultList* pLast = m_Result.rbegin()->second.get();
        if (m_nWindowEnd <= pLast->EndIndex()) return false;
        const int64_t nFrom = std::max<int64_t>(m_nWindowStart, static_cast<int64_t>(pLast->EndIndex()) + 1);
        nFirst = nFrom / m_nSectionSize;
        nLast = m_nWindowEnd / m_nSectionSize;
    } else {
        const CResultList* pFirst = m_Result.begin()->second.get();
        if (m_nWindowStart >= pFirst->StartIndex()) return false;
        const int64_t nTo = std::min<int64_t>(m_nWindowEnd, static_cast<int64_t>(pFirst->StartIndex()) - 1);
        nFirst = nTo / m_nSectionSize;
        nLast = m_nWindowStart / m_nSectionSize;
    }
    const int64_t nCount = (eMovement == MOX_CURSOR_FORWARD ? nLast - nFirst : nFirst - nLast) + 1;
    MOX_DEBUG("Actived window region[%d-%d], nPrefetchNum[%lld], eType[%d].", m_nWindowStart, m_nWindowEnd,
              static_cast<long long>(nCount), eMovement);
    if (nFirst < 0 || nCount <= 0) return false;
    nStartSectionIndex = static_cast<int>(nFirst);
    nSectionCount = static_cast<int>(nCount);
    MOX_DEBUG("Should prefetch %d sections from section[%d].", nSectionCount, nStartSectionIndex);
    return true;
}

CResultList* CResultPool::m_IsDropable(EMOXCursorMoveMent eMovement) const {
    if (m_Result.empty()) return nullptr;
    CResultList* pList =
        eMovement == MOX_CURSOR_FORWARD ? m_Result.begin()->second.get() : m_Result.rbegin()->second.get();
    if (pList == m_InternalCursor.pCurrentList) return nullptr;
    if (eMovement == MOX_CURSOR_FORWARD) return pList->EndIndex() < m_nWindowStart ? pList : nullptr;
    return pList->StartIndex() > m_nWindowEnd ? pList : nullptr;
}

void CResultPool::m_Remove(CResultList* pList) {
    for (auto it = m_Result.begin(); it != m_Result.end(); ++it) {
        if (it->second.get() == pList) {
            MOX_DEBUG("Remove the section[%d] from [%d] to [%d].", it->first, pList->StartIndex(), pList->EndIndex());
            m_Result.erase(it);
            return;
        }
    }
    MOX_WARN("Can not find the resultlist[%s] in resultlist pool.", pList->GetName().c_str());
}

void CResultPool::m_CollectGroups(std::vector<std::pair<int, int>>& groups) const {
    for (const auto& entry : m_Result) {
        const CResultList* pList = entry.second.get();
        for (int k = 0; k < pList->GetGroupCount(); ++k) {
            int a = 0, b = 0;
            if (pList->GetGroup(k, a, b)) groups.emplace_back(a, b);
        }
    }
    std::sort(groups.begin(), groups.end());
    groups.erase(std::unique(groups.begin(), groups.end()), groups.end());
}
