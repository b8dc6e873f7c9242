// An example source plug-in: "mox_example_source" answers every list request
// with the same three items and every detail request with the document it
// was given. Plug-in ABI 2; docs/writing-a-source.md is the author's guide. A starting point for plug-in authors; build
// it in-tree or on its own against an installed engine:
//   cmake -S plugins/example-source -B build-example && cmake --build build-example
// and copy libmox_example_source.so into the plug-in directory.
#include <cstring>
#include <new>
#include <string>

#include <mox/mox_web_source.h>

namespace {

const char* const kItems[] = {
    R"({"FileName":"a.jpg","Title":"a","FileSize":3,"FileTime":1,"MediaType":2,"IsFolder":false})",
    R"({"FileName":"b.mp3","Title":"b","FileSize":2,"FileTime":2,"MediaType":5,"IsFolder":false})",
    R"({"FileName":"c.mp4","Title":"c","FileSize":1,"FileTime":3,"MediaType":3,"IsFolder":false})",
};

class CMOXExampleSource final : public IWebSource {
public:
    bool Init() override { return true; }
    void Close() override {}
    mox_error_code_e GetData(bool& bStop, std::string&, FILE* stream, int& nLen, int& nStartIndex, int& nEndIndex,
                             int& nTotalCount, std::vector<mox_data_group_s>& groups,
                             std::vector<mox_data_length_s>& lengths) override {
        nLen = 0;
        for (const char* szItem : kItems) {
            // A long loop polls the stop flag (written by another thread).
            if (MoxStopRequested(bStop)) return MOX_ERROR_GENERIC;
            const size_t nSize = strlen(szItem);
            if (fwrite(szItem, 1, nSize, stream) != nSize) return MOX_ERROR_GENERIC;
            lengths.push_back(mox_data_length_s{static_cast<int32_t>(nSize)});
            nLen += static_cast<int>(nSize);
        }
        nStartIndex = 0;
        nEndIndex = static_cast<int>(lengths.size()) - 1;
        nTotalCount = static_cast<int>(lengths.size());
        groups.push_back(mox_data_group_s{0, nTotalCount});
        return MOX_ERROR_NONE;
    }
    mox_error_code_e GetDetail(bool&, std::string& strCommand, std::string& strResult) override {
        strResult = strCommand;
        return MOX_ERROR_NONE;
    }
    void Destroy() override { delete this; }
    // The items never change: the engine may keep the answer (until a
    // storage event or one of its writes touches a path the query names).
    mox_answer_validity_e GetAnswerValidity(const std::string&, std::string& strStamp) override {
        strStamp.clear();
        return MOX_ANSWER_KEEP;
    }
};

}  // namespace

MOX_WEB_SOURCE_DEFINE_SINGLE_SOURCE("mox_example_source", CMOXExampleSource)
