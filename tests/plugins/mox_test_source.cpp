// Test sources "mox_test_source" and "mox_test_source2", driven by the
// command document so that a test decides what the engine gets back:
//   "test_delay_ms"   wait this long first (polling the stop flag; also
//                     before a transfer's single report)
//   "test_stuck_ms"   then sleep this long without looking at the stop flag
//   "test_error"      return this code instead of answering
//   "test_item_count" number of items (default 3, at most 100,000; 0 answers
//                     an empty list)
//   "test_misbehave"  "count_mismatch" (one length short), "overrun"
//                     (lengths beyond the bytes written), "huge_range"
//                     (a window no list can hold), "offset" (window starts
//                     at 5), "throw" (an exception), "extra_bytes" (bytes
//                     written beyond nLen), "negative_total",
//                     "negative_length"
//   "test_validity"   ABI 2: "no_keep", or "stamp:<text>" (default: keep)
// Items: {"FileName": "<source>-<k>", "Title", "FileSize": k, "FileTime":
// 100 - k}; each GetData call logs "test source GetData[<source>]".
// A wait cut short by the stop flag logs "test source stopped[<source>]".
// -DMOX_TEST_BAD_ABI reports another ABI; -DMOX_TEST_NO_ENTRY exports nothing;
// -DMOX_TEST_NO_CREATE lacks CreateSource; -DMOX_TEST_ABI1 is an ABI-1 build
// offering "mox_test_source_v1" (it never answers validity questions).
#define MOX_LOG_TAG "MOX-TEST"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

#include <mox/json_value.h>
#include <mox/mox_log.h>
#include <mox/mox_web_source.h>

