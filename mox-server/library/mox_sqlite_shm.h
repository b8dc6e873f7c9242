// A full disk must fail an index write, never kill the daemon.
//
// SQLite keeps a WAL database's index in a shared mapping of the "-shm" file
// beside it. It grows that file by writing one byte at the end of each 4 KiB
// page, so on a file system whose blocks are smaller than a page (ext4 made
// with 1 KiB blocks, as mkfs makes small ones) the rest of each page stays a
// hole. SQLite's first store into such a page makes the kernel allocate the
// block; with the disk full it cannot, and the process gets SIGBUS.
//
// The guard is the platform VFS with one change: each region of the index is
// write-faulted in (MADV_POPULATE_WRITE, which changes no byte) as SQLite maps
// it. The kernel then allocates its blocks at once, or reports that it cannot,
// and the map fails with SQLITE_FULL: the statement that needed it fails and
// the process lives. Kernels older than 5.14 lack the advice; there the guard
// logs once and SQLite behaves as without it. Copy-on-write file systems
// (btrfs) can still fail a later store and are not covered.
#pragma once

namespace mox_sql {

// Makes the guard the process's default VFS, for every connection opened
// after it (plug-ins attaching an index included). Idempotent and thread-safe;
// false, and nothing changed, when SQLite has no default VFS.
bool UseAllocatingShm();

}  // namespace mox_sql
