// Batches through the mox-extract helper: a file that crashes or stalls the
// helper in the middle of a batch fails alone, a helper that answers garbage
// is refused file by file, and the media library gets a video's size and
// length from the container and a photo's date taken in its own time zone,
// down to the index's columns.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <mox_unique_fd.h>

#include "../../library/library_test_util.h"
#include "mox_extract_client.h"
#include "mox_extract_wire.h"
#include "mox_extractor.h"
#include "mox_library_extract.h"
#include "mox_library_volume.h"
#include "scan_tree.h"

namespace {

using EResult = SMOXExtractItem::EResult;
using moxtest::Shell;
using scantest::OpenFds;

class ExtractBatch : public scantest::HelperSuite {
protected:
    // Batch items for the files named, opened here; infos[i] and extras[i]
    // receive item i.
    struct SBatch {
        std::vector<mox_util::UniqueFd> fds;
        std::vector<media_info_s> infos;
        std::vector<SMOXExtractExtra> extras;
        std::vector<SMOXExtractItem> items;
    };
    static void Fill(SBatch& b, const std::vector<std::string>& names) {
        b.fds.clear();
        b.infos.assign(names.size(), media_info_s());
        b.extras.assign(names.size(), SMOXExtractExtra());
        b.items.assign(names.size(), SMOXExtractItem());
        for (size_t i = 0; i < names.size(); ++i) {
            const std::string path = Media(names[i]);
            b.fds.emplace_back(open(path.c_str(), O_RDONLY | O_CLOEXEC));
            struct stat st;
            ASSERT_EQ(fstat(b.fds.back().Get(), &st), 0) << path;
            SMOXExtractItem& item = b.items[i];
            item.fd = b.fds.back().Get();
            item.strPath = path;
            const bool bMusic = path.find(".mp3") != std::string::npos;
            const bool bVideo = path.find(".mp4") != std::string::npos;
            item.nMediaType = bMusic ? 5 : bVideo ? 3 : 2;
            item.ullSize = static_cast<unsigned long long>(st.st_size);
            item.ulModifiedTime = static_cast<unsigned long>(st.st_mtime);
            item.pInfo = &b.infos[i];
            item.pExtra = &b.extras[i];
        }
    }
};

}  // namespace

// A crash and a stall in the middle of a batch longer than one request: those
// two fail, every other file gets the fields the library reads in-process,
// the stall costs one deadline, and both are remembered.
TEST_F(ExtractBatch, CrashAndStallFailAloneInsideABatch) {
    ASSERT_TRUE(Shell("cp " + Media("east.jpg") + " " + Media("mox-extract-crash.jpg")));
    ASSERT_TRUE(Shell("cp " + Media("tune.mp3") + " " + Media("mox-extract-hang.mp3")));
    std::vector<std::string> names;
    for (size_t i = 0; i < mox_extract_wire::kMaxBatch + 8; ++i)
        names.push_back(i % 3 == 0 ? "east.jpg" : i % 3 == 1 ? "tune.mp3" : "film.mp4");
    names[5] = "mox-extract-crash.jpg";
    names[11] = "mox-extract-hang.mp3";
    std::map<std::string, media_info_s> here;
    std::map<std::string, SMOXExtractExtra> hereExtra;
    for (const char* name : {"east.jpg", "tune.mp3", "film.mp4"}) {
        mox_util::UniqueFd fd(open(Media(name).c_str(), O_RDONLY | O_CLOEXEC));
        const int type = name[0] == 't' ? 5 : name[0] == 'f' ? 3 : 2;
        CMOXExtractor::ExtractContent(fd.Get(), name, type, here[name], &hereExtra[name]);
    }
    const int fdsBefore = OpenFds();

    SBatch b;
    Fill(b, names);
    auto start = std::chrono::steady_clock::now();
    CMOXExtractClient::Get().ExtractBatch(b.items, true);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, CMOXExtractClient::kDeadline);
    EXPECT_LT(took, 2 * CMOXExtractClient::kDeadline);
    for (size_t i = 0; i < names.size(); ++i) {
        if (i == 5 || i == 11) {
            EXPECT_EQ(b.items[i].eResult, EResult::kFailed) << i;
            continue;
        }
        ASSERT_EQ(b.items[i].eResult, EResult::kParsed) << i << " " << names[i];
        const media_info_s& want = here[names[i]];
        EXPECT_EQ(CMOXExtractor("", names[i], b.items[i].nMediaType).ToString(b.infos[i]),
                  CMOXExtractor("", names[i], b.items[i].nMediaType).ToString(want))
            << i;
        EXPECT_EQ(b.extras[i].nVideoWidth, hereExtra[names[i]].nVideoWidth) << i;
        EXPECT_EQ(b.extras[i].nVideoDuration, hereExtra[names[i]].nVideoDuration) << i;
        EXPECT_EQ(b.extras[i].strDateOffset, hereExtra[names[i]].strDateOffset) << i;
    }
    EXPECT_EQ(hereExtra["film.mp4"].nVideoWidth, 320);
    EXPECT_EQ(hereExtra["east.jpg"].strDateOffset, "+02:00");
    // Without extras asked for, a video's record keeps its zeros.
    EXPECT_EQ(b.infos[2].nWidth, 0);

    // Again: the two are remembered and not handed over, so no deadline.
    Fill(b, names);
    start = std::chrono::steady_clock::now();
    CMOXExtractClient::Get().ExtractBatch(b.items, false);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    for (size_t i = 0; i < names.size(); ++i)
        EXPECT_EQ(b.items[i].eResult, (i == 5 || i == 11) ? EResult::kFailed : EResult::kParsed) << i;
    EXPECT_EQ(b.extras[2].nVideoWidth, 0);  // not asked for
    b = SBatch();
    EXPECT_EQ(OpenFds(), fdsBefore + 1);  // the helper's socket
}

