#define MOX_LOG_TAG "MOX-CACHE"
#include "mox_request_defines.h"

#include <memory>

#include <mox/json_value.h>
#include <mox/mox_log.h>

#include "mox_sort_key_reader.h"

// The member strKey of doc when it is an integer in 64-bit signed range
// (written as an integer, not a real), else null.
const Json::Value* IntMember(const CJsonValue& doc, const std::string& strKey) {
    const Json::Value& root = doc.Root();
    if (!root.isObject()) return nullptr;
    const Json::Value* pValue = root.find(strKey.data(), strKey.data() + strKey.size());
    if (pValue == nullptr || !pValue->isInt64() || pValue->type() == Json::realValue) return nullptr;
    return pValue;
}

bool CMOXSortFunction::IsValid() const {
    return comparison > MOX_COMPARE_NONE && comparison < MOX_COMPARE_MAX && keyType > MOX_VALUE_NONE &&
           keyType < MOX_VALUE_MAX && (readers != nullptr || blockNames != nullptr);
}

void CMOXSortFunction::GetKey(const ResultItemIndex& item, SMOXSortKey& out) const {
    assert(keyType > MOX_VALUE_NONE && keyType < MOX_VALUE_MAX);
    assert(readers != nullptr);
    assert(item.nDataBlockIndex >= 0 && item.nDataBlockIndex < (int)readers->size());
    const CCacheReader* pReader = (*readers)[item.nDataBlockIndex];
    assert(pReader != nullptr);

    out.nValue = 0;
    out.strValue.clear();
    std::string strItem;
    if (!pReader->GetItem(item.nItemIndex, strItem)) return;
    m_KeyFromDocument(std::move(strItem), out);
}

void CMOXSortFunction::GetKeys(const ResultItemIndex* items, size_t nCount, std::vector<SMOXSortKey>& keys) const {
    assert(keyType > MOX_VALUE_NONE && keyType < MOX_VALUE_MAX);
    assert(readers != nullptr || blockNames != nullptr);
    const size_t nBlocks = readers != nullptr ? readers->size() : blockNames->size();
    keys.assign(nCount, SMOXSortKey());
    CMOXSortKeyReader fast;
    std::string strItem;
    strItem.reserve(4096);
    std::unique_ptr<CCacheReader> pLoaded;  // the block of blockNames in use
    int nLoaded = -1;
    for (size_t i = 0; i < nCount; ++i) {
        const ResultItemIndex& item = items[i];
        assert(item.nDataBlockIndex >= 0 && static_cast<size_t>(item.nDataBlockIndex) < nBlocks);
        const CCacheReader* pReader = nullptr;
        if (readers != nullptr) {
            pReader = (*readers)[item.nDataBlockIndex];
        } else {
            if (item.nDataBlockIndex != nLoaded) {
                pLoaded.reset();  // one copy at a time
                pLoaded = std::make_unique<CCacheReader>((*blockNames)[item.nDataBlockIndex]);
                nLoaded = item.nDataBlockIndex;
            }
            pReader = pLoaded.get();
        }
        assert(pReader != nullptr);
        if (!pReader->GetItem(item.nItemIndex, strItem)) continue;
        if (fast.Read(strItem, key, keyType, keys[i])) continue;
        // Left to jsoncpp, on the item exactly as stored.
        keys[i] = SMOXSortKey();
        m_KeyFromDocument(strItem, keys[i]);
    }
}

void CMOXSortFunction::m_KeyFromDocument(const std::string& strItem, SMOXSortKey& out) const {
    // The last item of a block carries its padding NULs; the JSON reader stops
    // after the object and ignores them.
    CJsonValue doc(strItem);
    if (!doc.IsValid()) return;
    // Ask for the type first: a get of a missing or mistyped member would log
    // a warning at every comparison.
    if (keyType == MOX_VALUE_INT) {
        if (const Json::Value* pValue = IntMember(doc, key)) out.nValue = pValue->asInt64();
    } else {
        if (doc.IsString(key)) doc.Get(key, out.strValue);
    }
}

bool CMOXSortFunction::Less(const SMOXSortKey& key1, const SMOXSortKey& key2) const {
    assert(comparison > MOX_COMPARE_NONE && comparison < MOX_COMPARE_MAX);
    if (keyType == MOX_VALUE_INT)
        return comparison == MOX_COMPARE_ASC ? key1.nValue < key2.nValue : key1.nValue > key2.nValue;
    // std::string compares bytes as unsigned char, shorter first on a common prefix.
    return comparison == MOX_COMPARE_ASC ? key1.strValue < key2.strValue : key1.strValue > key2.strValue;
}

bool CMOXSortFunction::operator()(ResultItemIndex item1, ResultItemIndex item2) const {
    assert(comparison > MOX_COMPARE_NONE && comparison < MOX_COMPARE_MAX);
    assert(keyType > MOX_VALUE_NONE && keyType < MOX_VALUE_MAX);
    assert(readers != nullptr);
    SMOXSortKey key1, key2;
    GetKey(item1, key1);
    GetKey(item2, key2);
    return Less(key1, key2);
}
