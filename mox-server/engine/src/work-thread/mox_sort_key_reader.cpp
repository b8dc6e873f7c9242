#include "mox_sort_key_reader.h"

#include <climits>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#define MOX_ALWAYS_INLINE __attribute__((always_inline)) inline

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
MOX_ALWAYS_INLINE bool IsSpace(char c) {
    return static_cast<unsigned char>(c) <= ' ' && (c == ' ' || c == '\n' || c == '\r' || c == '\t');
}

MOX_ALWAYS_INLINE bool IsDigit(char c) {
    return static_cast<unsigned char>(c - '0') <= 9;
}

inline int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Four hex digits at p (the caller checked that they are in the text); -1
// if one is not hex.
inline long Hex4(const char* p) {
    long nValue = 0;
    for (int i = 0; i < 4; ++i) {
        int nDigit = HexDigit(p[i]);
        if (nDigit < 0) return -1;
        nValue = nValue * 16 + nDigit;
    }
    return nValue;
}

template <typename T>
MOX_ALWAYS_INLINE T Load(const char* p) {
    T value;
    memcpy(&value, p, sizeof(value));
    return value;
}

// [p, end) equals str. Member names are short and many share a prefix
// ("FileName", "FileSize"): whole words compare them without a byte loop.
MOX_ALWAYS_INLINE bool SameBytes(const char* p, const char* end, const std::string& str) {
    const size_t nLen = str.size();
    if (static_cast<size_t>(end - p) != nLen) return false;
    const char* q = str.data();
    if (nLen >= 8) {
        // The last word overlaps the previous one when nLen is not a multiple of 8.
        const char* pLast = end - 8;
        for (; p < pLast; p += 8, q += 8)
            if (Load<uint64_t>(p) != Load<uint64_t>(q)) return false;
        return Load<uint64_t>(pLast) == Load<uint64_t>(str.data() + nLen - 8);
    }
    if (nLen >= 4)
        return Load<uint32_t>(p) == Load<uint32_t>(q) && Load<uint32_t>(end - 4) == Load<uint32_t>(q + nLen - 4);
    for (; p < end; ++p, ++q)
        if (*p != *q) return false;
    return true;
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

// Decodes a string body [p, end) that CScanner::String() accepted.
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

// Validating scanner over [begin, end) with *end == '\0'. The sentinel ends
// every run of spaces or digits and fails every punctuation check, so those
// need no bound test; only string bodies (which may hold NULs) and literals
// test against end. Every function returns the position after what it read,
// never beyond end, or nullptr for text this reader does not accept.
class CScanner {
public:
    CScanner(const char* pBegin, const char* pEnd) : m_pBegin(pBegin), m_pEnd(pEnd) {}

    // Positions of every '"' of a text without backslashes, in order. Each
    // string then takes the next two instead of searching for its end, and
    // the search no longer chains one string's end to the next one's start.
    void UseQuoteIndex(const uint32_t* pQuotes, size_t nQuotes) {
        m_pQuotes = pQuotes;
        m_nQuotes = nQuotes;
    }

    MOX_ALWAYS_INLINE static const char* Space(const char* p) {
        while (IsSpace(*p)) ++p;
        return p;
    }

    // The body of a string whose opening quote is just before p: returns the
    // position of the closing quote. Refused: unterminated, unknown escape,
    // bad or unpaired surrogate (where jsoncpp fails, or decodes an unpaired
    // surrogate to bytes of its own). bEscaped is set when it has escapes.
    MOX_ALWAYS_INLINE const char* String(const char* p, bool& bEscaped) {
        if (m_pQuotes) {
            // Every quote of a valid text opens or closes a string, and
            // strings are read in order; a mismatch means invalid text.
            const size_t nOpen = static_cast<size_t>(p - 1 - m_pBegin);
            if (m_nNextQuote + 1 >= m_nQuotes || m_pQuotes[m_nNextQuote] != nOpen) return nullptr;
            const char* pClose = m_pBegin + m_pQuotes[m_nNextQuote + 1];
            m_nNextQuote += 2;
            return pClose;
        }
        for (;;) {
            p = QuoteOrEscape(p);
            if (p == m_pEnd) return nullptr;
            if (*p == '"') return p;
            bEscaped = true;
            p = Escape(p);
            if (!p) return nullptr;
        }
    }

    // A number in strict JSON syntax. bInteger: no fraction, no exponent.
    MOX_ALWAYS_INLINE const char* Number(const char* p, bool& bInteger) const {
        if (*p == '-') ++p;
        const char* pDigits = p;
        if (*p == '0')
            ++p;
        else if (*p >= '1' && *p <= '9')
            p = Digits(p + 1);
        else
            return nullptr;
        const long nIntegerDigits = p - pDigits;
        bInteger = true;
        if (*p == '.') {
            if (!IsDigit(p[1])) return nullptr;
            p = Digits(p + 2);
            bInteger = false;
        }
        long nExponent = 0;
        if (*p == 'e' || *p == 'E') {
            p = Exponent(p + 1, nExponent);
            if (!p) return nullptr;
            bInteger = false;
        }
        // Underflow is harmless (it reads as 0 or a subnormal); only
        // overflow fails jsoncpp.
        if (nIntegerDigits + nExponent > kMaxMagnitudeDigits) return nullptr;
        return p;
    }

    // Any JSON value, nDepth containers deep.
    const char* Value(const char* p, int nDepth) {
        switch (*p) {
            case '"': {
                bool bEscaped = false;
                const char* pQuote = String(p + 1, bEscaped);
                return pQuote ? pQuote + 1 : nullptr;
            }
            case '{': {
                if (nDepth >= kMaxDepth) return nullptr;
                p = Space(p + 1);
                if (*p == '}') return p + 1;
                for (;;) {
                    if (*p != '"') return nullptr;
                    bool bEscaped = false;
                    p = String(p + 1, bEscaped);
                    if (!p) return nullptr;
                    p = Space(p + 1);
                    if (*p != ':') return nullptr;
                    p = Value(Space(p + 1), nDepth + 1);
                    if (!p) return nullptr;
                    p = Space(p);
                    if (*p == '}') return p + 1;
                    if (*p != ',') return nullptr;
                    p = Space(p + 1);
                }
            }
            case '[': {
                if (nDepth >= kMaxDepth) return nullptr;
                p = Space(p + 1);
                if (*p == ']') return p + 1;
                for (;;) {
                    p = Value(p, nDepth + 1);
                    if (!p) return nullptr;
                    p = Space(p);
                    if (*p == ']') return p + 1;
                    if (*p != ',') return nullptr;
                    p = Space(p + 1);
                }
            }
            case 't': return Literal(p, "true", 4);
            case 'f': return Literal(p, "false", 5);
            case 'n': return Literal(p, "null", 4);
            default: {
                bool bInteger = false;
                return Number(p, bInteger);
            }
        }
    }

    const char* End() const { return m_pEnd; }

private:
    // The first '"' or '\\' at or after p, or end. Item texts are mostly
    // string bytes, so this is where the time goes.
    MOX_ALWAYS_INLINE const char* QuoteOrEscape(const char* p) const {
#ifdef __SSE2__
        const __m128i quote = _mm_set1_epi8('"');
        const __m128i escape = _mm_set1_epi8('\\');
        while (m_pEnd - p >= 16) {
            __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
            unsigned nMask = static_cast<unsigned>(
                _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(chunk, quote), _mm_cmpeq_epi8(chunk, escape))));
            if (nMask != 0) return p + __builtin_ctz(nMask);
            p += 16;
        }
        if (p < m_pEnd && m_pEnd - m_pBegin >= 16) {
            // The last 16 bytes of the text, shifted so that bit 0 is p.
            __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(m_pEnd - 16));
            unsigned nMask = static_cast<unsigned>(
                _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(chunk, quote), _mm_cmpeq_epi8(chunk, escape))));
            nMask >>= 16 - (m_pEnd - p);
            return nMask != 0 ? p + __builtin_ctz(nMask) : m_pEnd;
        }