// A helper taken over by a file may answer anything: each bad answer fails
// its file alone (helper killed, the rest go to a new one); descriptors sent
// along are closed.
TEST_F(ExtractBatch, HostileAnswersAreRefused) {
    const std::string fake = s_dir->path() + "/fake-helper";
    std::ofstream(fake) << R"PY(#!/usr/bin/python3
import mmap, os, socket, struct, time
s = socket.socket(fileno=3)
progress = mmap.mmap(4, 4096)
def answer(i, title, lat=-200.0, width=0):
    out = struct.pack('<III', 0x4d585241, i, 1)
    for t in [title] + [''] * 11:
        b = t.encode('utf-8', 'replace')
        out += struct.pack('<I', len(b)) + b
    out += struct.pack('<ddd', lat, -200.0, 0.0) + struct.pack('<8i', *([0] * 8))
    return out + struct.pack('<3iI', width, 0, 0, 0)
while True:
    msg, fds, _, _ = socket.recv_fds(s, 65536, 32)
    if not msg:
        break
    for f in fds:
        os.close(f)
    count, pos, names = struct.unpack_from('<I', msg, 8)[0], 12, []
    for i in range(count):
        n = struct.unpack_from('<I', msg, pos + 4)[0]
        names.append(msg[pos + 8:pos + 8 + n].decode('latin-1'))
        pos += 8 + n
    for i, name in enumerate(names):
        a = answer(i, name)
        if name.startswith('evil-index'): a = answer(i + 1, name)
        if name.startswith('evil-length'): a = a[:12] + struct.pack('<I', 0xFFFFFFF0) + a[16:]
        if name.startswith('evil-nan'): a = answer(i, name, lat=float('nan'))
        if name.startswith('evil-negative'): a = answer(i, name, width=-5)
        if name.startswith('evil-trailing'): a += b'x'
        if name.startswith('evil-short'): a = a[:-2]
        if name.startswith('evil-big'): a = a + b'\0' * 70000
        if name.startswith('evil-progress'):
            struct.pack_into('<Q', progress, 0, 250 << 56)  # no such file: the next unanswered one is blamed
            os._exit(1)
        if name.startswith('evil-empty'):
            s.send(b'')
            time.sleep(60)
        if name.startswith('fds-'):
            socket.send_fds(s, [a], [os.open('/dev/null', os.O_RDONLY)] * 3)
            continue
        s.send(a)
)PY";
    ASSERT_EQ(chmod(fake.c_str(), 0755), 0);
    if (!Shell("/usr/bin/python3 -c 'import socket; socket.recv_fds'")) GTEST_SKIP() << "python3 >= 3.9 needed";
    std::vector<std::string> names = {"ok-1.jpg",       "evil-index.jpg",    "ok-2.jpg",       "evil-length.jpg",
                                      "evil-nan.jpg",   "evil-negative.mp4", "fds-1.jpg",      "evil-trailing.jpg",
                                      "evil-short.jpg", "evil-big.jpg",      "evil-empty.jpg", "evil-progress.jpg",
                                      "ok-3.jpg"};
    for (const std::string& name : names) ASSERT_TRUE(Shell("cp " + Media("utc.jpg") + " " + Media(name)));
    const int fdsBefore = OpenFds();
    {
        setenv("MOX_EXTRACT_HELPER", fake.c_str(), 1);
        CMOXExtractClient client;  // its own helper: the fake one
        SBatch b;
        Fill(b, names);
        auto start = std::chrono::steady_clock::now();
        client.ExtractBatch(b.items, true);
        setenv("MOX_EXTRACT_HELPER", MOX_EXTRACT_HELPER_BINARY, 1);
        EXPECT_LT(std::chrono::steady_clock::now() - start, CMOXExtractClient::kDeadline);
        for (size_t i = 0; i < names.size(); ++i) {
            const bool bGood = names[i].rfind("evil", 0) != 0;
            EXPECT_EQ(b.items[i].eResult, bGood ? EResult::kParsed : EResult::kFailed) << names[i];
            if (bGood) {
                EXPECT_EQ(b.infos[i].strTitle, names[i]);
            } else {
                EXPECT_EQ(b.infos[i].strTitle, "") << names[i];  // untouched
                EXPECT_EQ(b.infos[i].dLatitude, -200.0) << names[i];
            }
        }
    }
    EXPECT_EQ(OpenFds(), fdsBefore);  // the fake helper's descriptors and its socket closed

    // Requests are checked as strictly by the helper.
    std::vector<mox_extract_wire::SRequestItem> request(2);
    request[0].strName = std::string(1000, 'a') + ".jpg";  // only the end is sent
    request[1].nMediaType = 5;
    std::string msg = mox_extract_wire::EncodeRequest(request, true);
    std::vector<mox_extract_wire::SRequestItem> decoded;
    bool bExtra = false;
    ASSERT_TRUE(mox_extract_wire::DecodeRequest(msg, decoded, bExtra));
    EXPECT_TRUE(bExtra);
    EXPECT_EQ(decoded[0].strName.size(), mox_extract_wire::kMaxNameBytes);
    EXPECT_EQ(decoded[1].nMediaType, 5);
    for (size_t len = 0; len < msg.size(); ++len)
        EXPECT_FALSE(mox_extract_wire::DecodeRequest(msg.substr(0, len), decoded, bExtra)) << len;
    EXPECT_FALSE(mox_extract_wire::DecodeRequest(msg + "x", decoded, bExtra));
    EXPECT_FALSE(mox_extract_wire::DecodeRequest(std::string(msg).replace(8, 1, "\x11"), decoded, bExtra));
    EXPECT_FALSE(mox_extract_wire::DecodeRequest(std::string(msg).replace(4, 1, "\x02"), decoded, bExtra));
    EXPECT_FALSE(mox_extract_wire::DecodeRequest(
        mox_extract_wire::EncodeRequest(std::vector<mox_extract_wire::SRequestItem>(), false), decoded, bExtra));
}

