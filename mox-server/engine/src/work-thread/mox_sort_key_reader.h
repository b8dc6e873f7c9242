// CMOXSortKeyReader reads the sort key of result-list items: one member of a
// JSON object, extracted without building a jsoncpp document.
//
// The key must be exactly what CJsonValue gives (the predicate's reading):
// an integer member in int range, or a string member; 0 or empty otherwise,
// and for a text that is not an object. Read() therefore only answers for
// texts both parsers read alike: a strictly valid JSON object (simdjson
// validates the whole text, UTF-8 included) of bounded depth, with the last
// of duplicate members winning as in jsoncpp. Anything else (comments,
// trailing text, raw control characters, lone surrogates, numbers out of
// range, deep nesting) makes Read() return false, and the caller asks
// CJsonValue instead.
//
// Not thread-safe: one reader per sorting thread; it keeps its parse buffers
// between calls.
#pragma once

#include <memory>
#include <string>

#include "mox_request_defines.h"

class CMOXSortKeyReader {
public:
    CMOXSortKeyReader();
    ~CMOXSortKeyReader();
    CMOXSortKeyReader(const CMOXSortKeyReader&) = delete;
    CMOXSortKeyReader& operator=(const CMOXSortKeyReader&) = delete;

    // Extracts member strKey of text as keyType into out. text may be
    // resized (trailing NULs dropped) and its capacity grown. False when the
    // text is outside what this reader can judge; out is then unspecified.
    bool Read(std::string& text, const std::string& strKey, MOX_VALUETYPE keyType, SMOXSortKey& out);

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};
