#include "mox_sort_key_reader.h"

#include <climits>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace {

// Far below jsoncpp's own nesting limit, so a text accepted here is never one
// jsoncpp refuses for its depth; also bounds this scanner's recursion.
constexpr int kMaxDepth = 64;
// A number accepted here must stay below DBL_MAX (about 1.8e308) whatever its
// digits, or jsoncpp rejects the text; 10^300 leaves a wide margin.
constexpr long kMaxMagnitudeDigits = 300;
// Longer exponents are left to jsoncpp rather than summed here.
constexpr int kMaxExponentDigits = 4;

// JSON whitespace; jsoncpp skips exactly these four.
inline bool IsSpace(char c) {
    return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

inline const char* SkipSpace(const char* p, const char* end) {
    while (p < end && IsSpace(*p)) ++p;
    return p;
}

inline bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

inline int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Four hex digits at p (p + 4 <= end checked by the caller); -1 if not hex.
inline long Hex4(const char* p) {
    long nValue = 0;
    for (int i = 0; i < 4; ++i) {
        int nDigit = HexDigit(p[i]);
        if (nDigit < 0) return -1;
        nValue = nValue * 16 + nDigit;
    }
    return nValue;
}

// The first '"' or '\\' at or after p, or end. Item texts are mostly string
// bytes, so this is where the time goes.
inline const char* FindQuoteOrEscape(const char* p, const char* end) {
#ifdef __SSE2__
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i escape = _mm_set1_epi8('\\');
    while (end - p >= 16) {
        __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        int nMask = _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(chunk, quote), _mm_cmpeq_epi8(chunk, escape)));
        if (nMask != 0) return p + __builtin_ctz(static_cast<unsigned>(nMask));
        p += 16;
    }
#endif
    while (p < end && *p != '"' && *p != '\\') ++p;
    return p;
}

// Scans the body of a string whose opening quote is just before p. Returns
// the position of the closing quote, or nullptr for a string this reader does
// not accept (unterminated, unknown escape, bad or unpaired surrogate: where
// jsoncpp fails, or decodes an unpaired surrogate to non-UTF-8 bytes).
// bEscaped is set when the body has escapes.
const char* ScanString(const char* p, const char* end, bool& bEscaped) {
    for (;;) {
        p = FindQuoteOrEscape(p, end);
        if (p == end) return nullptr;
        if (*p == '"') return p;
        bEscaped = true;
        if (end - p < 2) return nullptr;
        switch (p[1]) {
            case '"': case '\\': case '/': case 'b': case 'f': case 'n': case 'r': case 't':
                p += 2;
                break;
            case 'u': {
                if (end - p < 6) return nullptr;
                long nUnit = Hex4(p + 2);
                if (nUnit < 0 || (nUnit >= 0xDC00 && nUnit <= 0xDFFF)) return nullptr;
                p += 6;
                if (nUnit >= 0xD800 && nUnit <= 0xDBFF) {
                    if (end - p < 6 || p[0] != '\\' || p[1] != 'u') return nullptr;
                    long nLow = Hex4(p + 2);
                    if (nLow < 0xDC00 || nLow > 0xDFFF) return nullptr;
                    p += 6;
                }
                break;
            }
            default:
                return nullptr;
        }
    }
}

