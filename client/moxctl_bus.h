// CMOXCtlBus: moxctl's one connection to the engine. Method calls block with
// the configured timeout; the engine's signals addressed to this client are
// queued as they arrive and taken with WaitSignal, which iterates the default
// main context. SIGINT, SIGTERM and SIGHUP only set a flag (seen by
// WaitSignal and Poll), so every command can clean up after Ctrl-C.
//
// Single-threaded: everything runs on the thread that created the object.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include <gio/gio.h>

namespace moxctl {

constexpr const char* kEngineName = "com.orvia.mox.engine";
constexpr const char* kEnginePath = "/com/orvia/mox/engine";
constexpr const char* kEngineInterface = "com.orvia.mox.engine";

// Exit statuses of the tool.
enum ExitCode {
    kExitOk = 0,
    kExitFailed = 1,         // the engine reported a failure
    kExitUsage = 2,          // bad command line
    kExitUnavailable = 3,    // no bus, engine absent, or timed out
    kExitNoFolder = 4,       // list: not a folder below the USB root
    kExitSourceFailed = 5,   // list: the source failed or broke its contract
    kExitSourceRefused = 6,  // list: the source answered with an error code of its own
    kExitInterrupted = 130,
};

struct GVariantUnref {
    void operator()(GVariant* v) const {
        if (v) g_variant_unref(v);
    }
};
using VariantPtr = std::unique_ptr<GVariant, GVariantUnref>;

struct EngineSignal {
    std::string name;
    VariantPtr params;
    // The first member of the payload when it is a string, else "".
    std::string Text() const;
};

class CMOXCtlBus {
public:
    struct Options {
        std::string address;  // empty: the system bus
        std::chrono::milliseconds timeout{30000};
    };
    enum class Wait { kGot, kTimeout, kInterrupted, kEngineGone };

    ~CMOXCtlBus();
    CMOXCtlBus(const CMOXCtlBus&) = delete;
    CMOXCtlBus& operator=(const CMOXCtlBus&) = delete;

    // Connects; null with a one-line reason in `error` when the bus cannot be
    // reached.
    static std::unique_ptr<CMOXCtlBus> Open(const Options& options, std::string& error);

    // Calls a method of the engine (params is floating, consumed). On failure
    // returns null, fills `error` and `exitCode` (3 when the engine is absent
    // or the call timed out, 1 otherwise).
    VariantPtr Call(const char* method, GVariant* params, const char* replyType, std::string& error, int& exitCode);

    // Waits up to the configured timeout for a queued signal that `match`
    // accepts; earlier signals it rejects stay queued.
    Wait WaitSignal(const std::function<bool(const EngineSignal&)>& match, EngineSignal& out);
    Wait WaitSignal(const std::function<bool(const EngineSignal&)>& match, EngineSignal& out,
                    std::chrono::milliseconds timeout);

    // Dispatches what is pending without blocking (signals, Ctrl-C).
    void Poll();
    bool Interrupted() const { return m_bInterrupted; }
    // After handling a Ctrl-C (e.g. asking the engine to stop), so that the
    // wait for the engine's answer can run; a second Ctrl-C sets it again.
    void ClearInterrupted() { m_bInterrupted = false; }
    bool EngineGone() const { return m_bEngineGone; }
    std::chrono::milliseconds Timeout() const { return m_timeout; }
    // Wait outcome as a one-line reason and an exit status.
    static int Describe(Wait w, const std::string& what, std::string& error);

private:
    CMOXCtlBus(GDBusConnection* connection, std::chrono::milliseconds timeout);
    static void s_OnSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name,
                           GVariant* params, gpointer self);
    static void s_OnOwnerChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                                 GVariant* params, gpointer self);
    static void s_OnClosed(GDBusConnection*, gboolean remotePeerVanished, GError* error, gpointer self);
    static gboolean s_OnUnixSignal(gpointer self);
    static gboolean s_OnTick(gpointer self);

    GDBusConnection* m_connection;  // owned
    std::chrono::milliseconds m_timeout;
    guint m_signalSub = 0;
    guint m_ownerSub = 0;
    gulong m_closedHandler = 0;
    guint m_unixSources[3] = {0, 0, 0};
    std::deque<EngineSignal> m_queue;
    bool m_bInterrupted = false;
    bool m_bEngineGone = false;  // the engine left the bus, or the bus closed
};

}  // namespace moxctl
