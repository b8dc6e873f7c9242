#define MOX_LOG_TAG "MOX-ENGINE"

#include "mox_bus_text.h"

#include <mox/mox_log.h>
#include <mox/mox_util.h>

namespace mox_bus {

namespace {
constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD
}

std::string ValidUtf8(std::string_view text, const char* what) {
    const gchar* end = nullptr;
    if (g_utf8_validate_len(text.data(), text.size(), &end)) return std::string(text);

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
    std::string valid = ValidUtf8(text, what);
    return g_variant_new_string(valid.c_str());
}

GVariant* NewStringTuple(std::string_view text, const char* what) {
    GVariant* child = NewString(text, what);
    return g_variant_new_tuple(&child, 1);
}

std::string ForLog(std::string_view text) {
    return CMOXUtil::CutForLog(std::string(text), kMaxLoggedBytes);
}

}  // namespace mox_bus
