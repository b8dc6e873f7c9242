// CMOXScanList: the bounded queue between an auto scanner's thread (pushes)
// and the clients that drain it (pops). Every operation holds m_mutex for its
// whole length, so any thread may call any operation.
#pragma once

#include <deque>
#include <vector>

#include "mox_scanner_defines.h"
#include "mox_thread_annotations.h"

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

private:
    mox::Mutex m_mutex;
    std::deque<SMOXFileInfo> m_list GUARDED_BY(m_mutex);
    int m_nListSize GUARDED_BY(m_mutex) = 0;
    int m_nTotalDIRs GUARDED_BY(m_mutex) = 0;
    int m_nTotalFILEs GUARDED_BY(m_mutex) = 0;
    int m_nTotalALL GUARDED_BY(m_mutex) = 0;
};
