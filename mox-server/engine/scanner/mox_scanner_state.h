// The four states of an auto scanner (INIT, STOP, PAUSE, SCAN). Each operation
// is called by CMOXAutoScanner with its state mutex held and returns 0, -11
// (refused in this state), -21 (already stopped) or -6 (no walk could start).
// A state object keeps a pointer to its scanner, which owns it.
#pragma once

class CMOXAutoScanner;

class IMOXScannerState {
public:
    explicit IMOXScannerState(CMOXAutoScanner* pScanner) : m_pScanner(pScanner) {}
    virtual ~IMOXScannerState() = default;
    IMOXScannerState(const IMOXScannerState&) = delete;
    IMOXScannerState& operator=(const IMOXScannerState&) = delete;

    virtual int Start() = 0;
    virtual int Stop() = 0;
    virtual int Pause() = 0;
    virtual int Resume() = 0;
    virtual int Reset() = 0;
    virtual const char* GetName() const = 0;

protected:
    CMOXAutoScanner* m_pScanner;
};

class CMOXScannerInitState : public IMOXScannerState {
public:
    using IMOXScannerState::IMOXScannerState;
    int Start() override;
    int Stop() override;
    int Pause() override;
    int Resume() override;
    int Reset() override;
    const char* GetName() const override { return "INIT"; }
};

class CMOXScannerStopState : public IMOXScannerState {
public:
    using IMOXScannerState::IMOXScannerState;
    int Start() override;
    int Stop() override;
    int Pause() override;
    int Resume() override;
    int Reset() override;
    const char* GetName() const override { return "STOP"; }
};

class CMOXScannerPauseState : public IMOXScannerState {
public:
    using IMOXScannerState::IMOXScannerState;
    int Start() override;
    int Stop() override;
    int Pause() override;
    int Resume() override;
    int Reset() override;
    const char* GetName() const override { return "PAUSE"; }
};

class CMOXScannerScanState : public IMOXScannerState {
public:
    using IMOXScannerState::IMOXScannerState;
    int Start() override;
    int Stop() override;
    int Pause() override;
    int Resume() override;
    int Reset() override;
    const char* GetName() const override { return "SCAN"; }
};
