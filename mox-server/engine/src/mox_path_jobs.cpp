#define MOX_LOG_TAG "MOX-ENGINE"
#include <mox/mox_log.h>

#include "mox_path_jobs.h"

#include <exception>
#include <system_error>
#include <thread>

using Lock = mox::MutexLock;

CMOXPathJobs::CMOXPathJobs() : m_state(std::make_shared<SState>()) {}

CMOXPathJobs::~CMOXPathJobs() {
    Lock lock(m_state->mutex);
    m_state->bClosed = true;
}

bool CMOXPathJobs::Run(const std::string& share, std::function<void()> resolve, std::function<void()> finish) {
    {
        Lock lock(m_state->mutex);
        if (m_state->bClosed) return false;
        if (m_state->nRunning >= kMaxJobs) {
            MOX_WARN("%zu path jobs wait on storages: refused", m_state->nRunning);
            return false;
        }
        size_t& nShare = m_state->perShare[share];
        if (nShare >= kMaxJobsPerShare) {
            MOX_WARN("client %s has %zu path jobs waiting on storages: refused", share.c_str(), nShare);
            return false;
        }
        ++nShare;
        ++m_state->nRunning;
    }
    try {
        std::thread(s_Body, m_state, share, std::move(resolve), std::move(finish)).detach();
        return true;
    } catch (const std::system_error& e) {
        MOX_WARN("no thread for a path job: %s", e.what());
    }
    Lock lock(m_state->mutex);
    --m_state->nRunning;
    if (--m_state->perShare[share] == 0) m_state->perShare.erase(share);
    return false;
}

void CMOXPathJobs::s_Body(const std::shared_ptr<SState>& state, const std::string& share,
                          const std::function<void()>& resolve, const std::function<void()>& finish) {
    bool bFinish = false;
    try {
        resolve();
        Lock lock(state->mutex);
        bFinish = !state->bClosed;
        if (bFinish) ++state->nFinishing;
    } catch (const std::exception& e) {
        MOX_WARN("path job failed: %s", e.what());
    } catch (...) {
        MOX_WARN("path job failed: unknown exception");
    }
    if (bFinish) {
        try {
            finish();
        } catch (const std::exception& e) {
            MOX_WARN("path job failed: %s", e.what());
        } catch (...) {
            MOX_WARN("path job failed: unknown exception");
        }
    }
    Lock lock(state->mutex);
    if (bFinish) --state->nFinishing;
    --state->nRunning;
    if (--state->perShare[share] == 0) state->perShare.erase(share);
    state->cond.notify_all();
}

bool CMOXPathJobs::Close(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    mox::UniqueLock lock(m_state->mutex);
    m_state->bClosed = true;
    while (m_state->nRunning != 0)
        if (lock.WaitUntil(m_state->cond, deadline) == std::cv_status::timeout) break;
    if (m_state->nRunning == 0) return true;
    MOX_WARN("%zu path job(s) stuck on a storage at shutdown (%zu using the engine): left running", m_state->nRunning,
             m_state->nFinishing);
    return false;
}
