#define MOX_LOG_TAG "MOX-ENGINE"

#include "mox_bus_text.h"

#include <cstdint>
#include <cstring>

#include <mox/mox_log.h>
#include <mox/mox_util.h>

namespace mox_bus {

namespace {
constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

// Valid UTF-8 without a NUL. Bus texts are mostly JSON, mostly ASCII: eight
// bytes at a time while they are ASCII and not NUL (a tenth of the cost of
// g_utf8_validate per byte), and GLib from the first word that is not.
bool IsValid(std::string_view text) {
    constexpr uint64_t kHigh = 0x8080808080808080ull, kLow = 0x0101010101010101ull;
    size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
        uint64_t word;
        memcpy(&word, text.data() + i, sizeof(word));
        if ((word & kHigh) != 0 || ((word - kLow) & ~word & kHigh) != 0) break;
    }
    // Splits at a character boundary: what is before is ASCII.
    return g_utf8_validate_len(text.data() + i, text.size() - i, nullptr);
}
}  // namespace

std::string ValidUtf8(std::string_view text, const char* what) {
    const gchar* end = nullptr;
    if (IsValid(text)) return std::string(text);

    std::string out;
    out.reserve(text.size() + 16);
    size_t nRepaired = 0;
    std::string_view rest = text;
    while (!rest.empty()) {
        if (g_utf8_validate_len(rest.data(), rest.size(), &end)) {
            out.append(rest);
            break;
        }
        size_t good = static_cast<size_t>(end - rest.data());
        out.append(rest.data(), good);
        out.append(kReplacement);
        ++nRepaired;
        // Skip one byte: the next round resynchronises on the following one.
        rest.remove_prefix(good + 1);
    }
    MOX_WARN("%s: %zu invalid UTF-8 byte(s) replaced before sending.", what ? what : "text", nRepaired);
    return out;
}

GVariant* NewString(std::string_view text, const char* what) {
    // Valid text (the usual case) is validated once and copied once, straight
    // into the variant's bytes; g_variant_new_string would validate and copy
    // again. A serialized "s" is the text and a NUL, and validation has
    // already ruled out an embedded NUL, so the trusted variant is normal.
    std::string repaired;
    if (!IsValid(text)) {
        repaired = ValidUtf8(text, what);
        text = repaired;
    }
    auto* bytes = static_cast<char*>(g_malloc(text.size() + 1));
    memcpy(bytes, text.data(), text.size());
    bytes[text.size()] = '\0';
    GBytes* serialized = g_bytes_new_take(bytes, text.size() + 1);
    GVariant* value = g_variant_new_from_bytes(G_VARIANT_TYPE_STRING, serialized, TRUE);
    g_bytes_unref(serialized);
    return value;
}

GVariant* NewStringTuple(std::string_view text, const char* what) {
    GVariant* child = NewString(text, what);
    return g_variant_new_tuple(&child, 1);
}

std::string ForLog(std::string_view text) {
    return CMOXUtil::CutForLog(std::string(text), kMaxLoggedBytes);
}

}  // namespace mox_bus
