// The library source end to end: the real daemon on a private bus, the spool
// USB service, the real helper indexing generated media into real SQLite
// files, and the shipped plug-in answering over the bus.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>

#include <mox/mox_resultlist.h>

#include "../../mox-server/library/library_test_util.h"

namespace fs = std::filesystem;
using namespace moxtest;

namespace {

bool Photo(const std::string& path, const std::string& size, const std::string& date) {
    return Shell("convert -size " + size + " xc:blue " + path) &&
           (date.empty() || Shell("exiftool -q -overwrite_original '-DateTimeOriginal=" + date + "' " + path));
}

bool Song(const std::string& path, const std::string& tags, double seconds) {
    return Shell("ffmpeg -v error -y -f lavfi -i sine=duration=" + std::to_string(seconds) + " -b:a 32k " + tags + " " +
                 path);
}

struct SAnswer {
    int event = -1;
    int code = -1;
    std::vector<Json::Value> items;
    int total = 0;
};

// A client of the library source: lists read from their result list, details.
class SourceClient : public LibraryClient {
public:
    using LibraryClient::LibraryClient;
    // A list of the library source with the members in `extra`.
    SAnswer List(const std::string& extra) {
        const std::string doc = R"({"mox_command":"mox_requestlist","mox_source":["mox_library_source"])" + extra + "}";
        const size_t before = signals->Named("mox_request_normal_complete").size();
        EXPECT_TRUE(h.Call("get_partial_list", g_variant_new("(uuus)", handle, 0u, 0u, doc.c_str()), conn.get()).ok());
        SAnswer answer;
        Json::Value ev = Answer(before, 0, 2);
        answer.event = ev["mox_event_type"].asInt();
        answer.code = ev.get("mox_error_code", 0).asInt();
        const std::string name = ev["mox_result_list_block_name"].asString();
        if (name.empty()) return answer;
        {
            CResultList list(name);
            EXPECT_TRUE(list.IsLoaded());
            answer.total = list.GetTotalCount();
            for (int i = list.StartIndex(); list.IsLoaded() && i <= list.EndIndex(); ++i) {
                std::string item, block;
                int index = -1;
                EXPECT_TRUE(list.GetItem(i, item, block, index));
                answer.items.push_back(Parse(item));
            }
        }
        EXPECT_TRUE(h.Call("drop_partial_list", g_variant_new("(us)", handle, name.c_str()), conn.get()).ok());
        return answer;
    }
    // The code of a list that fails (event 1 or 2).
    int Fails(const std::string& extra) {
        SAnswer a = List(extra);
        EXPECT_NE(a.event, 0) << extra;
        return a.code;
    }
    Json::Value Detail(const std::string& path, int& event) {
        Json::Value request;
        request["mox_command"] = "mox_requestdetail";
        request["mox_source"] = "mox_library_source";
        request["FilePath"] = path;
        const std::string doc = Json::writeString(Json::StreamWriterBuilder(), request);
        const size_t before = signals->Named("mox_request_normal_complete").size();
        EXPECT_TRUE(h.Call("request_detail", g_variant_new("(us)", handle, doc.c_str()), conn.get()).ok());
        Json::Value ev = Answer(before, 3, 5);
        event = ev["mox_event_type"].asInt();
        const std::string text = ev["mox_result_detail_json"].asString();
        return event == 3 && !text.empty() ? Parse(text) : ev;
    }
};

std::vector<std::string> Members(const SAnswer& a, const char* key) {
    std::vector<std::string> out;
    for (const Json::Value& item : a.items) out.push_back(item.get(key, "").asString());
    return out;
}

// Absent members sort first ascending, as the engine's sort reads them.
bool InOrder(const std::vector<Json::Value>& items, const std::string& key, bool desc) {
    for (size_t i = 1; i < items.size(); ++i) {
        const Json::Value& a = items[desc ? i : i - 1];
        const Json::Value& b = items[desc ? i - 1 : i];
        if (!a.isMember(key)) continue;
        if (!b.isMember(key)) return false;
        if (a[key].isString() ? a[key].asString() > b[key].asString() : a[key].asInt64() > b[key].asInt64())
            return false;
    }
    return true;
}

}  // namespace

