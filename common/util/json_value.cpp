#define MOX_LOG_TAG "MOX-COMMON"
#include <mox/mox_log.h>

#include <mox/json_value.h>

#include <cmath>
#include <exception>
#include <limits>

// Reader(text, root, true) and FastWriter's one-line output are the wire
// format clients and plug-ins already depend on; the CharReader/StreamWriter
// replacements differ in details (trailing newline, comment handling).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#include <json/reader.h>
#include <json/writer.h>
#pragma GCC diagnostic pop

namespace {

// Client texts can be megabytes long; the parse warning shows only their head.
constexpr int kMaxLoggedText = 4096;

void LogException(const char* szOperation, const std::exception& e) {
    MOX_WARN("Exception Handled by[%s]: [%s] \n", szOperation, e.what());
}

// A double read back as a 64-bit integer: values outside the range saturate
// and NaN becomes 0, instead of the undefined float-to-integer conversion.
long long ClampToLongLong(double dValue) {
    if (std::isnan(dValue)) return 0;
    // 2^63 is exactly representable; every double below it converts safely.
    constexpr double kLimit = 9223372036854775808.0;
    if (dValue >= kLimit) return std::numeric_limits<long long>::max();
    if (dValue < -kLimit) return std::numeric_limits<long long>::min();
    return static_cast<long long>(dValue);
}

// The member's type decides: integral reals such as 2.0 are not ints, so a
// member written as a double never reads back as an int.
bool IsIntValue(const Json::Value& value) {
    return value.isInt() && value.type() != Json::realValue;
}

bool IsUIntValue(const Json::Value& value) {
    return value.isUInt() && value.type() != Json::realValue;
}

}  // namespace

CJsonValue::CJsonValue() : m_root(Json::nullValue), m_bValid(true) {
    m_root.clear();
}

CJsonValue::CJsonValue(const std::string& strText) : m_root(Json::nullValue), m_bValid(false) {
    bool bParsed = false;
    try {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        Json::Reader reader;
#pragma GCC diagnostic pop
        // The reader throws when nesting exceeds its stack limit.
        bParsed = reader.parse(strText, m_root, true);
    } catch (const std::exception& e) {
        LogException("CJsonValue", e);
        bParsed = false;
    }
    if (!bParsed) {
        m_root = Json::Value(Json::nullValue);
        MOX_WARN("Json::Reader parse string[%.*s] faild.", kMaxLoggedText, strText.c_str());
        return;
    }
    // Arrays and scalars parse but are not documents of this system.
    m_bValid = m_root.type() == Json::objectValue;
}

CJsonValue::~CJsonValue() = default;

void CJsonValue::Clear() {
    if (!m_bValid) {
        MOX_WARN("Clear fail. jsonvalue is invalid type[%d].", m_root.type());
        return;
    }
    m_root.clear();
}

std::string CJsonValue::ToString() const {
    if (!m_bValid) {
        MOX_WARN("ToString fail. jsonvalue is invalid type[%d].", m_root.type());
        return std::string();
    }
    try {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        Json::FastWriter writer;
#pragma GCC diagnostic pop
        return writer.write(m_root);
    } catch (const std::exception& e) {
        LogException("ToString", e);
        return std::string();
    }
}

std::string CJsonValue::ToStyledString() const {
    if (!m_bValid) {
        MOX_WARN("ToStyledString fail. jsonvalue is invalid type[%d].", m_root.type());
        return std::string();
    }
    try {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        Json::StyledWriter writer;
#pragma GCC diagnostic pop
        return writer.write(m_root);
    } catch (const std::exception& e) {
        LogException("ToStyledString", e);
        return std::string();
    }
}

bool CJsonValue::Has(const std::string& strKey) const {
    try {
        // Throws on an array or scalar root, which an invalid document may hold.
        return m_root.isMember(strKey);
    } catch (const std::exception& e) {
        LogException("Has", e);
        return false;
    }
}

