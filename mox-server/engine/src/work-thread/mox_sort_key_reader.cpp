#define MOX_LOG_TAG "MOX-CACHE"
#include "mox_sort_key_reader.h"

#include <climits>
#include <exception>

#include <simdjson.h>

#include <mox/mox_log.h>

namespace {

// Far below jsoncpp's own nesting limit, so a text this reader accepts is
// never one jsoncpp refuses for its depth.
constexpr size_t kMaxDepth = 64;
constexpr size_t kInitialCapacity = 64 * 1024;

}  // namespace

struct CMOXSortKeyReader::Impl {
    simdjson::dom::parser parser;
    bool bUsable = false;
};

CMOXSortKeyReader::CMOXSortKeyReader() : m_pImpl(new Impl) {
    m_pImpl->bUsable = m_pImpl->parser.allocate(kInitialCapacity, kMaxDepth) == simdjson::SUCCESS;
    if (!m_pImpl->bUsable) MOX_WARN("sort key parser could not allocate; keys are read the slow way");
}

CMOXSortKeyReader::~CMOXSortKeyReader() = default;

bool CMOXSortKeyReader::Read(std::string& text, const std::string& strKey, MOX_VALUETYPE keyType,
                             SMOXSortKey& out) {
    if (!m_pImpl->bUsable) return false;
    // The last item of a block carries its padding NULs; jsoncpp stops after
    // the object and ignores them.
    size_t nLen = text.size();
    while (nLen > 0 && text[nLen - 1] == '\0') --nLen;
    text.resize(nLen);
    // Only an object parses to a key; a BOM or anything before the brace is
    // left to jsoncpp.
    size_t nFirst = text.find_first_not_of(" \t\r\n");
    if (nFirst == std::string::npos || text[nFirst] != '{') return false;
    try {
        // simdjson reads up to SIMDJSON_PADDING bytes past the text.
        if (text.capacity() - nLen < simdjson::SIMDJSON_PADDING) text.reserve(nLen + simdjson::SIMDJSON_PADDING);
        simdjson::dom::element root;
        if (m_pImpl->parser.parse(text.data(), nLen, false).get(root) != simdjson::SUCCESS) return false;
        simdjson::dom::object object;
        if (root.get_object().get(object) != simdjson::SUCCESS) return false;
        out.nValue = 0;
        out.strValue.clear();
        // jsoncpp keeps the last of duplicate members.
        simdjson::dom::element value;
        bool bFound = false;
        for (simdjson::dom::key_value_pair field : object) {
            if (field.key == strKey) {
                value = field.value;
                bFound = true;
            }
        }
        if (!bFound) return true;
        if (keyType == MOX_VALUE_INT) {
            int64_t llValue = 0;
            // A uint64 above INT64_MAX is out of int range anyway; doubles
            // (2.0 included) are not ints for jsoncpp either.
            if (value.type() == simdjson::dom::element_type::INT64 && value.get_int64().get(llValue) == simdjson::SUCCESS &&
                llValue >= INT_MIN && llValue <= INT_MAX)
                out.nValue = static_cast<int>(llValue);
        } else {
            std::string_view view;
            if (value.get_string().get(view) == simdjson::SUCCESS) out.strValue.assign(view.data(), view.size());
        }
        return true;
    } catch (const std::exception& e) {
        MOX_WARN("sort key extraction failed: %s", e.what());
        return false;
    }
}