TEST(LibrarySource, ViewsFiltersSearchOrderWindowsFreshnessAndBadInput) {
    if (!HaveMediaTools()) GTEST_SKIP() << "convert, exiftool or ffmpeg missing";
    EngineHarness h;
    SourceClient c(h);
    h.InstallPlugin(MOX_LIBRARY_SOURCE_SO);
    const std::string a = h.UsbRoot() + "/a", b = h.UsbRoot() + "/b";
    fs::create_directories(a + "/photos");
    fs::create_directories(a + "/music");
    fs::create_directories(b);
    ASSERT_TRUE(Photo(a + "/photos/p0.jpg", "64x48", "2021:06:07 08:09:10"));
    ASSERT_TRUE(Photo(a + "/photos/p1.jpg", "32x32", "2019:01:02 03:04:05"));
    ASSERT_TRUE(Photo(a + "/photos/p2.jpg", "80x20", "2023:12:31 23:59:59"));
    ASSERT_TRUE(Photo(a + "/photos/nodate.jpg", "16x16", ""));
    ASSERT_TRUE(Shell("touch -d '2018-05-05 12:00:00 UTC' " + a + "/photos/nodate.jpg"));
    ASSERT_TRUE(Song(a + "/music/s1.mp3",
                     "-metadata artist=Zoé -metadata album=Été -metadata track=2 "
                     "-metadata title='Beach Party'",
                     2));
    ASSERT_TRUE(Song(a + "/music/s2.mp3",
                     "-metadata artist=Zoé -metadata album=Été -metadata track=1 "
                     "-metadata title='Café Noir'",
                     1));
    ASSERT_TRUE(Song(a + "/music/s3.mp3",
                     "-metadata artist=Abba -metadata album=Gold -metadata track=1 "
                     "-metadata genre=Pop -metadata title=Waterloo",
                     3));
    ASSERT_TRUE(Song(a + "/music/s4.mp3", "", 1));
    fs::copy_file(a + "/photos/p1.jpg", b + "/other.jpg");
    fs::copy_file(a + "/photos/nodate.jpg", b + "/bad\xffname.jpg");
    ASSERT_TRUE(c.Start("libmox_library_source.so"));
    c.Plug("a");
    c.Plug("b");
    const Json::Value readyA = c.Wait("a", "ready");
    c.Wait("b", "ready");
    const std::string mountA = R"(,"mox_library_mount":")" + a + R"(")";

    // Volumes: a late client learns the state of each mounted volume.
    SAnswer volumes = c.List(R"(,"mox_library_view":"volumes")");
    ASSERT_EQ(volumes.items.size(), 2u);
    EXPECT_EQ(volumes.items[0]["mount_path"].asString(), a);
    EXPECT_EQ(volumes.items[0]["state"].asString(), "ready");
    EXPECT_EQ(volumes.items[0]["counts"], readyA["counts"]);
    EXPECT_EQ(c.List(R"(,"mox_library_view":"volumes","mox_library_mount":")" + b + R"(")").items.size(), 1u);

    // Items of every mounted volume, or of one; photos by date taken.
    EXPECT_EQ(c.List("").total, 10);
    // A name that is not UTF-8 as the engine hands names out, and back.
    SAnswer odd = c.List(R"(,"mox_library_mount":")" + b + R"(","SortedKey":"FileName")");
    ASSERT_EQ(odd.items.size(), 2u);
    EXPECT_EQ(odd.items[0]["FilePath"].asString(), b + "/bad\\xFFname.jpg");
    int oddEvent = -1;
    EXPECT_EQ(c.Detail(odd.items[0]["FilePath"].asString(), oddEvent)["FileName"].asString(), "bad\\xFFname.jpg");
    SAnswer photos = c.List(mountA + R"(,"mox_media_type":2,"SortedKey":"DateTaken","SortedType":1)");
    ASSERT_EQ(photos.items.size(), 4u);
    EXPECT_EQ(Members(photos, "FileName"), (std::vector<std::string>{"nodate.jpg", "p1.jpg", "p0.jpg", "p2.jpg"}));
    EXPECT_FALSE(photos.items[0].isMember("DateTaken"));  // absent, not empty
    EXPECT_EQ(photos.items[2]["DateTaken"].asInt64(), 1623053350);
    // No pixel dimensions in this EXIF: left out rather than 0.
    EXPECT_FALSE(photos.items[2].isMember("Width") && photos.items[2]["Width"].asInt() != 64);
    EXPECT_EQ(photos.items[2]["MimeType"].asString(), "image/jpeg");
    EXPECT_EQ(photos.items[2]["FilePath"].asString(), a + "/photos/p0.jpg");
    EXPECT_GE(h.CountLog("in the asked order already"), 1u);  // the engine did not sort again

    // Every key, both ways, checked against the files themselves.
    for (const char* key :
         {"FileName", "Title", "FileTime", "FileSize", "DateTaken", "Artist", "Album", "TrackNumber", "Duration"}) {
        for (int type : {1, 2}) {
            SAnswer all = c.List(mountA + R"(,"SortedKey":")" + key + R"(","SortedType":)" + std::to_string(type));
            ASSERT_EQ(all.items.size(), 8u) << key;
            EXPECT_TRUE(InOrder(all.items, key, type == 2)) << key << " " << type;
            for (const Json::Value& item : all.items) {
                const std::string path = item["FilePath"].asString();
                struct stat st;
                ASSERT_EQ(stat(path.c_str(), &st), 0) << path;
                EXPECT_EQ(item["FileSize"].asInt64(), st.st_size) << path;
                EXPECT_EQ(item["FileTime"].asInt64(), st.st_mtime) << path;
            }
        }
    }
    SAnswer songs = c.List(mountA + R"(,"mox_media_type":5,"SortedKey":"Duration","SortedType":1)");
    ASSERT_EQ(songs.items.size(), 4u);
    EXPECT_EQ(songs.items.back()["Title"].asString(), "Waterloo");  // 3 s, in ms
    EXPECT_NEAR(songs.items.back()["Duration"].asInt(), 3000, 150);
    EXPECT_EQ(songs.items.back()["TrackNumber"].asInt(), 1);

    // Windows: inclusive, -1 to the last, a start beyond is refused.
    SAnswer window = c.List(mountA + R"(,"mox_media_type":2,"SortedKey":"DateTaken","mox_start_index":1,)"
                                     R"("mox_end_index":2)");
    EXPECT_EQ(Members(window, "FileName"), (std::vector<std::string>{"p1.jpg", "p0.jpg"}));
    EXPECT_EQ(window.total, 4);
    EXPECT_EQ(c.List(mountA + R"(,"mox_start_index":7,"mox_end_index":-1)").items.size(), 1u);
    EXPECT_EQ(c.Fails(mountA + R"(,"mox_start_index":8)"), 7);

    // Views: one item per group, untagged files in the group "".
    SAnswer albums = c.List(R"(,"mox_library_view":"albums")");
    EXPECT_EQ(Members(albums, "GroupName"), (std::vector<std::string>{"", "Gold", "Été"}));
    EXPECT_EQ(albums.items[2]["Count"].asInt(), 2);
    EXPECT_EQ(albums.items[2]["Cover"].asString(), a + "/music/s2.mp3");  // track 1
    EXPECT_EQ(Members(c.List(R"(,"mox_library_view":"artists","SortedKey":"Count","SortedType":2)"), "GroupName"),
              (std::vector<std::string>{"Zoé", "", "Abba"}));
    SAnswer genres = c.List(R"(,"mox_library_view":"genres")");
    EXPECT_EQ(Members(genres, "GroupName"), (std::vector<std::string>{"", "Pop"}));
    EXPECT_EQ(genres.items[0]["Count"].asInt(), 3);
    SAnswer years = c.List(mountA + R"(,"mox_library_view":"years","mox_media_type":2)");
    EXPECT_EQ(Members(years, "GroupName"), (std::vector<std::string>{"2018", "2019", "2021", "2023"}));
    EXPECT_EQ(Members(c.List(mountA + R"(,"mox_library_view":"months","mox_media_type":2)"), "GroupName"),
              (std::vector<std::string>{"2018-05", "2019-01", "2021-06", "2023-12"}));
    SAnswer folders = c.List(R"(,"mox_library_view":"folders")");
    EXPECT_EQ(Members(folders, "GroupName"), (std::vector<std::string>{a + "/music", a + "/photos", b}));
    EXPECT_EQ(folders.items[1]["Count"].asInt(), 4);
    EXPECT_EQ(folders.items[1]["Cover"].asString(), a + "/photos/nodate.jpg");

    // Filters open a group: an album in track order, the untagged, a year, a folder.
    EXPECT_EQ(Members(c.List(R"(,"mox_library_filter":{"Album":"Été"})"), "FileName"),
              (std::vector<std::string>{"s2.mp3", "s1.mp3"}));
    EXPECT_EQ(Members(c.List(R"(,"mox_library_filter":{"Artist":""},"mox_media_type":5)"), "FileName"),
              (std::vector<std::string>{"s4.mp3"}));
    EXPECT_EQ(Members(c.List(R"(,"mox_library_filter":{"Year":2019})"), "FileName"),
              (std::vector<std::string>{"other.jpg", "p1.jpg"}));
    EXPECT_EQ(c.List(R"(,"mox_library_filter":{"Folder":")" + a + R"(/music","Genre":"Pop"})").items.size(), 1u);
    EXPECT_EQ(c.Fails(R"(,"mox_library_filter":{"Album":"None such"})"), 6);

    // Search: words by prefix, any case, no accents; client syntax is text.
    EXPECT_EQ(Members(c.List(R"(,"mox_library_search":"CAFE")"), "FileName"), (std::vector<std::string>{"s2.mp3"}));
    SAnswer zo = c.List(R"(,"mox_library_search":"zo","SortedKey":"TrackNumber")");
    EXPECT_EQ(Members(zo, "FileName"), (std::vector<std::string>{"s2.mp3", "s1.mp3"}));
    EXPECT_EQ(Members(c.List(R"(,"mox_library_search":"été par")"), "FileName"), (std::vector<std::string>{"s1.mp3"}));
    EXPECT_EQ(c.List(R"(,"mox_library_search":"\"zo* OR NEAR(wat\" -{artist}:")").items.size(), 0u);
    EXPECT_EQ(c.List(R"(,"mox_library_search":"wat\")\"")").items.size(), 1u);
    EXPECT_EQ(c.Fails(R"(,"mox_library_search":"\"*:^-")"), 6);
    EXPECT_EQ(c.Fails(R"(,"mox_library_search":")" + std::string(600000, 'x') + R"(")"), 7);
    std::string words;
    for (int i = 0; i < 33; ++i) words += "w ";
    EXPECT_EQ(c.Fails(R"(,"mox_library_search":")" + words + R"(")"), 7);

    // Detail: the whole record of one file.
    int event = -1;
    Json::Value detail = c.Detail(a + "/music/s1.mp3", event);
    EXPECT_EQ(event, 3);
    EXPECT_EQ(detail["Artist"].asString(), "Zoé");
    EXPECT_EQ(detail["Title"].asString(), "Beach Party");
    EXPECT_EQ(detail["TrackNumber"].asInt(), 2);
    c.Detail(a + "/music/none.mp3", event);
    EXPECT_EQ(event, 5);
    // Refused (7): the engine answers event 3 without a detail.
    EXPECT_EQ(c.Detail("/etc/passwd", event)["mox_result_detail_json"].asString(), "");
    EXPECT_EQ(c.Detail(h.UsbRoot() + "/a/../../etc/passwd", event)["mox_result_detail_json"].asString(), "");

    // Bad input: error 7 with one warning each.
    const size_t warningsBefore = h.CountLog("Library list:");
    const std::string bad[] = {
        R"(,"mox_library_view":"songs")",
        R"(,"mox_library_filter":{"Composer":"x"})",
        R"(,"mox_library_filter":{"Year":"2019"})",
        R"(,"mox_library_filter":[1])",
        R"(,"SortedKey":"Colour","SortedType":1)",
        R"(,"SortedKey":"GroupName")",
        R"(,"mox_library_view":"albums","SortedKey":"DateTaken")",
        R"(,"mox_library_mount":"/etc")",
        R"(,"mox_library_mount":")" + h.UsbRoot() + R"(/a/../../x")",
        R"(,"mox_library_mount":")" + h.UsbRoot() + R"(/zzz")",
        R"(,"mox_library_mount":")" + a + R"(/photos")",
        R"(,"mox_media_type":4)",
        R"(,"mox_start_index":3,"mox_end_index":1)",
    };
    for (const std::string& extra : bad) EXPECT_EQ(c.Fails(extra), 7) << extra;
    EXPECT_EQ(h.CountLog("Library list:") - warningsBefore, std::size(bad));

    // Freshness: a kept answer is served while the volume stays the same,
    // and not once a change was committed.
    const std::string query = mountA + R"(,"mox_media_type":2,"SortedKey":"FileSize")";
    c.List(query);
    const size_t hits = h.CountLog("Hit success");
    EXPECT_EQ(c.List(query).items.size(), 4u);
    EXPECT_EQ(h.CountLog("Hit success"), hits + 1);
    const Json::Value before = c.List(R"(,"mox_library_view":"volumes")" + mountA).items[0];
    fs::copy_file(a + "/photos/p2.jpg", a + "/photos/p9.jpg");
    c.Wait("a", "ready", before["generation"].asInt64());
    EXPECT_EQ(c.List(query).items.size(), 5u);
    EXPECT_EQ(h.CountLog("Hit success"), hits + 1);

    // moxctl: a table and JSON documents.
    const std::string moxctl = std::string(MOXCTL_BINARY) + " --address '" + h.BusAddress() + "' ";
    const std::string out = Output(moxctl + "--json library list --mount " + a + " --view albums");
    EXPECT_NE(out.find(R"("GroupName":"Gold")"), std::string::npos) << out;
    EXPECT_TRUE(Shell(moxctl + "library search cafe | grep -q s2.mp3"));
    EXPECT_TRUE(Shell(moxctl + "library list --type photo --sort DateTaken --desc --range 0-1 | grep -q p2.jpg"));
    EXPECT_FALSE(Shell(moxctl + "library list --view songs"));
    EXPECT_EQ(h.Stop(), 0);
}