bool CJsonValue::GetKeys(std::vector<std::string>& keys) const {
    if (!m_bValid) {
        MOX_WARN("GetKeys fail. jsonvalue is invalid type[%d].", m_root.type());
        return false;
    }
    try {
        keys = m_root.getMemberNames();
        return true;
    } catch (const std::exception& e) {
        LogException("GetKeys", e);
        return false;
    }
}

bool CJsonValue::Remove(const std::string& strKey) {
    if (!m_bValid) {
        // Shares the GetKeys text on purpose: log readers grep for it.
        MOX_WARN("GetKeys fail. jsonvalue is invalid type[%d].", m_root.type());
        return false;
    }
    try {
        if (m_root.isMember(strKey)) m_root.removeMember(strKey);
        return true;
    } catch (const std::exception& e) {
        LogException("Remove", e);
        return false;
    }
}

bool CJsonValue::IsInt(const std::string& strKey) const {
    try {
        return IsIntValue(m_root.get(strKey, Json::Value(Json::nullValue)));
    } catch (const std::exception& e) {
        LogException("IsInt", e);
        return false;
    }
}

bool CJsonValue::IsString(const std::string& strKey) const {
    try {
        return m_root.get(strKey, Json::Value(Json::nullValue)).isString();
    } catch (const std::exception& e) {
        LogException("IsString", e);
        return false;
    }
}

bool CJsonValue::SetValue(const std::string& strKey, const Json::Value& value) {
    if (!m_bValid) {
        MOX_WARN("Set fail. jsonvalue is invalid type[%d].", m_root.type());
        return false;
    }
    try {
        m_root[strKey] = value;
        return true;
    } catch (const std::exception& e) {
        LogException("Set", e);
        return false;
    }
}

bool CJsonValue::Set(const std::string& strKey, bool bValue) {
    return SetValue(strKey, Json::Value(bValue));
}

bool CJsonValue::Set(const std::string& strKey, int nValue) {
    return SetValue(strKey, Json::Value(nValue));
}

bool CJsonValue::Set(const std::string& strKey, unsigned int nValue) {
    return SetValue(strKey, Json::Value(nValue));
}

bool CJsonValue::Set(const std::string& strKey, long long llValue) {
    return SetValue(strKey, Json::Value(static_cast<Json::Int64>(llValue)));
}

bool CJsonValue::Set(const std::string& strKey, unsigned long long ullValue) {
    return SetValue(strKey, Json::Value(static_cast<Json::UInt64>(ullValue)));
}

bool CJsonValue::Set(const std::string& strKey, double dValue) {
    return SetValue(strKey, Json::Value(dValue));
}

bool CJsonValue::Set(const std::string& strKey, const std::string& strValue) {
    return SetValue(strKey, Json::Value(strValue));
}

bool CJsonValue::Set(const std::string& strKey, const char* szValue) {
    if (szValue == nullptr) {
        MOX_WARN("Set fail. value of strKey[%s] is NULL.", strKey.c_str());
        return false;
    }
    return SetValue(strKey, Json::Value(szValue));
}

bool CJsonValue::Set(const std::string& strKey, const std::vector<std::string>& values) {
    if (!m_bValid) {
        MOX_WARN("Set fail. jsonvalue is invalid type[%d].", m_root.type());
        return false;
    }
    try {
        // Built aside first so that a member of another type is left intact.
        Json::Value array = m_root.get(strKey, Json::Value(Json::arrayValue));
        if (array.isNull()) array = Json::Value(Json::arrayValue);
        for (const std::string& value : values) array.append(Json::Value(value));
        m_root[strKey] = std::move(array);
        return true;
    } catch (const std::exception& e) {
        LogException("Set", e);
        return false;
    }
}

