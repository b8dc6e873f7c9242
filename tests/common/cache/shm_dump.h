// Text dump of a result list, its items read through their data blocks with
// the public readers, one fact per line. Shared by the tests and the client
// helper process, so that what a separate process reads can be compared with
// what was written.
#pragma once

#include <cstdio>
#include <sstream>
#include <string>

#include <mox/mox_resultlist.h>

namespace moxtest {

inline std::string Escape(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char buf[8];
            snprintf(buf, sizeof(buf), "\\x%02x", c);
            out += buf;
        }
    }
    return out;
}

inline std::string DumpList(const std::string& strName) {
    CResultList list(strName);
    std::ostringstream out;
    out << "loaded " << list.IsLoaded() << "\n";
    out << "start " << list.StartIndex() << " end " << list.EndIndex() << " section " << list.SectionIndex()
        << " total " << list.GetTotalCount() << " groups " << list.GetGroupCount() << " blocks " << list.GetBlockCount()
        << "\n";
    for (int i = 0; i < list.GetGroupCount(); ++i) {
        int a = 0, b = 0;
        if (list.GetGroup(i, a, b)) out << "group " << i << " " << a << " " << b << "\n";
    }
    for (int i = 0; i < list.GetBlockCount(); ++i) {
        std::string name;
        out << "block " << i << " " << (list.GetBlockName(i, name) ? Escape(name) : "!") << "\n";
    }
    for (int n = list.StartIndex(); list.IsValidIndex(n); ++n) {
        std::string item, shm;
        int nItemIndex = -1;
        bool ok = list.GetItem(n, item, shm, nItemIndex);
        out << "item " << n << " " << Escape(shm) << " " << nItemIndex << " " << (ok ? Escape(item) : "!") << "\n";
    }
    return out.str();
}

}  // namespace moxtest