#endif
        while (p < m_pEnd && *p != '"' && *p != '\\') ++p;
        return p;
    }

    // The end of the run of decimal digits at p. Sizes and times are runs of
    // up to ten digits whose varying length a byte loop mispredicts.
    MOX_ALWAYS_INLINE const char* Digits(const char* p) const {
#ifdef __SSE2__
        const __m128i below = _mm_set1_epi8('0' - 1);
        const __m128i above = _mm_set1_epi8('9' + 1);
        // Signed compares: bytes from 0x80 up are negative, so not digits.
        auto others = [&](const char* q) {
            __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
            __m128i digits = _mm_and_si128(_mm_cmpgt_epi8(chunk, below), _mm_cmplt_epi8(chunk, above));
            return ~static_cast<unsigned>(_mm_movemask_epi8(digits)) & 0xFFFF;
        };
        while (m_pEnd - p >= 16) {
            unsigned nOther = others(p);
            if (nOther != 0) return p + __builtin_ctz(nOther);
            p += 16;
        }
        if (p < m_pEnd && m_pEnd - m_pBegin >= 16) {
            unsigned nOther = others(m_pEnd - 16) >> (16 - (m_pEnd - p));
            return nOther != 0 ? p + __builtin_ctz(nOther) : m_pEnd;
        }
#endif
        while (IsDigit(*p)) ++p;
        return p;
    }

    // The escape at p; returns the position after it.
    const char* Escape(const char* p) const {
        switch (p[1]) {
            case '"':
            case '\\':
            case '/':
            case 'b':
            case 'f':
            case 'n':
            case 'r':
            case 't': return p + 2;
            case 'u': {
                if (m_pEnd - p < 6) return nullptr;
                long nUnit = Hex4(p + 2);
                if (nUnit < 0 || (nUnit >= 0xDC00 && nUnit <= 0xDFFF)) return nullptr;
                p += 6;
                if (nUnit >= 0xD800 && nUnit <= 0xDBFF) {
                    if (m_pEnd - p < 6 || p[0] != '\\' || p[1] != 'u') return nullptr;
                    long nLow = Hex4(p + 2);
                    if (nLow < 0xDC00 || nLow > 0xDFFF) return nullptr;
                    p += 6;
                }
                return p;
            }
            default:
                // Includes the sentinel: a backslash ending the text.
                return nullptr;
        }
    }

    // The exponent of a number at p (after the 'e') into nExponent.
    const char* Exponent(const char* p, long& nExponent) const {
        bool bNegative = false;
        if (*p == '+' || *p == '-') bNegative = *p++ == '-';
        if (!IsDigit(*p)) return nullptr;
        while (*p == '0') ++p;
        int nDigits = 0;
        for (; IsDigit(*p); ++p) {
            if (++nDigits > kMaxExponentDigits) return nullptr;
            nExponent = nExponent * 10 + (*p - '0');
        }
        if (bNegative) nExponent = -nExponent;
        return p;
    }

    const char* Literal(const char* p, const char* szWord, size_t nLen) const {
        if (static_cast<size_t>(m_pEnd - p) < nLen || memcmp(p, szWord, nLen) != 0) return nullptr;
        return p + nLen;
    }

    const char* m_pBegin;
    const char* m_pEnd;
    const uint32_t* m_pQuotes = nullptr;
    size_t m_nQuotes = 0;
    size_t m_nNextQuote = 0;
};

