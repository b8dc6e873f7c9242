#include "moxctl_progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <json/json.h>

#include "moxctl_output.h"

namespace moxctl {

CMOXCtlProgress::CMOXCtlProgress(Mode mode, std::string label) : m_eMode(mode), m_strLabel(std::move(label)) {}

void CMOXCtlProgress::Update(double done, double total) {
    auto now = std::chrono::steady_clock::now();
    if (!m_bStarted) {
        m_bStarted = true;
        m_start = now;
    }
    // The engine reports doubles; a hostile or broken sender may send NaN.
    m_dDone = std::isfinite(done) && done > 0 ? done : 0;
    m_dTotal = std::isfinite(total) && total > 0 ? total : 0;
    m_Draw(false);
}

void CMOXCtlProgress::Finish() {
    if (m_eMode == Mode::kBar && m_bStarted) {
        m_Draw(true);
        fputc('\n', stdout);
        fflush(stdout);
    }
}

double CMOXCtlProgress::Rate() const {
    if (!m_bStarted) return 0;
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    return seconds > 0.05 ? m_dDone / seconds : 0;
}

std::string CMOXCtlProgress::FormatDuration(double seconds) {
    if (!std::isfinite(seconds) || seconds < 0) return "--:--";
    if (seconds > 359999) return ">99h";
    auto s = static_cast<long>(seconds + 0.5);
    char buf[32];
    if (s >= 3600)
        snprintf(buf, sizeof buf, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else
        snprintf(buf, sizeof buf, "%ld:%02ld", s / 60, s % 60);
    return buf;
}

std::string CMOXCtlProgress::BarLine(int columns) const {
    double rate = Rate();
    std::string figures = CMOXCtlOutput::HumanBytes(m_dDone);
    if (m_dTotal > 0) figures += " / " + CMOXCtlOutput::HumanBytes(m_dTotal);
    // No rate before the second report: one figure says nothing yet.
    if (rate > 0) figures += "  " + CMOXCtlOutput::HumanBytes(rate) + "/s";
    if (m_dTotal > 0) {
        double left = m_dTotal - m_dDone;
        figures += "  ETA " + (rate > 0 ? FormatDuration(left / rate) : std::string("--:--"));
        char pct[16];
        snprintf(pct, sizeof pct, "%3.0f%% ", std::min(100.0, 100.0 * m_dDone / m_dTotal));
        figures = pct + figures;
    }
    // A bar of one width for the whole transfer (the figures beside it
    // change length), when the terminal leaves room for it.
    int width = std::min(30, columns - 55);
    std::string bar;
    if (width >= 10) {
        int filled = m_dTotal > 0 ? static_cast<int>(width * std::min(1.0, m_dDone / m_dTotal)) : 0;
        bar = "[" + std::string(filled, '#') + std::string(width - filled, '.') + "] ";
    }
    return bar + figures;
}

void CMOXCtlProgress::m_Draw(bool force) {
    auto now = std::chrono::steady_clock::now();
    bool finished = m_dTotal > 0 && m_dDone >= m_dTotal;
    switch (m_eMode) {
        case Mode::kJson: {
            Json::Value v;
            v["progress"] = m_strLabel;
            v["done"] = m_dDone;
            v["total"] = m_dTotal;
            v["rate"] = Rate();
            CMOXCtlOutput::PrintJson(v);
            return;
        }
        case Mode::kLines:
            if (!force && m_bDrawn && !finished && now - m_lastDraw < std::chrono::seconds(1)) return;
            printf("%s: %s\n", m_strLabel.c_str(), BarLine(0).c_str());
            fflush(stdout);
            break;
        case Mode::kBar: {
            if (!force && m_bDrawn && !finished && now - m_lastDraw < std::chrono::milliseconds(100)) return;
            struct winsize ws {};
            int columns = ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0 ? ws.ws_col : 80;
            // \r and clear to the end of the line: the line may have shrunk.
            printf("\r%s\x1b[K", BarLine(columns - 1).c_str());
            fflush(stdout);
            break;
        }
    }
    m_bDrawn = true;
    m_lastDraw = now;
}

}  // namespace moxctl