// The indexer end to end: a video's width, height and duration from the
// container, dates taken in their zones (a zone that is no zone is ignored;
// a photo without EXIF dimensions has none), in the index.
TEST_F(ExtractBatch, LibraryIndexStoresContainerAndZoneFields) {
    const int64_t noon = 1622548800;  // 2021-06-01 12:00:00 UTC
    EXPECT_EQ(mox_library::ParseExifDate("2021:06:01 12:00:00", "+02:00"), noon - 2 * 3600);
    EXPECT_EQ(mox_library::ParseExifDate("2021:06:01 12:00:00", "-05:30"), noon + 5 * 3600 + 1800);
    for (const char* bad : {"", "Z", "+2:00", "+02:60", "+15:00", "02:00", "+02:00 ", "+0a:00"})
        EXPECT_EQ(mox_library::ParseExifDate("2021:06:01 12:00:00", bad), noon) << bad;

    moxtest::TempDir library;
    const std::string stick = s_dir->path() + "/stick";
    ASSERT_TRUE(Shell("mkdir -p " + stick + "/a && cp " + Media("east.jpg") + " " + Media("west.jpg") + " " +
                      Media("utc.jpg") + " " + Media("film.mp4") + " " + Media("tune.mp3") + " " + stick + "/a/"));
    std::atomic<bool> busy{false};
    std::atomic<bool> ready{false};
    const std::string dbPath = library.file("v.db");
    {
        CMOXLibraryVolume volume(
            stick, "TEST-VOLUME", dbPath, busy,
            [&](const SMOXLibraryStatus& status) {
                if (status.strState == "ready" || status.strState == "failed") ready = true;
            },
            [] { return true; });
        ASSERT_TRUE(volume.Start());
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!ready && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ASSERT_TRUE(ready);
        EXPECT_EQ(volume.Status().strState, "ready");
    }
    auto row = [&](const std::string& name, const std::string& columns) {
        return moxtest::Query(dbPath, "SELECT " + columns + " FROM items WHERE file_name = '" + name + "'");
    };
    const std::string photo =
        "state || ' ' || ifnull(width, -1) || ' ' || ifnull(height, -1) || ' ' || ifnull(duration, -1) || ' ' || "
        "ifnull(date_taken, -1)";
    EXPECT_EQ(moxtest::QueryInt(dbPath, "SELECT count(*) FROM items WHERE is_folder = 0"), 5);
    EXPECT_EQ(row("east.jpg", photo), "1 -1 -1 -1 " + std::to_string(noon - 2 * 3600));
    EXPECT_EQ(row("west.jpg", photo), "1 -1 -1 -1 " + std::to_string(noon + 5 * 3600 + 1800));
    EXPECT_EQ(row("utc.jpg", photo), "1 -1 -1 -1 " + std::to_string(noon));
    EXPECT_EQ(row("film.mp4", "state || ' ' || width || ' ' || height || ' ' || ifnull(date_taken, -1)"),
              "1 320 240 -1");
    EXPECT_NEAR(std::atoi(row("film.mp4", "duration").c_str()), 2000, 150);
    EXPECT_EQ(row("tune.mp3", "state"), "1");
    EXPECT_NEAR(std::atoi(row("tune.mp3", "duration").c_str()), 1000, 150);
}
