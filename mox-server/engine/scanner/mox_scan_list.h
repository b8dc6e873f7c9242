// CMOXScanList: the bounded queue between an auto scanner's thread (pushes)
// and the clients that drain it (pops). Every operation holds m_mutex for its
// whole length, so any thread may call any operation.
//
// A scan in batches (SMOXScannerOption::bBatches) hands entries over as
// SMOXScanBatch runs instead: one lock per run, and the runs' buffers go
// back and forth between the walk and the consumer, so a warm walk
// allocates nothing per entry.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "mox_scanner_defines.h"
#include "mox_thread_annotations.h"

// A run of walk entries: fixed-size records, their names and folder paths
// in one text buffer (a folder's path once per run of its entries).
struct SMOXScanBatch {
    struct Entry {
        uint32_t nFolder = 0;  // offset of the folder's path in `text`
        uint32_t nFolderLength = 0;
        uint32_t nName = 0;  // offset of the name in `text`
        uint32_t nNameLength = 0;
        int16_t nType = 0;  // MOX_SCANNER_TYPE_DIR or _FILE
        int16_t nExtensionGroup = 0;
        int32_t tModified = 0;
        int64_t llFileSize = 0;
    };
    std::string text;
    std::vector<Entry> entries;

    void Clear();
    void Add(const SMOXFileInfo& info);
    std::string_view Folder(const Entry& entry) const { return {text.data() + entry.nFolder, entry.nFolderLength}; }
    std::string_view Name(const Entry& entry) const { return {text.data() + entry.nName, entry.nNameLength}; }

private:
    // The folder of the last entry added (its path in `text`).
    uint32_t m_nLastFolder = 0;
    uint32_t m_nLastFolderLength = 0;
    bool m_bHasFolder = false;
};

class CMOXScanList {
public:
    CMOXScanList() = default;
    virtual ~CMOXScanList() = default;
    CMOXScanList(const CMOXScanList&) = delete;
    CMOXScanList& operator=(const CMOXScanList&) = delete;

    void SetListSize(int nSize);
    int GetNumberOfItems();
    bool IsEmpty();
    bool IsStartFlag();
    bool IsEndFlag();
    int GetTotalDIRs();
    int GetTotalFILEs();
    int GetTotalALL();

    // 0, or -9 when the list already holds its size (nothing changes).
    int Push(const SMOXFileInfo& info);
    // Appends the ".." link of the directory `info` names; never refused, so a
    // parent link is never lost. Counts as a directory but not as an entry.
    void PushPreviousPath(const SMOXFileInfo& info);
    void PushStartFlag();
    void PushEndFlag();
    // Front entry, or -8 when empty; an end marker stays at the front.
    int Pop(SMOXFileInfo& info);
    // Up to nCount entries from the front; an end marker met stays at the
    // front and ends the batch. -8 when nothing was taken.
    int PopList(int nCount, std::vector<SMOXFileInfo>& out);
    void Release();

    // Batches. PushBatch queues `batch` and leaves an empty one (with kept
    // buffers) in its place; -9 when the queued entries would pass the
    // list's size (never for an empty queue, nor when bForce: the walk's
    // last run). PopBatch swaps the oldest batch into `batch`, waiting up to
    // `wait` for one: 0, -7 once the end flag was pushed and every batch
    // taken, -8 when nothing came.
    int PushBatch(SMOXScanBatch& batch, bool bForce);
    int PopBatch(SMOXScanBatch& batch, std::chrono::milliseconds wait);
    // Waits up to `wait` until a batch is taken (the walk's list was full).
    void WaitForRoom(std::chrono::microseconds wait);

private:
    mox::Mutex m_mutex;
    std::deque<SMOXFileInfo> m_list GUARDED_BY(m_mutex);
    int m_nListSize GUARDED_BY(m_mutex) = 0;
    int m_nTotalDIRs GUARDED_BY(m_mutex) = 0;
    int m_nTotalFILEs GUARDED_BY(m_mutex) = 0;
    int m_nTotalALL GUARDED_BY(m_mutex) = 0;
    std::deque<SMOXScanBatch> m_batches GUARDED_BY(m_mutex);
    std::vector<SMOXScanBatch> m_spare GUARDED_BY(m_mutex);  // emptied, buffers kept
    size_t m_nBatchedEntries GUARDED_BY(m_mutex) = 0;
    bool m_bEnd GUARDED_BY(m_mutex) = false;
    std::condition_variable m_batchPushed;
    std::condition_variable m_batchTaken;
};