// Texts up to this size get a quote index; the index buffer stays this small.
constexpr size_t kMaxIndexedText = 64 * 1024;

#ifdef __SSE2__
// Fills pQuotes (room for nLen entries) with the offsets of the
// quotes of [p, p + nLen) and returns their count; SIZE_MAX when there is a
// backslash, whose escapes need the searching scan.
size_t IndexQuotes(const char* p, size_t nLen, uint32_t* pQuotes) {
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i escape = _mm_set1_epi8('\\');
    size_t nCount = 0;
    unsigned nEscapes = 0;
    for (size_t i = 0; i < nLen; i += 16) {
        unsigned nQuotes, nChunkEscapes;
        if (nLen - i >= 16 || nLen < 16) {
            __m128i chunk;
            if (nLen - i >= 16) {
                chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
            } else {
                char tail[16] = {};
                memcpy(tail, p + i, nLen - i);
                chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(tail));
            }
            nQuotes = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, quote)));
            nChunkEscapes = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, escape)));
        } else {
            // The text's last 16 bytes, shifted so that bit 0 is byte i.
            __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + nLen - 16));
            const unsigned nShift = static_cast<unsigned>(16 - (nLen - i));
            nQuotes = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, quote))) >> nShift;
            nChunkEscapes = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, escape))) >> nShift;
        }
        nEscapes |= nChunkEscapes;
        for (; nQuotes != 0; nQuotes &= nQuotes - 1)
            pQuotes[nCount++] = static_cast<uint32_t>(i + __builtin_ctz(nQuotes));
    }
    return nEscapes != 0 ? SIZE_MAX : nCount;
}
#endif

