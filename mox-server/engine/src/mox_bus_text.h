// Texts bound for the bus. Every string the engine puts into a GVariant
// (replies, signal payloads, JSON texts) goes through NewString, the one place
// where invalid UTF-8 or an embedded NUL is repaired instead of reaching
// g_variant_new_string's assertion. Also the bounds on client arguments and
// on how much of an argument is logged. Thread-safe; no state.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <glib.h>

namespace mox_bus {

// Largest string argument a method accepts; larger ones get the method's
// failure reply and a warning.
constexpr size_t kMaxArgumentBytes = 1u << 20;
// Logged arguments are cut to this many bytes, followed by a marker.
constexpr size_t kMaxLoggedBytes = 4096;

// `text` as valid UTF-8: every invalid sequence and every NUL byte becomes
// U+FFFD; a repair is logged as a warning naming `what`.
std::string ValidUtf8(std::string_view text, const char* what);

// A floating "s" GVariant holding ValidUtf8(text).
GVariant* NewString(std::string_view text, const char* what);

// A floating "(s)" tuple holding ValidUtf8(text): the usual reply or payload.
GVariant* NewStringTuple(std::string_view text, const char* what);

// `text` cut to kMaxLoggedBytes (on a character boundary when it is UTF-8)
// followed by "...(N bytes)" when it was longer.
std::string ForLog(std::string_view text);

}  // namespace mox_bus
