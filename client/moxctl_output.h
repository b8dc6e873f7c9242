// CMOXCtlOutput: how moxctl writes results. Text for people (tables, human
// sizes, terminal-safe strings) or, with --json, one compact JSON document a
// line so that the output pipes into jq. Errors go to stderr as one line
// "moxctl: COMMAND: reason".
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

namespace moxctl {

class CMOXCtlOutput {
public:
    explicit CMOXCtlOutput(bool json) : m_bJson(json) {}
    bool Json() const { return m_bJson; }

    // One compact JSON document and a newline on stdout, flushed.
    static void PrintJson(const Json::Value& value);
    // A table with a header row, columns padded to their widest cell.
    static void PrintTable(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows);
    static void Error(const std::string& command, const std::string& message);

    // 1536 -> "1.5 KiB"; below 1 KiB "N B".
    static std::string HumanBytes(double bytes);
    // Valid UTF-8 (invalid sequences become U+FFFD).
    static std::string Utf8(const std::string& text);
    // Valid UTF-8 without control characters (written as \xNN), safe to put
    // on a terminal: a crafted file name cannot move the cursor or retitle it.
    static std::string Printable(const std::string& text);
    // Parses a JSON text the engine sent; false (reason in error) when it is
    // not JSON. Never throws.
    static bool Parse(const std::string& text, Json::Value& value, std::string& error);

private:
    bool m_bJson;
};

}  // namespace moxctl
