// Helpers of the shared-memory tests: raw access to objects in /dev/shm,
// crafted objects, a capture of the log, and a check that every object a
// test binary created is gone when it ends.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace moxtest {

// True when the object under strName is one this binary created and tracked
// (see TrackShm): tests run in parallel, and once our object is unlinked
// another process may create its own under the same name.
bool ShmExists(const std::string& strName);
// Whole content of the object; empty when it does not exist.
std::string ReadShm(const std::string& strName);
// Creates (or replaces) an object with exactly these bytes; the object is
// tracked and unlinked at the end of the binary if a test forgets it.
bool WriteShm(const std::string& strName, const std::string& bytes);
// Creates a sparse object of nSize bytes whose first bytes are `head`.
bool WriteSparseShm(const std::string& strName, const std::string& head, int64_t nSize);
// Little-endian 32-bit field of a byte string.
int32_t Int32At(const std::string& bytes, size_t nOffset);
void PutInt32(std::string& bytes, size_t nOffset, int32_t nValue);

// Remembers an object this binary just created (by name and inode); at the
// end of the binary every remembered object must be gone (a failure names
// the leftovers, which are then removed).
void TrackShm(const std::string& strName);

// Everything logged so far by this process (MOX_LOG is pointed at a private
// file before the first test).
std::string LogText();
// Size of the log now, to look only at what a step logs afterwards.
size_t LogMark();
std::string LogSince(size_t nMark);

// Runs a program and collects its standard output; returns the exit status
// (-1 when it could not run or was killed).
int RunProgram(const std::vector<std::string>& argv, std::string& strOutput);

}  // namespace moxtest
