// CResultPool: the client-side holder of the result lists of one long query,
// delivered section by section (section s holds items s * sectionSize to
// s * sectionSize + sectionSize - 1). It keeps the received lists ordered by
// section, offers a cursor over the whole result by item index, and asks its
// owner, through two callbacks, to fetch sections (prefetch) and to release
// lists it no longer needs (drop).
//
// Two modes:
// - MOX_PREFETCH_SEQUENTIAL: every pushed list that does not end the result
//   asks for the next section; lists are kept until the pool is destroyed.
// - MOX_PREFETCH_WINDOWED: an active window of 5 x windowSections items is
//   kept centred on the cursor; moving the cursor asks for the sections that
//   enter the window (in the direction of the move) and drops the lists that
//   leave it; a pushed list outside the window is dropped at once.
//
// Ownership: the pool owns every pushed list. A list the pool gives up
// (outside the window, a section already held, a list that did not load) is
// reported to the drop callback with its name and deleted; the lists still
// held when the pool is destroyed are deleted without callbacks.
//
// Threads: every public operation holds the pool's mutex, and the callbacks
// run with it held: a callback must not call into the pool (it would
// deadlock); the owner fetches in its own thread and pushes later. A
// prefetch callback that returns false declines the request: the section may
// be asked for again later.
//
// Results of the moves (mox_error_code_e):
//   MOX_ERROR_NONE               the cursor moved.
//   MOX_ERROR_INVALID_PARAMETER  the index is below 0 or not below the total
//                                item count (nothing pushed yet: total 0), or
//                                the pool was built with unusable arguments.
//   MOX_ERROR_NOT_READY          the index lies in a section not held (push it
//                                first), or MoveToNext/MoveToPrevious/
//                                GetCurrentItem without a cursor position.
//   MOX_ERROR_FAILED_RESULT      GetCurrentItem: the item could not be read
//                                (its data block is gone or malformed).
// A refused move leaves the cursor where it was.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <mox/mox_resultlist.h>
#include <mox/mox_types.h>
#include <mox/platform/mox_thread_annotations.h>

typedef enum {
    MOX_PREFETCH_SEQUENTIAL = 0,
    MOX_PREFETCH_WINDOWED = 1,
} EMOXPrefetchType;

typedef enum {
    MOX_CURSOR_FORWARD = 0,   // towards higher indices
    MOX_CURSOR_BACKWARD = 1,  // towards lower indices
} EMOXCursorMoveMent;

// Asks the owner to fetch the items nStartIndex .. nEndIndex (section
// nSectionIndex); false declines.
typedef bool (*MOXResultPoolPrefetchFunc)(void* pUserData, int nStartIndex, int nEndIndex, int nSectionIndex);
// Tells the owner that the pool released the result list strShmName (the
// owner drops it at the engine).
typedef bool (*MOXResultPoolDropFunc)(void* pUserData, std::string strShmName);

class CResultPool {
public:
    struct Cursor {
        CResultList* pCurrentList = nullptr;  // owned by the pool
        int nIndex = -1;
    };

    // Usable when windowSections > 0 and sectionSize > 0; otherwise the pool
    // only holds lists (every move is refused, nothing is fetched or dropped).
    CResultPool(int windowSections, int sectionSize, EMOXPrefetchType type);
    ~CResultPool();
    CResultPool(const CResultPool&) = delete;
    CResultPool& operator=(const CResultPool&) = delete;

    bool IsValid() const { return m_bValid; }
    // Both functions are needed before the first Push (a missing one is
    // logged and skipped).
    void SetCallBack(MOXResultPoolPrefetchFunc func_prefetch, void* pPrefetchUserData, MOXResultPoolDropFunc func_drop,
                     void* pDropUserData);

    // Takes ownership of list (not null). True when the pool keeps it; false
    // when it was dropped at once (see above).
    bool Push(CResultList* list);

    // Groups of the result. With one list held: that list's groups. With
    // several: the distinct (start, count) pairs of all held lists, ordered
    // by start then count (sections repeat the groups that span them).
    int GetGroupCount();
    bool GetGroup(int index, int& start, int& count);

    // The cursor (its list pointer stays valid while the pool holds the list).
    Cursor GetCursor();
    void ResetCursor();
    mox_error_code_e MoveToIndex(int index);
    mox_error_code_e MoveToNext();
    mox_error_code_e MoveToPrevious();
    // The item under the cursor.
    mox_error_code_e GetCurrentItem(std::string& strItem, std::string& strShmName, int& nItemIndex);

    // State, for owners and diagnostics.
    int GetTotalCount();
    void GetWindow(int& nStart, int& nEnd);
    std::vector<int> GetHeldSections();
    std::vector<int> GetPrefetchingSections();

private:
    // All m_ operations require m_mutex held.
    void m_CalcSection(int nSection, int& nStart, int& nEnd) const REQUIRES(m_mutex);
    void m_MoveWindow(int index) REQUIRES(m_mutex);
    bool m_IsNeeded(const CResultList* pList) const REQUIRES(m_mutex);
    void m_AutoPrefetch(const CResultList* pList) REQUIRES(m_mutex);
    void m_Prefetch(int nSection) REQUIRES(m_mutex);
    void m_Drop(const std::string& strShmName) REQUIRES(m_mutex);
    mox_error_code_e m_MoveToIndex(int index) REQUIRES(m_mutex);
    void m_CheckListStatus(EMOXCursorMoveMent eMovement) REQUIRES(m_mutex);
    bool m_IsPrefetchable(EMOXCursorMoveMent eMovement, int& nStartSectionIndex, int& nSectionCount) const
        REQUIRES(m_mutex);
    CResultList* m_IsDropable(EMOXCursorMoveMent eMovement) const REQUIRES(m_mutex);
    void m_Remove(CResultList* pList) REQUIRES(m_mutex);
    void m_CollectGroups(std::vector<std::pair<int, int>>& groups) const REQUIRES(m_mutex);

    const bool m_bValid;
    const int m_nWindowSize;
    const int m_nSectionSize;
    const EMOXPrefetchType m_ePrefetchType;
    mox::Mutex m_mutex;
    int m_nTotalCount GUARDED_BY(m_mutex) = 0;
    std::map<int, std::unique_ptr<CResultList>> m_Result GUARDED_BY(m_mutex);
    Cursor m_InternalCursor GUARDED_BY(m_mutex);
    std::set<int> m_Prefetching GUARDED_BY(m_mutex);
    int m_nWindowStart GUARDED_BY(m_mutex) = 0;
    int m_nWindowEnd GUARDED_BY(m_mutex) = -1;
    MOXResultPoolPrefetchFunc m_OnPrefetch GUARDED_BY(m_mutex) = nullptr;
    MOXResultPoolDropFunc m_OnDrop GUARDED_BY(m_mutex) = nullptr;
    void* m_pPrefetchUserData GUARDED_BY(m_mutex) = nullptr;
    void* m_pDropUserData GUARDED_BY(m_mutex) = nullptr;
};

#pragma GCC visibility pop
