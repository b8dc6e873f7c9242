// The raw floor of the media library's first index: one process walks a tree
// (readdir + lstat, breadth first), reads the same fields in-process with
// libexif/TagLib/libavformat (CMOXExtractor::ExtractContent) and inserts one
// row per media file into SQLite in batched transactions. --walk-only stops
// after the walk and stat (the floor of an unchanged re-plug).
//   bench_library_floor TREE DB [--walk-only]    prints "files seconds"
#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <string>

#include "mox_extractor.h"
#include "mox_media_extension.h"

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: bench_library_floor TREE DB [--walk-only]\n");
        return 2;
    }
    const bool walkOnly = argc > 3 && strcmp(argv[3], "--walk-only") == 0;
    const auto start = std::chrono::steady_clock::now();
    sqlite3* db = nullptr;
    sqlite3_stmt* insert = nullptr;
    if (!walkOnly) {
        unlink(argv[2]);
        sqlite3_open(argv[2], &db);
        sqlite3_exec(db,
                     "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; CREATE TABLE items(id INTEGER PRIMARY KEY, "
                     "path BLOB UNIQUE, size INTEGER, time INTEGER, title TEXT, width INTEGER, height INTEGER, "
                     "date_taken TEXT, duration INTEGER, artist TEXT, album TEXT, genre TEXT, track TEXT)",
                     nullptr, nullptr, nullptr);
        sqlite3_prepare_v2(db, "INSERT INTO items VALUES (NULL, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", -1, &insert,
                           nullptr);
        sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    }
    CMOXMediaExtension table;
    std::deque<std::string> dirs{argv[1]};
    long files = 0;
    while (!dirs.empty()) {
        const std::string dir = dirs.front();
        dirs.pop_front();
        DIR* d = opendir(dir.c_str());
        if (!d) continue;
        while (struct dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            const std::string path = dir + "/" + e->d_name;
            struct stat st;
            if (lstat(path.c_str(), &st) != 0) continue;
            if (S_ISDIR(st.st_mode)) {
                dirs.push_back(path);
                continue;
            }
            std::string ext;
            const int group = CMOXMediaExtension::GetMediaTypeFromExtension(table.ExtractExtension(e->d_name, ext));
            if (!S_ISREG(st.st_mode) || group == 0) continue;
            ++files;
            if (walkOnly) continue;
            media_info_s info;
            SMOXExtractExtra extra;  // the index's fields: a video's size and length too
            const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                CMOXExtractor::ExtractContent(fd, e->d_name, group, info, &extra);
                close(fd);
            }
            sqlite3_bind_blob(insert, 1, path.data(), static_cast<int>(path.size()), SQLITE_TRANSIENT);
            sqlite3_bind_int64(insert, 2, st.st_size);
            sqlite3_bind_int64(insert, 3, st.st_mtime);
            sqlite3_bind_text(insert, 4, info.strTitle.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_int(insert, 5, info.nWidth ? info.nWidth : extra.nVideoWidth);
            sqlite3_bind_int(insert, 6, info.nHeight ? info.nHeight : extra.nVideoHeight);
            sqlite3_bind_text(insert, 7, info.strDateTaken.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_int(insert, 8, info.nDuration ? info.nDuration : extra.nVideoDuration);
            sqlite3_bind_text(insert, 9, info.strArtist.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(insert, 10, info.strAlbum.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(insert, 11, info.strGenre.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(insert, 12, info.strTrackNum.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_step(insert);
            sqlite3_reset(insert);
            if (files % 256 == 0) sqlite3_exec(db, "COMMIT; BEGIN", nullptr, nullptr, nullptr);
        }
        closedir(d);
    }
    if (db) {
        sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_finalize(insert);
        sqlite3_close(db);
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    printf("%ld %.4f\n", files, seconds);
    return 0;
}
