// CMOXCtlProgress: how a transfer shows its progress. On a terminal a bar
// redrawn in place (bytes, rate, ETA), at most ten times a second; otherwise
// one plain line per second at most; with --json one object per report.
#pragma once

#include <chrono>
#include <string>

namespace moxctl {

class CMOXCtlProgress {
public:
    enum class Mode { kBar, kLines, kJson };
    CMOXCtlProgress(Mode mode, std::string label);

    // Bytes done and total (total 0: unknown).
    void Update(double done, double total);
    // Ends the bar's line; the last figures stay visible.
    void Finish();

    double Done() const { return m_dDone; }
    double Total() const { return m_dTotal; }
    // Bytes per second since the first report (0 before two reports).
    double Rate() const;
    static std::string FormatDuration(double seconds);
    // The bar line for a terminal of `columns` columns.
    std::string BarLine(int columns) const;

private:
    void m_Draw(bool force);

    Mode m_eMode;
    std::string m_strLabel;
    double m_dDone = 0;
    double m_dTotal = 0;
    bool m_bStarted = false;
    bool m_bDrawn = false;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_lastDraw;
};

}  // namespace moxctl
