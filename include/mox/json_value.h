// CJsonValue: the JSON document of every command, storage list, scan result
// and plug-in answer. A thin wrapper over jsoncpp that never throws: every
// failure is a warning (tag "MOX-COMMON") and a false or empty result.
// A document parsed from text is valid only when its top level is an object;
// an invalid document stays invalid for its whole life. Not thread-safe: one
// instance is used by one thread at a time.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <string>
#include <vector>

#include <json/value.h>

class CJsonValue {
public:
    CJsonValue();
    explicit CJsonValue(const std::string& strText);
    ~CJsonValue();
    CJsonValue(const CJsonValue&) = default;
    CJsonValue& operator=(const CJsonValue&) = default;

    bool IsValid() const { return m_bValid; }
    void Clear();
    // Compact one-line text ending with a newline; empty when invalid.
    std::string ToString() const;
    // Indented multi-line text; empty when invalid.
    std::string ToStyledString() const;

    bool Has(const std::string& strKey) const;
    bool GetKeys(std::vector<std::string>& keys) const;
    bool Remove(const std::string& strKey);
    bool IsInt(const std::string& strKey) const;
    bool IsString(const std::string& strKey) const;

    bool Set(const std::string& strKey, bool bValue);
    bool Set(const std::string& strKey, int nValue);
    bool Set(const std::string& strKey, unsigned int nValue);
    bool Set(const std::string& strKey, long long llValue);
    bool Set(const std::string& strKey, unsigned long long ullValue);
    bool Set(const std::string& strKey, double dValue);
    bool Set(const std::string& strKey, const std::string& strValue);
    bool Set(const std::string& strKey, const char* szValue);
    // Appends to the array under strKey (created when absent).
    bool Set(const std::string& strKey, const std::vector<std::string>& values);

    bool Get(const std::string& strKey, bool& bValue) const;
    bool Get(const std::string& strKey, int& nValue) const;
    bool Get(const std::string& strKey, double& dValue) const;
    bool Get(const std::string& strKey, std::string& strValue) const;
    bool Get(const std::string& strKey, long long& llValue) const;
    bool Get(const std::string& strKey, unsigned int& nValue) const;
    bool Get(const std::string& strKey, std::vector<int>& values) const;
    bool Get(const std::string& strKey, std::vector<std::string>& values) const;
    // The string member strKey, or strDefault when the document is invalid or
    // the member is absent or not a string; never warns (optional members).
    std::string StringOr(const std::string& strKey, const std::string& strDefault = std::string()) const;

    // The underlying document, for code that needs members of other shapes
    // (nested objects, arrays of objects).
    const Json::Value& Root() const { return m_root; }
    // Replaces a member with an arbitrary JSON value; false when invalid.
    bool SetValue(const std::string& strKey, const Json::Value& value);

private:
    // Copies the member strKey into value; false (with its warning) when the
    // document is invalid or the member is missing.
    bool m_Fetch(const std::string& strKey, Json::Value& value) const;

    Json::Value m_root;
    bool m_bValid;
};

#pragma GCC visibility pop
