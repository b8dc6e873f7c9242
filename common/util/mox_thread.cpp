#define MOX_LOG_TAG "MOX-COMMON"
#include <mox/mox_log.h>

#include <mox/mox_thread.h>

#include <exception>

CMOXSemphore::CMOXSemphore() : m_nCount(0) {}

CMOXSemphore::~CMOXSemphore() = default;

void CMOXSemphore::Post() {
    mox::MutexLock lock(m_mutex);
    ++m_nCount;
    m_cond.notify_one();
}

void CMOXSemphore::Wait() {
    mox::UniqueLock lock(m_mutex);
    // Spurious wake-ups and stolen permits both land back in the loop.
    while (m_nCount < 1) lock.Wait(m_cond);
    --m_nCount;
}

CMOXThread::CMOXThread() : m_hThread(NoThread()), m_nCreated(0) {}

// m_endSem is cleared before m_startSem (reverse member order).
CMOXThread::~CMOXThread() = default;

bool CMOXThread::Create(const char* szName) {
    if (szName == nullptr) return false;
    GError* error = nullptr;
    m_bBodyReturned.store(false);
    GThread* thread = g_thread_try_new(szName, s_ThreadEntry, this, &error);
    if (thread == nullptr) {
        if (error != nullptr) {
            MOX_INFO("thread create fail: %d %d %s", static_cast<int>(error->domain), error->code, error->message);
            g_error_free(error);
        }
        return false;
    }
    m_hThread.store(thread);
    m_nCreated.store(1);
    m_startSem.Wait();
    return true;
}

gpointer CMOXThread::s_ThreadEntry(gpointer data) {
    CMOXThread* self = static_cast<CMOXThread*>(data);
    if (self == nullptr) return nullptr;
    self->m_startSem.Post();
    // Nothing may unwind out of a GLib thread body.
    try {
        self->t_Process();
    } catch (const std::exception& e) {
        MOX_WARN("Exception Handled by[%s]: [%s] \n", "t_Process", e.what());
    } catch (...) {
        MOX_WARN("Exception Handled by[%s]: [%s] \n", "t_Process", "unknown");
    }
    self->m_bBodyReturned.store(true);
    self->m_endSem.Post();
    return nullptr;
}

void CMOXThread::Destroy() {
    if (m_nCreated.load() == 0) return;  // nothing was started: nothing to wait for
    m_endSem.Wait();
    GThread* thread = m_hThread.exchange(NoThread());
    if (thread != NoThread()) g_thread_unref(thread);
    m_nCreated.store(0);
}

gpointer CMOXThread::Thread_join() {
    GThread* thread = m_hThread.exchange(NoThread());
    if (thread == NoThread()) return nullptr;
    // g_thread_join consumes the reference Destroy would otherwise drop.
    return g_thread_join(thread);
}