namespace {

int IntMember(const CJsonValue& doc, const char* szKey, int nDefault) {
    int nValue = nDefault;
    if (doc.IsInt(szKey)) doc.Get(szKey, nValue);
    return nValue;
}

bool Wait(const CJsonValue& doc, const bool& bStop, const std::string& strName) {
    // Bounded like the item count: the fuzzer's huge values would hold a
    // request for days (the suites wait a minute at most).
    int nDelay = std::min(IntMember(doc, "test_delay_ms", 0), 60000);
    for (int i = 0; i < nDelay / 10; ++i) {
        if (MoxStopRequested(bStop)) {
            MOX_INFO("test source stopped[%s]", strName.c_str());
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

class CMOXTestSource final : public IWebSource {
public:
    explicit CMOXTestSource(std::string strName) : m_strName(std::move(strName)) {}
    bool Init() override { return true; }
    void Close() override {}
    void Destroy() override { delete this; }

    mox_error_code_e GetData(bool& bStop, std::string& strQueryCmd, FILE* stream, int& nLen, int& nStartIndex,
                             int& nEndIndex, int& nTotalCount, std::vector<mox_data_group_s>& groups,
                             std::vector<mox_data_length_s>& lengths) override {
        MOX_INFO("test source GetData[%s]", m_strName.c_str());
        CJsonValue doc(strQueryCmd);
        if (!Wait(doc, bStop, m_strName)) return MOX_ERROR_GENERIC;
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min(IntMember(doc, "test_stuck_ms", 0), 60000)));
        int nError = IntMember(doc, "test_error", 0);
        if (nError != 0) return static_cast<mox_error_code_e>(nError);
        std::string strMisbehave = doc.StringOr("test_misbehave");
        if (strMisbehave == "throw") throw std::runtime_error("test source throws");
        // Bounded: a fuzzer's INT_MAX would keep this source writing for hours.
        int nCount = std::min(IntMember(doc, "test_item_count", 3), 100000);
        for (int k = 0; k < nCount; ++k) {
            std::string strItem = "{\"FileName\":\"" + m_strName + "-" + std::to_string(k) + "\",\"Title\":\"t" +
                                  std::to_string(k) + "\",\"FileSize\":" + std::to_string(k) +
                                  ",\"FileTime\":" + std::to_string(100 - k) + "}";
            fwrite(strItem.data(), 1, strItem.size(), stream);
            nLen += static_cast<int>(strItem.size());
            lengths.push_back(mox_data_length_s{static_cast<int32_t>(strItem.size())});
        }
        nStartIndex = 0;
        nEndIndex = nCount - 1;
        nTotalCount = nCount;
        if (nCount > 0) groups.push_back(mox_data_group_s{0, nCount});
        if (strMisbehave == "count_mismatch" && !lengths.empty()) lengths.pop_back();
        if (strMisbehave == "overrun" && !lengths.empty()) lengths.back().nLength += 1000;
        if (strMisbehave == "huge_range") {
            nEndIndex = 0x7ffffff0;
            nTotalCount = 0x7ffffff1;
        }
        if (strMisbehave == "extra_bytes") fwrite("garbage", 1, 7, stream);
        if (strMisbehave == "negative_total") nTotalCount = -1;
        if (strMisbehave == "negative_length" && !lengths.empty()) lengths.front().nLength = -5;
        if (strMisbehave == "offset") {
            nStartIndex += 5;
            nEndIndex += 5;
            nTotalCount += 5;
        }
        return MOX_ERROR_NONE;
    }

    mox_error_code_e GetDetail(bool& bStop, std::string& strCommand, std::string& strResult) override {
        CJsonValue doc(strCommand);
        if (!Wait(doc, bStop, m_strName)) return MOX_ERROR_GENERIC;
        if (doc.StringOr("test_misbehave") == "throw") throw std::runtime_error("test source throws");
        strResult = "{\"detail_of\":\"" + m_strName + "\"}";
        return static_cast<mox_error_code_e>(IntMember(doc, "test_error", 0));
    }

    // Transfers: the default single report, after "test_delay_ms" (the stop
    // flag ends a waiting transfer with 9).
    int Execute(bool& bStop, std::string& strParam, mox_transfer_progress_cb pfnProgress, void* pUserData) override {
        if (!Wait(CJsonValue(strParam), bStop, m_strName)) return 9;
        return IWebSource::Execute(bStop, strParam, pfnProgress, pUserData);
    }

#ifndef MOX_TEST_ABI1
    mox_answer_validity_e GetAnswerValidity(const std::string& strQueryCmd, std::string& strStamp) override {
        std::string strValidity = CJsonValue(strQueryCmd).StringOr("test_validity");
        strStamp.clear();
        if (strValidity == "no_keep") return MOX_ANSWER_NO_KEEP;
        if (strValidity.compare(0, 6, "stamp:") == 0) {
            strStamp = strValidity.substr(6);
            return MOX_ANSWER_STAMPED;
        }
        return MOX_ANSWER_KEEP;
    }
#endif

private:
    std::string m_strName;
};

#ifdef MOX_TEST_ABI1
const char* const kNames[] = {"mox_test_source_v1", "mox_test_source2_v1"};
#else
const char* const kNames[] = {"mox_test_source", "mox_test_source2"};
#endif

}  // namespace

#ifndef MOX_TEST_NO_ENTRY

extern "C" __attribute__((visibility("default"))) int GetSourceAbiVersion(void) {
#if defined(MOX_TEST_BAD_ABI)
    return MOX_WEB_SOURCE_ABI_VERSION + 100;
#elif defined(MOX_TEST_ABI1)
    return 1;
#else
    return MOX_WEB_SOURCE_ABI_VERSION;
#endif
}

extern "C" __attribute__((visibility("default"))) int GetSourcesCount(void) {
    return 2;
}

extern "C" __attribute__((visibility("default"))) const char* GetSourceName(int nIndex) {
    return nIndex >= 0 && nIndex < 2 ? kNames[nIndex] : nullptr;
}

#ifndef MOX_TEST_NO_CREATE
extern "C" __attribute__((visibility("default"))) IWebSource* CreateSource(const char* szSourceName) {
    for (const char* szName : kNames)
        if (szSourceName && strcmp(szSourceName, szName) == 0) return new CMOXTestSource(szName);
    return nullptr;
}
#endif

#endif
