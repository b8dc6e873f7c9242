// CResultList: read access to one result list ("mox_resultlist_T_N") by name,
// in client processes and in the engine (which reads the block names of a
// list a client drops).
//
// List layout (32-bit little-endian integers, offsets from the start):
//   0 nBlockNameOffset   4 nItemOffset   8 nStartIndex   12 nEndIndex
//   16 nSectionIndex   20 nTotalItemCount   24 nNumberOfGroups
//   28 nNumberOfBlocks   32 nSize
//   36: nNumberOfGroups x mox_data_group_s
//   nBlockNameOffset: nNumberOfBlocks x 128-byte slots, each a data-block
//                     name, NUL-terminated
//   nItemOffset: one mox_result_item_index_s per list position, in order
//
// The list is loaded once, at construction, into the reader's own memory and
// its header is checked against the object's size; a truncated or crafted
// list makes an unloaded reader (warning logged), and an entry that names a
// slot outside the table or a slot without a terminating NUL fails alone.
// Nothing here asserts on the list's content. Each data block the entries
// name is opened once (a CCacheReader kept until the list is destroyed; slots
// that repeat a name share its reader).
//
// One thread at a time per instance (GetItem fills the reader map).
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <map>
#include <memory>
#include <string>

#include <mox/cache_reader.h>
#include <mox/mox_cache_defines.h>

class CResultList {
public:
    explicit CResultList(std::string strShmName);
    ~CResultList();
    CResultList(const CResultList&) = delete;
    CResultList& operator=(const CResultList&) = delete;

    bool IsLoaded() const { return m_bLoaded; }
    const std::string& GetName() const { return m_strShmName; }

    // 0 when unloaded, except EndIndex and SectionIndex: -1.
    int StartIndex() const;
    int EndIndex() const;
    int SectionIndex() const;
    int GetTotalCount() const;
    int GetItemCount() const;
    int GetGroupCount() const;
    int GetBlockCount() const;
    // StartIndex() <= n <= EndIndex() (never true when unloaded).
    bool IsValidIndex(int n) const;

    // Group-table entry nGroupIndex; false (warning) when out of range.
    bool GetGroup(int nGroupIndex, int& a, int& b) const;
    // The text of block-name slot nIndex, up to its NUL (empty for an unused
    // slot). False, with a warning, when nIndex is out of range or the slot
    // holds no NUL.
    bool GetBlockName(int nIndex, std::string& strName) const;
    // The item at list position nListIndex (StartIndex .. EndIndex): the
    // item's text, the name of its data block and its index in that block.
    // False when unloaded (outputs untouched), when the position is out of
    // range or its entry is unusable (warning), or when the data block cannot
    // be read (strShmName and nItemIndex are then still set).
    bool GetItem(int nListIndex, std::string& strItem, std::string& strShmName, int& nItemIndex);

private:
    bool m_Load();
    void m_UnLoad();

    std::map<std::string, std::unique_ptr<CCacheReader>> m_readersByName;  // owns the readers
    std::map<int, CCacheReader*> m_readers;                                // slot -> reader
    std::string m_strShmName;
    std::unique_ptr<char[]> m_pAddr;  // private copy of the list, m_nSize bytes
    int m_nSize = 0;
    bool m_bLoaded = false;
    // Header fields, checked at load.
    int32_t m_nBlockNameOffset = 0;
    int32_t m_nItemOffset = 0;
    int32_t m_nStartIndex = 0;
    int32_t m_nEndIndex = -1;
    int32_t m_nSectionIndex = -1;
    int32_t m_nTotalItemCount = 0;
    int32_t m_nNumberOfGroups = 0;
    int32_t m_nNumberOfBlocks = 0;
};

#pragma GCC visibility pop
