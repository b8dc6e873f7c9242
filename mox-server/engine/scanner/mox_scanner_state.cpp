#define MOX_LOG_TAG "MOX-SCANNER"
#include <mox/mox_log.h>

#include "mox_scanner_state.h"

#include "mox_auto_scanner.h"

// INIT: only the thread's first Stop leaves it, taking the gate that Create
// raised.
int CMOXScannerInitState::Start() {
    return MOX_SCAN_INVALID_STATE;
}
int CMOXScannerInitState::Stop() {
    m_pScanner->m_gate.Wait();
    m_pScanner->SetState(m_pScanner->m_pStopState.get());
    return MOX_SCAN_OK;
}
int CMOXScannerInitState::Pause() {
    return MOX_SCAN_INVALID_STATE;
}
int CMOXScannerInitState::Resume() {
    return MOX_SCAN_INVALID_STATE;
}
int CMOXScannerInitState::Reset() {
    return MOX_SCAN_INVALID_STATE;
}

int CMOXScannerStopState::Start() {
    if (!m_pScanner->CreateNewScanner()) {
        m_pScanner->ReleaseDirScanner();
        return MOX_SCAN_RETRY;
    }
    m_pScanner->SetState(m_pScanner->m_pScanState.get());
    m_pScanner->m_gate.Post();
    return MOX_SCAN_OK;
}
int CMOXScannerStopState::Stop() {
    return MOX_SCAN_ALREADY_STOPPED;
}
int CMOXScannerStopState::Pause() {
    return MOX_SCAN_INVALID_STATE;
}
int CMOXScannerStopState::Resume() {
    return MOX_SCAN_INVALID_STATE;
}
int CMOXScannerStopState::Reset() {
    m_pScanner->ReleaseDirScanner();
    m_pScanner->Initialize();
    return MOX_SCAN_OK;
}

// PAUSE: the gate is held since Pause; Stop keeps holding it.
int CMOXScannerPauseState::Start() {
    return MOX_SCAN_INVALID_STATE;
}
int CMOXScannerPauseState::Stop() {
    m_pScanner->SetState(m_pScanner->m_pStopState.get());
    m_pScanner->ReleaseDirScanner();
    return MOX_SCAN_OK;
}
int CMOXScannerPauseState::Pause() {
    return MOX_SCAN_OK;
}
int CMOXScannerPauseState::Resume() {
    m_pScanner->SetState(m_pScanner->m_pScanState.get());
    m_pScanner->m_gate.Post();
    return MOX_SCAN_OK;
}
int CMOXScannerPauseState::Reset() {
    return MOX_SCAN_INVALID_STATE;
}

int CMOXScannerScanState::Start() {
    return MOX_SCAN_OK;
}
int CMOXScannerScanState::Stop() {
    m_pScanner->m_gate.Wait();
    m_pScanner->SetState(m_pScanner->m_pStopState.get());
    m_pScanner->ReleaseDirScanner();
    return MOX_SCAN_OK;
}
int CMOXScannerScanState::Pause() {
    m_pScanner->m_gate.Wait();
    m_pScanner->SetState(m_pScanner->m_pPauseState.get());
    return MOX_SCAN_OK;
}
int CMOXScannerScanState::Resume() {
    return MOX_SCAN_INVALID_STATE;
}
int CMOXScannerScanState::Reset() {
    return MOX_SCAN_INVALID_STATE;
}