// The integer jsoncpp reads from an integer literal [p, end) in strict
// syntax: its value when it lies in 64-bit signed range, else 0 (beyond it
// is an unsigned or a double value, which isInt64() refuses).
int64_t IntOfLiteral(const char* p, const char* end) {
    const bool bNegative = *p == '-';
    if (bNegative) ++p;
    if (end - p > 19) return 0;
    uint64_t nMagnitude = 0;  // 19 digits never wrap 64 bits
    for (; p < end; ++p) nMagnitude = nMagnitude * 10 + static_cast<uint64_t>(*p - '0');
    const uint64_t nLimit = static_cast<uint64_t>(INT64_MAX) + (bNegative ? 1 : 0);
    if (nMagnitude > nLimit) return 0;
    return bNegative ? static_cast<int64_t>(0 - nMagnitude) : static_cast<int64_t>(nMagnitude);
}

}  // namespace

bool CMOXSortKeyReader::Read(const std::string& text, const std::string& strKey, MOX_VALUETYPE keyType,
                             SMOXSortKey& out) {
    const char* p = text.data();
    const char* end = p + text.size();
    // The last item of a block carries its padding NULs. Either way *end is
    // now a NUL: a cut padding byte or std::string's terminator.
    while (end > p && end[-1] == '\0') --end;
    CScanner scan(p, end);
#ifdef __SSE2__
    const size_t nLen = static_cast<size_t>(end - p);
    if (nLen <= kMaxIndexedText) {
        if (m_quotes.size() < nLen) m_quotes.resize(nLen);
        const size_t nQuotes = IndexQuotes(p, nLen, m_quotes.data());
        if (nQuotes != SIZE_MAX) scan.UseQuoteIndex(m_quotes.data(), nQuotes);
    }
#endif
    p = CScanner::Space(p);
    if (*p != '{') return false;
    p = CScanner::Space(p + 1);

    // The last member named strKey: its value's extent and what it is.
    enum class Kind { kNone, kString, kInteger, kOther } kind = Kind::kNone;
    const char* pValue = nullptr;
    const char* pValueEnd = nullptr;
    bool bValueEscaped = false;

    if (*p == '}') {
        ++p;
    } else {
        for (;;) {
            if (*p != '"') return false;
            bool bNameEscaped = false;
            const char* pName = p + 1;
            const char* pNameEnd = scan.String(pName, bNameEscaped);
            if (!pNameEnd) return false;
            bool bMatch;
            if (!bNameEscaped) {
                bMatch = SameBytes(pName, pNameEnd, strKey);
            } else {
                DecodeString(pName, pNameEnd, m_strName);
                bMatch = m_strName == strKey;
            }
            p = CScanner::Space(pNameEnd + 1);
            if (*p != ':') return false;
            p = CScanner::Space(p + 1);
            // Strings and numbers, the usual members, are scanned here
            // rather than through Value()'s dispatch.
            if (*p == '"') {
                bool bEscaped = false;
                const char* pQuote = scan.String(p + 1, bEscaped);
                if (!pQuote) return false;
                if (bMatch) {
                    kind = Kind::kString;
                    pValue = p + 1;
                    pValueEnd = pQuote;
                    bValueEscaped = bEscaped;
                }
                p = pQuote + 1;
            } else if (*p == '-' || IsDigit(*p)) {
                bool bInteger = false;
                const char* pNumberEnd = scan.Number(p, bInteger);
                if (!pNumberEnd) return false;
                if (bMatch) {
                    kind = bInteger ? Kind::kInteger : Kind::kOther;
                    pValue = p;
                    pValueEnd = pNumberEnd;
                }
                p = pNumberEnd;
            } else {
                p = scan.Value(p, 1);
                if (!p) return false;
                if (bMatch) kind = Kind::kOther;
            }
            p = CScanner::Space(p);
            if (*p == '}') {
                ++p;
                break;
            }
            if (*p != ',') return false;
            p = CScanner::Space(p + 1);
        }
    }
    // jsoncpp ignores what follows the object; only whitespace is sure to be
    // read alike, so anything else is left to it.
    if (CScanner::Space(p) != end) return false;

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