bool CJsonValue::m_Fetch(const std::string& strKey, Json::Value& value) const {
    if (!m_bValid) {
        MOX_WARN("Get fail. jsonvalue is invalid type[%d].", m_root.type());
        return false;
    }
    try {
        if (!m_root.isMember(strKey)) {
            MOX_WARN("NO strKey[%s] in josn.", strKey.c_str());
            return false;
        }
        value = m_root.get(strKey, Json::Value(Json::nullValue));
        return true;
    } catch (const std::exception& e) {
        LogException("Get", e);
        return false;
    }
}

bool CJsonValue::Get(const std::string& strKey, bool& bValue) const {
    Json::Value value;
    if (!m_Fetch(strKey, value)) return false;
    if (!value.isBool()) {
        MOX_WARN("value.type[%d].", value.type());
        return false;
    }
    bValue = value.asBool();
    return true;
}

bool CJsonValue::Get(const std::string& strKey, int& nValue) const {
    Json::Value value;
    if (!m_Fetch(strKey, value)) return false;
    if (!IsIntValue(value)) {
        MOX_WARN("value.type[%d].", value.type());
        return false;
    }
    nValue = value.asInt();
    return true;
}

bool CJsonValue::Get(const std::string& strKey, double& dValue) const {
    Json::Value value;
    if (!m_Fetch(strKey, value)) return false;
    if (!value.isDouble()) {
        MOX_WARN("value.type[%d].", value.type());
        return false;
    }
    dValue = value.asDouble();
    return true;
}

bool CJsonValue::Get(const std::string& strKey, std::string& strValue) const {
    Json::Value value;
    if (!m_Fetch(strKey, value)) return false;
    if (!value.isString()) {
        MOX_WARN("value.type[%d].", value.type());
        return false;
    }
    strValue = value.asString();
    return true;
}

bool CJsonValue::Get(const std::string& strKey, long long& llValue) const {
    Json::Value value;
    if (!m_Fetch(strKey, value)) return false;
    // Read through a double: writers store 64-bit values with the long long
    // setter, and the library also classes integers as doubles.
    if (!value.isDouble()) {
        MOX_WARN("value.type[%d].", value.type());
        return false;
    }
    llValue = ClampToLongLong(value.asDouble());
    return true;
}

bool CJsonValue::Get(const std::string& strKey, unsigned int& nValue) const {
    Json::Value value;
    if (!m_Fetch(strKey, value)) return false;
    if (!IsUIntValue(value)) {
        MOX_WARN("value.type[%d].", value.type());
        return false;
    }
    nValue = value.asUInt();
    return true;
}

bool CJsonValue::Get(const std::string& strKey, std::vector<int>& values) const {
    Json::Value value;
    if (!m_Fetch(strKey, value)) return false;
    if (!value.isArray()) {
        MOX_WARN("value.type[%d].", value.type());
        return false;
    }
    // Converted aside so that an unconvertible element leaves values untouched.
    std::vector<int> converted;
    try {
        converted.reserve(value.size());
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) converted.push_back(value[i].asInt());
    } catch (const std::exception& e) {
        LogException("Get", e);
        return false;
    }
    values.insert(values.end(), converted.begin(), converted.end());
    return true;
}

bool CJsonValue::Get(const std::string& strKey, std::vector<std::string>& values) const {
    Json::Value value;
    if (!m_Fetch(strKey, value)) return false;
    if (!value.isArray()) {
        MOX_WARN("value.type[%d].", value.type());
        return false;
    }
    std::vector<std::string> converted;
    try {
        converted.reserve(value.size());
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) converted.push_back(value[i].asString());
    } catch (const std::exception& e) {
        LogException("Get", e);
        return false;
    }
    for (std::string& s : converted) values.push_back(std::move(s));
    return true;
}

std::string CJsonValue::StringOr(const std::string& strKey, const std::string& strDefault) const {
    if (!m_bValid || !m_root.isObject()) return strDefault;
    const Json::Value* pMember = m_root.find(strKey.data(), strKey.data() + strKey.size());
    return pMember && pMember->isString() ? pMember->asString() : strDefault;
}
