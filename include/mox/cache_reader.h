// CCacheReader: read access to one data block ("mox_datablock_T_N") by name, in
// the engine and in client processes.
//
// Block layout (32-bit little-endian integers, offsets from the start):
//   0 nGroupOffset   4 nLengthOffset   8 nStartIndex   12 nEndIndex
//   16 nTotalCount   20 nNumberOfGroups   24 nSize
//   28: item strings, back to back, zero-padded to a multiple of 4
//   nGroupOffset: nNumberOfGroups x mox_data_group_s
//   nLengthOffset: one 32-bit start offset per item
// Item k spans its offset to the next item's offset; the last item spans to
// nGroupOffset, so it carries the 0..3 padding NULs with it.
//
// The block is loaded once, at construction, into the reader's own memory, and
// every header field and offset is checked before use: a block that a client
// truncated, rewrote or crafted makes an unloaded reader (with a warning), and
// an item whose offsets are wrong is refused alone. Nothing here asserts on the
// block's content. Getters of an unloaded reader return 0 (EndIndex -1).
//
// A reader is used by one thread at a time; distinct readers are independent.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <cstdint>
#include <memory>
#include <string>

#include <mox/mox_cache_defines.h>

class CCacheReader {
public:
    explicit CCacheReader(std::string strShmName);
    ~CCacheReader();
    CCacheReader(const CCacheReader&) = delete;
    CCacheReader& operator=(const CCacheReader&) = delete;

    bool IsLoaded() const { return m_bLoaded; }
    const std::string& GetName() const { return m_strShmName; }
    // Size in bytes of the loaded block (0 when unloaded).
    int GetSize() const { return m_nSize; }

    int StartIndex() const;
    int EndIndex() const;
    int GetItemCount() const;
    int GetTotalCount() const;
    int GetGroupCount() const;

    // The two integers of group-table entry nGroupIndex, in stored order.
    // False (with a warning) when unloaded or out of range.
    bool GetGroup(int nGroupIndex, int& a, int& b) const;
    // Item nIndex (0 .. GetItemCount() - 1, relative to the block). False with
    // a warning when unloaded, out of range, or when the item's offsets do not
    // lie inside the item data; str is then untouched.
    bool GetItem(int nIndex, std::string& str) const;

private:
    bool m_Load();
    void m_UnLoad();

    std::string m_strShmName;
    std::unique_ptr<char[]> m_pAddr;  // private copy of the block, m_nSize bytes
    int m_nSize = 0;
    bool m_bLoaded = false;
    // Header fields, checked at load.
    int32_t m_nGroupOffset = 0;
    int32_t m_nLengthOffset = 0;
    int32_t m_nStartIndex = 0;
    int32_t m_nEndIndex = -1;
    int32_t m_nTotalCount = 0;
    int32_t m_nNumberOfGroups = 0;
};

#pragma GCC visibility pop
