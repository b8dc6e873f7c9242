// A folder of 100,000 files over the bus: the real daemon and the local
// source, the answer far above the 10 MiB the cache keeps. It is served
// (sorted, and in parts when above 16 MiB), read by a client from shared
// memory and dropped without a trace; sections of it come from one walk.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "bus_client.h"

using moxtest::BusClient;
using moxtest::EngineHarness;

namespace {

constexpr int kFiles = 100000;

using moxtest::Parse;
using moxtest::ShmExists;

std::string FileName(int n) {
    char name[48];
    snprintf(name, sizeof name, "file-with-a-longer-name-%06d.jpg", n);
    return name;
}

TEST(BigFolderDbus, HundredThousandFilesListSortedInSectionsAndDrop) {
    EngineHarness h;
    h.InstallPlugin(MOX_LOCAL_SOURCE_SO);
    const std::string folder = h.UsbRoot() + "/sda1/big";
    std::filesystem::create_directories(folder + "/a-folder");
    for (int i = 0; i < kFiles; ++i) {
        // Created in an order unlike the sorted one.
        int fd = open((folder + "/" + FileName((i * 7919) % kFiles)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0);
        close(fd);
    }
    ASSERT_TRUE(h.Start());
    BusClient c(h);
    const guint32 handle = c.Connect("libmox_local_source.so");
    auto request = [&](const std::string& extra) {
        c.List(handle, moxtest::LocalListDoc(folder, extra));
        return c.Next(moxtest::kComplete, std::chrono::seconds(120));
    };
    auto drop = [&](const std::string& name) {
        c.Call("drop_partial_list", g_variant_new("(us)", handle, name.c_str()));
        return c.Next(moxtest::kComplete)["mox_event_type"].asInt();
    };

    // Sorted by name, descending, in one answer: over 20 MB of items, more
    // than the cache keeps and more than one data block holds (16 MiB), so
    // it comes in parts; every item is there, in order.
    Json::Value ev = request(R"(,"SortedType":2,"SortedKey":"FileName")");
    ASSERT_EQ(ev["mox_event_type"].asInt(), 0) << ev.toStyledString();
    const std::string sorted = ev["mox_result_list_block_name"].asString();
    std::vector<std::string> parts;
    {
        CResultList list(sorted);
        ASSERT_TRUE(list.IsLoaded());
        ASSERT_EQ(list.GetTotalCount(), kFiles + 1);
        ASSERT_EQ(list.GetItemCount(), kFiles + 1);
        ASSERT_GE(list.GetBlockCount(), 2);
        for (int b = 0; b < list.GetBlockCount(); ++b) {
            std::string block;
            ASSERT_TRUE(list.GetBlockName(b, block));
            parts.push_back(block.c_str());
        }
        std::string previous, item, block;
        int index = -1;
        for (int i = 0; i <= kFiles; ++i) {
            ASSERT_TRUE(list.GetItem(i, item, block, index)) << i;
            item.erase(item.find_last_not_of('\0') + 1);
            const std::string name = Parse(item)["FileName"].asString();
            ASSERT_FALSE(name.empty()) << i;
            if (i > 0) {
                ASSERT_LT(name, previous) << i;
            }
            previous = name;
        }
        EXPECT_EQ(previous, "a-folder");  // the folder sorts by name with the files
    }
    EXPECT_EQ(h.CountLog("memory still over limitation"), 0u);

    // Sections as moxctl reads them: one walk of the folder serves them all.
    const size_t nWalks = h.CountLog("entries read under stamp");
    std::vector<std::string> sections;
    for (int s = 0; s < 5; ++s) {
        ev = request(",\"mox_sectionindex\":" + std::to_string(s) + ",\"mox_start_index\":" + std::to_string(s * 1000) +
                     ",\"mox_end_index\":" + std::to_string(s * 1000 + 999));
        ASSERT_EQ(ev["mox_event_type"].asInt(), 0) << s;
        sections.push_back(ev["mox_result_list_block_name"].asString());
        CResultList list(sections.back());
        std::string item, block;
        int index = -1;
        ASSERT_TRUE(list.GetItem(s * 1000, item, block, index));
        // Folders first, then files by name.
        EXPECT_EQ(Parse(item)["FileName"].asString(), s == 0 ? std::string("a-folder") : FileName(s * 1000 - 1)) << s;
    }
    EXPECT_EQ(h.CountLog("entries read under stamp"), nWalks);

    // A list too big to keep is gone, parts and all, once dropped; the
    // sections stay kept for the next reader.
    for (const std::string& name : sections) EXPECT_EQ(drop(name), 10) << name;
    EXPECT_EQ(drop(sorted), 10);
    EXPECT_FALSE(ShmExists(sorted));
    for (const std::string& part : parts) EXPECT_FALSE(ShmExists(part)) << part;
    EXPECT_EQ(h.CountLog("memory still over limitation"), 0u);
}

}  // namespace
