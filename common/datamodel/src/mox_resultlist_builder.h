// CResultListBuilder: writes one result list ("mox_resultlist_T_N", layout in
// <mox/mox_resultlist.h>) for a request-list worker thread.
//
// Construct with the list's range and table sizes (the object is created,
// sized and its header written), add the groups and the items (items strictly
// in list order, until the range is full), optionally sort once full, then
// Release() the name to the client. The object outlives the builder; the
// engine unlinks it with Drop() when the client drops the list.
//
// The range comes from source answers and the client's document, so bad
// arguments (or a failure to create the object) do not assert: the builder is
// then not valid (warning logged), its Add and Sort calls do nothing and
// Release() returns an empty name. On a valid builder, adding more groups,
// block names or items than announced is a programming error (asserted).
#pragma once

#include <map>
#include <set>
#include <string>

#include <mox/mox_cache_defines.h>

#include "mox_request_defines.h"
#include "mox_thread_annotations.h"
#include "shm_mapping.h"

class CResultListBuilder {
public:
    CResultListBuilder(int nSectionIndex, int nStartIndex, int nEndIndex, int nTotalItemCount, int nNumberOfGroups,
                       int nNumberOfBlocks);
    ~CResultListBuilder();
    CResultListBuilder(const CResultListBuilder&) = delete;
    CResultListBuilder& operator=(const CResultListBuilder&) = delete;

    bool IsValid() const { return m_mapping.IsMapped(); }
    int GetId() const { return m_nId; }
    const std::string& GetName() const { return m_strShmName; }

    void AddGroup(int nGroupIndex, int a, int b);
    // Appends the entry {slot of strShmName, nItemIndex}; slots are numbered
    // in order of first appearance. Names are cut to 127 characters.
    void AddItem(std::string strShmName, int nItemIndex);
    // Sorts the full item table by fn (same order as std::sort with fn as the
    // predicate, but every item's key is read once). False, with a warning,
    // when fn's settings are unusable; the table is then left as it is.
    bool SortItems(CMOXSortFunction& fn);
    // Hands the name to the client (empty for a builder that is not valid).
    std::string Release();
    // Unlinks this builder's object.
    void Drop();
    // Unlinks a result list by name, as a client hands it back. Only a list
    // that a builder of this process created and that was not dropped yet is
    // unlinked: neither a client nor an object planted under a list name can
    // make the engine remove anything else. False when refused or failed.
    static bool Drop(const std::string& strShmName);

private:
    // Names "mox_resultlist_T_N" (see CShmNamer: never a name someone else holds).
    static mox_shm::CShmNamer& m_Namer();
    // The lists created and not yet unlinked, process-wide.
    static mox::Mutex& m_CreatedMutex();
    static std::set<std::string>& m_Created() REQUIRES(m_CreatedMutex());
    // Unlinks strShmName if it is in m_Created() (and forgets it).
    static bool m_Unlink(const std::string& strShmName);
    ResultItemIndex* m_ItemTable() const;

    int m_nItemCount = 0;
    int m_nCurrentItemCount = 0;
    std::map<std::string, int> m_ShmNames;  // block name -> slot
    int m_nId = -1;
    std::string m_strShmName;
    mox_shm::CShmFd m_shmFd;
    mox_shm::CShmMapping m_mapping;  // starts with the header
    bool m_bReleased = false;
    // Header values of this list.
    int m_nNumberOfGroups = 0;
    int m_nNumberOfBlocks = 0;
    int m_nBlockNameOffset = 0;
    int m_nItemOffset = 0;
};
