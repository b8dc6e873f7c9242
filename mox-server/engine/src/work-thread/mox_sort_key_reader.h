// CMOXSortKeyReader reads the sort key of result-list items: one top-level
// member of a JSON object, found in a single pass over the text without
// building a document.
//
// The key must be exactly what CJsonValue gives (the predicate's reading):
// an integer member in 64-bit range (file sizes pass 2 GiB), or a string member; 0 or empty otherwise,
// and for a text that is not an object. Read() therefore only answers for
// texts that jsoncpp's reader provably reads alike: one strict JSON object,
// surrounded by whitespace only, nesting at most 64 containers,
// escapes well formed (surrogates in pairs), numbers in strict syntax whose
// magnitude cannot overflow a double (jsoncpp fails the whole text on such a
// number). Duplicate members: the last one wins, as in jsoncpp. String bytes
// are taken verbatim, as jsoncpp does, so raw control or non-UTF-8 bytes need
// no special case. Anything else (comments, a BOM, trailing text, leading
// zeros, lone surrogates, deep nesting, huge exponents ...) makes Read()
// return false, and the caller asks CJsonValue instead.
//
// Not thread-safe: one reader per sorting thread; it keeps a scratch buffer
// for escaped member names and a quote index between calls.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mox_request_defines.h"

class CMOXSortKeyReader {
public:
    CMOXSortKeyReader() = default;
    CMOXSortKeyReader(const CMOXSortKeyReader&) = delete;
    CMOXSortKeyReader& operator=(const CMOXSortKeyReader&) = delete;

    // Extracts member strKey of text as keyType into out. Trailing NULs (the
    // padding after a block's last item) are ignored; the scan relies on the
    // NUL that std::string keeps after its last byte. False when the text is
    // outside what this reader can judge; out is then unspecified.
    bool Read(const std::string& text, const std::string& strKey, MOX_VALUETYPE keyType, SMOXSortKey& out);

private:
    // Decoded name of a member whose name has escapes.
    std::string m_strName;
    // Quote offsets of the text being read; kept to spare an allocation per item.
    std::vector<uint32_t> m_quotes;
};