// Appends the UTF-8 form of a code point, as jsoncpp encodes it.
void AppendUtf8(unsigned long nCode, std::string& out) {
    if (nCode < 0x80) {
        out += static_cast<char>(nCode);
    } else if (nCode < 0x800) {
        out += static_cast<char>(0xC0 | (nCode >> 6));
        out += static_cast<char>(0x80 | (nCode & 0x3F));
    } else if (nCode < 0x10000) {
        out += static_cast<char>(0xE0 | (nCode >> 12));
        out += static_cast<char>(0x80 | ((nCode >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (nCode & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (nCode >> 18));
        out += static_cast<char>(0x80 | ((nCode >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((nCode >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (nCode & 0x3F));
    }
}

// Decodes a string body [p, end) that ScanString() accepted.
void DecodeString(const char* p, const char* end, std::string& out) {
    out.clear();
    while (p < end) {
        const char* pEscape = static_cast<const char*>(memchr(p, '\\', static_cast<size_t>(end - p)));
        if (pEscape == nullptr) pEscape = end;
        out.append(p, static_cast<size_t>(pEscape - p));
        p = pEscape;
        if (p == end) break;
        char c = p[1];
        p += 2;
        switch (c) {
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u': {
                unsigned long nCode = static_cast<unsigned long>(Hex4(p));
                p += 4;
                if (nCode >= 0xD800 && nCode <= 0xDBFF) {
                    nCode = 0x10000 + ((nCode & 0x3FF) << 10) + (static_cast<unsigned long>(Hex4(p + 2)) & 0x3FF);
                    p += 6;
                }
                AppendUtf8(nCode, out);
                break;
            }
            default: out += c; break;  // '"', '\\', '/'
        }
    }
}

// A number in strict JSON syntax at p. Returns its end, or nullptr for one
// this reader does not accept. bInteger: no fraction and no exponent.
const char* ScanNumber(const char* p, const char* end, bool& bInteger) {
    if (p < end && *p == '-') ++p;
    const char* pDigits = p;
    if (p == end) return nullptr;
    if (*p == '0') {
        ++p;
    } else if (*p >= '1' && *p <= '9') {
        while (p < end && IsDigit(*p)) ++p;
    } else {
        return nullptr;
    }
    const long nIntegerDigits = p - pDigits;
    bInteger = true;
    if (p < end && *p == '.') {
        ++p;
        if (p == end || !IsDigit(*p)) return nullptr;
        while (p < end && IsDigit(*p)) ++p;
        bInteger = false;
    }
    long nExponent = 0;
    if (p < end && (*p == 'e' || *p == 'E')) {
        ++p;
        bool bNegative = false;
        if (p < end && (*p == '+' || *p == '-')) bNegative = *p++ == '-';
        if (p == end || !IsDigit(*p)) return nullptr;
        while (p < end && *p == '0') ++p;
        int nDigits = 0;
        for (; p < end && IsDigit(*p); ++p) {
            if (++nDigits > kMaxExponentDigits) return nullptr;
            nExponent = nExponent * 10 + (*p - '0');
        }
        if (bNegative) nExponent = -nExponent;
        bInteger = false;
    }
    // Underflow is harmless (it reads as 0 or a subnormal); only overflow fails.
    if (nIntegerDigits + nExponent > kMaxMagnitudeDigits) return nullptr;
    return p;
}

inline const char* ScanLiteral(const char* p, const char* end, const char* szWord, size_t nLen) {
    if (static_cast<size_t>(end - p) < nLen || memcmp(p, szWord, nLen) != 0) return nullptr;
    return p + nLen;
}

// Any JSON value at p, nDepth containers deep. Returns its end or nullptr.
const char* ScanValue(const char* p, const char* end, int nDepth) {
    if (p == end) return nullptr;
    switch (*p) {
        case '"': {
            bool bEscaped = false;
            const char* pQuote = ScanString(p + 1, end, bEscaped);
            return pQuote ? pQuote + 1 : nullptr;
        }
        case '{': {
            if (nDepth >= kMaxDepth) return nullptr;
            p = SkipSpace(p + 1, end);
            if (p < end && *p == '}') return p + 1;
            for (;;) {
                if (p == end || *p != '"') return nullptr;
                bool bEscaped = false;
                p = ScanString(p + 1, end, bEscaped);
                if (!p) return nullptr;
                p = SkipSpace(p + 1, end);
                if (p == end || *p != ':') return nullptr;
                p = ScanValue(SkipSpace(p + 1, end), end, nDepth + 1);
                if (!p) return nullptr;
                p = SkipSpace(p, end);
                if (p == end) return nullptr;
                if (*p == '}') return p + 1;
                if (*p != ',') return nullptr;
                p = SkipSpace(p + 1, end);
            }
        }
        case '[': {
            if (nDepth >= kMaxDepth) return nullptr;
            p = SkipSpace(p + 1, end);
            if (p < end && *p == ']') return p + 1;
            for (;;) {
                p = ScanValue(p, end, nDepth + 1);
                if (!p) return nullptr;
                p = SkipSpace(p, end);
                if (p == end) return nullptr;
                if (*p == ']') return p + 1;
                if (*p != ',') return nullptr;
                p = SkipSpace(p + 1, end);
            }
        }
        case 't': return ScanLiteral(p, end, "true", 4);
        case 'f': return ScanLiteral(p, end, "false", 5);
        case 'n': return ScanLiteral(p, end, "null", 4);
        default: {
            bool bInteger = false;
            return ScanNumber(p, end, bInteger);
        }
    }
}

// The int jsoncpp reads from an integer literal [p, end) in strict syntax:
// its value when it lies in int range, else 0 (outside int range it is an
// unsigned, a 64-bit or a double value, none of which IsInt() accepts).
int IntOfLiteral(const char* p, const char* end) {
    const bool bNegative = *p == '-';
    if (bNegative) ++p;
    if (end - p > 10) return 0;
    long long llValue = 0;
    for (; p < end; ++p) llValue = llValue * 10 + (*p - '0');
    if (bNegative) llValue = -llValue;
    return llValue >= INT_MIN && llValue <= INT_MAX ? static_cast<int>(llValue) : 0;
}

}  // namespace

bool CMOXSortKeyReader::Read(const std::string& text, const std::string& strKey, MOX_VALUETYPE keyType,
                             SMOXSortKey& out) {
    const char* p = text.data();
    const char* end = p + text.size();
    // The last item of a block carries its padding NULs.
    while (end > p && end[-1] == '\0') --end;

    p = SkipSpace(p, end);
    if (p == end || *p != '{') return false;
    p = SkipSpace(p + 1, end);

    // The last member named strKey: its value's extent and what it is.
    enum class Kind { kNone, kString, kInteger, kOther } kind = Kind::kNone;
    const char* pValue = nullptr;
    const char* pValueEnd = nullptr;
    bool bValueEscaped = false;

    if (p < end && *p == '}') {
        ++p;
    } else {
        for (;;) {
            if (p == end || *p != '"') return false;
            bool bNameEscaped = false;
            const char* pName = p + 1;
            const char* pNameEnd = ScanString(pName, end, bNameEscaped);
            if (!pNameEnd) return false;
            bool bMatch;
            if (!bNameEscaped) {
                bMatch = static_cast<size_t>(pNameEnd - pName) == strKey.size() &&
                         memcmp(pName, strKey.data(), strKey.size()) == 0;
            } else {
                DecodeString(pName, pNameEnd, m_strName);
                bMatch = m_strName == strKey;
            }
            p = SkipSpace(pNameEnd + 1, end);
            if (p == end || *p != ':') return false;
            p = SkipSpace(p + 1, end);
            if (p == end) return false;
            const char* pStart = p;
            if (bMatch && *p == '"') {
                bool bEscaped = false;
                const char* pQuote = ScanString(p + 1, end, bEscaped);
                if (!pQuote) return false;
                kind = Kind::kString;
                pValue = p + 1;
                pValueEnd = pQuote;
                bValueEscaped = bEscaped;
                p = pQuote + 1;
            } else if (bMatch && (*p == '-' || IsDigit(*p))) {
                bool bInteger = false;
                p = ScanNumber(p, end, bInteger);
                if (!p) return false;
                kind = bInteger ? Kind::kInteger : Kind::kOther;
                pValue = pStart;
                pValueEnd = p;
            } else {
                p = ScanValue(p, end, 1);
                if (!p) return false;
                if (bMatch) kind = Kind::kOther;
            }
            p = SkipSpace(p, end);
            if (p == end) return false;
            if (*p == '}') {
                ++p;
                break;
            }
            if (*p != ',') return false;
            p = SkipSpace(p + 1, end);
        }
    }
    // jsoncpp ignores what follows the object; only whitespace is sure to be
    // read alike, so anything else is left to it.
    if (SkipSpace(p, end) != end) return false;

    out.nValue = 0;
    out.strValue.clear();
    if (keyType == MOX_VALUE_INT) {
        if (kind == Kind::kInteger) out.nValue = IntOfLiteral(pValue, pValueEnd);
    } else if (kind == Kind::kString) {
        if (bValueEscaped)
            DecodeString(pValue, pValueEnd, out.strValue);
        else
            out.strValue.assign(pValue, static_cast<size_t>(pValueEnd - pValue));
    }
    return true;
}
