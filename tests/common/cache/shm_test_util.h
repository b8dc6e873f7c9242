// Shared-memory test helpers: raw and crafted objects in /dev/shm, and a
// check that every object a test binary created is gone at its end. The log
// is captured by log_capture.h.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../util/log_capture.h"

namespace moxtest {

// True when the object under strName is one this binary created and tracked
// (see TrackShm): tests run in parallel, and once our object is unlinked
// another process may create its own under the same name.
bool ShmExists(const std::string& strName);
// Whole content of the object; empty when it does not exist.
std::string ReadShm(const std::string& strName);
// Creates (or replaces) a tracked object with exactly these bytes.
bool WriteShm(const std::string& strName, const std::string& bytes);
// Creates a sparse object of nSize bytes whose first bytes are `head`.
bool WriteSparseShm(const std::string& strName, const std::string& head, int64_t nSize);
// Creates an object of someone else's (mode 0600, these bytes) under a name
// that does not exist yet, and tracks it; false if the name is taken.
bool PlantShm(const std::string& strName, const std::string& bytes);
// Number of warning lines of text that contain needle.
size_t CountWarnings(const std::string& text, const std::string& needle);
// Little-endian 32-bit field of a byte string.
int32_t Int32At(const std::string& bytes, size_t nOffset);
void PutInt32(std::string& bytes, size_t nOffset, int32_t nValue);

// Remembers an object this binary just created (by name and inode): it must
// be gone when the binary ends (leftovers fail the run and are removed).
void TrackShm(const std::string& strName);

// Runs a program, collects its standard output; returns the exit status
// (-1 when it could not run or was killed).
int RunProgram(const std::vector<std::string>& argv, std::string& strOutput);

}  // namespace moxtest
