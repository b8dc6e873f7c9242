// Definitions shared by the request commands: the sort rule of result lists.
//
// CMOXSortFunction orders result-list entries by one JSON member ("key") of
// the items they point at: items are read from the data-block readers whose
// positions equal the list's block slots, parsed as JSON objects, and compared
// as 64-bit integers (a missing or non-integer member is 0) or as byte strings (a
// missing member is empty; on a common prefix the shorter comes first).
//
// operator() is the strict "comes before" predicate and parses both items on
// every call. CResultListBuilder::SortItems reads every item's key once with
// GetKeys() and compares the keys with Less(). GetKeys() extracts the member
// without a full document where it can (CMOXSortKeyReader) and gives exactly
// GetKey()'s keys, so both ways give the same order for the same input.
//
// key, keyType and comparison come from the client's command document, so
// IsValid() must be checked before sorting (SortItems does); calling the
// predicate with unusable settings is a programming error (asserted).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <mox/cache_reader.h>
#include <mox/mox_cache_defines.h>

// Both enumerations have int as their underlying type: their values come
// from client documents, and any int must be a valid (if unusable) value.
typedef enum : int {
    MOX_VALUE_NONE = 0,
    MOX_VALUE_INT = 1,
    MOX_VALUE_STRING = 2,
    MOX_VALUE_MAX = 3,
} MOX_VALUETYPE;

typedef enum : int {
    MOX_COMPARE_NONE = 0,
    MOX_COMPARE_ASC = 1,
    MOX_COMPARE_DESC = 2,
    MOX_COMPARE_MAX = 3,
} MOX_COMPARETYPE;

// The sort key of one item, as read by CMOXSortFunction::GetKey.
struct SMOXSortKey {
    int64_t nValue = 0;    // MOX_VALUE_INT
    std::string strValue;  // MOX_VALUE_STRING
};

class CJsonValue;
namespace Json {
class Value;
}

// The member strKey of doc when it is an integer in 64-bit signed range
// (written as an integer, not a real): the sort's reading of integer keys.
const Json::Value* IntMember(const CJsonValue& doc, const std::string& strKey);

class CMOXSortFunction {
public:
    CMOXSortFunction() = default;

    // Settings usable: comparison and keyType inside their bounds, readers
    // (or, for GetKeys() only, blockNames) set.
    bool IsValid() const;
    // Reads item's string from its data-block reader and extracts the key. An
    // item that cannot be read or parsed has the zero key (0 or empty).
    void GetKey(const ResultItemIndex& item, SMOXSortKey& out) const;
    // The keys of items[0 .. nCount - 1], as GetKey() reads them, into keys.
    // With blockNames set instead of readers, each block is loaded when its
    // first item comes and let go when another block's item does, so that a
    // list of many parts holds one part's copy at a time (its items come
    // grouped by block, as the list builder adds them).
    void GetKeys(const ResultItemIndex* items, size_t nCount, std::vector<SMOXSortKey>& keys) const;
    // True when key1 comes before key2.
    bool Less(const SMOXSortKey& key1, const SMOXSortKey& key2) const;
    bool operator()(ResultItemIndex item1, ResultItemIndex item2) const;

    std::string key;
    MOX_VALUETYPE keyType = MOX_VALUE_NONE;
    MOX_COMPARETYPE comparison = MOX_COMPARE_NONE;
    // Position = block slot of the list being built. Not owned.
    std::vector<CCacheReader*>* readers = nullptr;
    // Position = block slot: the blocks' names, for GetKeys(). Not owned.
    const std::vector<std::string>* blockNames = nullptr;

private:
    // The key of one item's text through CJsonValue.
    void m_KeyFromDocument(const std::string& strItem, SMOXSortKey& out) const;
};
