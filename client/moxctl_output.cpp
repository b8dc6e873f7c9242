#include "moxctl_output.h"

#include <cstdio>
#include <memory>
#include <sstream>

#include <glib.h>

namespace moxctl {

namespace {

// Longest JSON text accepted from the engine (a bus message is at most 128 MiB;
// nothing the engine sends comes near this).
constexpr size_t kMaxJsonBytes = 64u << 20;

size_t DisplayWidth(const std::string& s) {
    return g_utf8_strlen(s.c_str(), static_cast<gssize>(s.size()));
}

}  // namespace

void CMOXCtlOutput::PrintJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    std::string text = Json::writeString(builder, value);
    fwrite(text.data(), 1, text.size(), stdout);
    fputc('\n', stdout);
    fflush(stdout);
}

void CMOXCtlOutput::PrintTable(const std::vector<std::string>& header,
                               const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths(header.size(), 0);
    for (size_t i = 0; i < header.size(); ++i) widths[i] = DisplayWidth(header[i]);
    for (const auto& row : rows)
        for (size_t i = 0; i < row.size() && i < widths.size(); ++i)
            widths[i] = std::max(widths[i], DisplayWidth(row[i]));
    auto line = [&](const std::vector<std::string>& cells) {
        std::string out;
        for (size_t i = 0; i < cells.size() && i < widths.size(); ++i) {
            out += cells[i];
            if (i + 1 < cells.size()) out.append(widths[i] - DisplayWidth(cells[i]) + 2, ' ');
        }
        out += '\n';
        fwrite(out.data(), 1, out.size(), stdout);
    };
    line(header);
    for (const auto& row : rows) line(row);
    fflush(stdout);
}

void CMOXCtlOutput::Error(const std::string& command, const std::string& message) {
    std::string text = "moxctl: " + (command.empty() ? std::string() : command + ": ") + Printable(message) + "\n";
    fwrite(text.data(), 1, text.size(), stderr);
    fflush(stderr);
}

std::string CMOXCtlOutput::HumanBytes(double bytes) {
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    if (!(bytes >= 0)) bytes = 0;  // also NaN
    int unit = 0;
    while (bytes >= 1024 && unit < 5) {
        bytes /= 1024;
        ++unit;
    }
    char buf[32];
    if (unit == 0)
        snprintf(buf, sizeof buf, "%.0f B", bytes);
    else
        snprintf(buf, sizeof buf, "%.1f %s", bytes, kUnits[unit]);
    return buf;
}

std::string CMOXCtlOutput::Utf8(const std::string& text) {
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) return text;
    gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    std::string out(valid);
    g_free(valid);
    return out;
}

std::string CMOXCtlOutput::Printable(const std::string& text) {
    std::string valid = Utf8(text);
    std::string out;
    out.reserve(valid.size());
    for (const char* p = valid.c_str(); *p; p = g_utf8_next_char(p)) {
        gunichar c = g_utf8_get_char(p);
        if (c < 0x20 || c == 0x7f || (c >= 0x80 && c < 0xa0)) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\x%02x", static_cast<unsigned>(c));
            out += buf;
        } else {
            out.append(p, static_cast<size_t>(g_utf8_next_char(p) - p));
        }
    }
    return out;
}

bool CMOXCtlOutput::Parse(const std::string& text, Json::Value& value, std::string& error) {
    if (text.size() > kMaxJsonBytes) {
        error = "JSON text of " + std::to_string(text.size()) + " bytes is too long";
        return false;
    }
    try {
        // One reader for every text: a listing parses one item after another.
        thread_local std::unique_ptr<Json::CharReader> reader = [] {
            Json::CharReaderBuilder builder;
            builder["collectComments"] = false;
            return std::unique_ptr<Json::CharReader>(builder.newCharReader());
        }();
        std::string errs;
        if (!reader->parse(text.data(), text.data() + text.size(), &value, &errs)) {
            error = "not JSON: " + errs.substr(0, errs.find('\n'));
            return false;
        }
    } catch (const std::exception& e) {
        error = std::string("not JSON: ") + e.what();
        return false;
    }
    return true;
}

}  // namespace moxctl
