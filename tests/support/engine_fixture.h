// Integration harness: a private dbus-daemon, the real mox-engine binary
// started with every host path moved into a temporary directory and its log
// going to a file, and GDBus clients talking to it.
//
// Everything runs on the test's thread: signals are collected by iterating the
// default main context while waiting. Stop() checks that the daemon exited
// with status 0, which under ASan/UBSan also means "no sanitizer report".
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gio/gio.h>
#include <json/json.h>

#include "temp_dir.h"

namespace moxtest {

struct GVariantUnref {
    void operator()(GVariant* v) const {
        if (v) g_variant_unref(v);
    }
};
using GVariantPtr = std::unique_ptr<GVariant, GVariantUnref>;

struct GObjectUnref {
    void operator()(gpointer p) const {
        if (p) g_object_unref(p);
    }
};
using ConnectionPtr = std::unique_ptr<GDBusConnection, GObjectUnref>;

constexpr const char* kEngineName = "com.orvia.mox.engine";
constexpr const char* kEnginePath = "/com/orvia/mox/engine";
constexpr const char* kEngineInterface = "com.orvia.mox.engine";

// Result of one method call: the reply, or the D-Bus error text.
struct CallResult {
    GVariantPtr reply;
    std::string error;
    bool ok() const { return static_cast<bool>(reply); }
};

struct Signal {
    std::string name;
    std::string sender;
    GVariantPtr params;
    // The first string member of the payload tuple, when there is one.
    std::string text() const;
};

// Records the engine's signals that reach one connection.
class SignalCollector {
public:
    explicit SignalCollector(GDBusConnection* connection);
    ~SignalCollector();
    SignalCollector(const SignalCollector&) = delete;
    SignalCollector& operator=(const SignalCollector&) = delete;

    // Waits until at least `count` signals named `name` arrived.
    bool WaitFor(const std::string& name, size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    std::vector<const Signal*> Named(const std::string& name) const;
    // Lets pending signals arrive for `duration`, e.g. to check that none came.
    void Drain(std::chrono::milliseconds duration);

private:
    static void OnSignal(GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar* name,
                         GVariant* params, gpointer self);

    GDBusConnection* m_connection;
    guint m_subscription;
    std::vector<std::unique_ptr<Signal>> m_signals;
};

// Policy of the private bus. kOpen lets anyone do anything (most tests);
// kInstalled is the installed system policy (data/com.orvia.mox.engine.conf
// on the system bus's defaults: root owns the name, any user calls the
// engine's interface and introspects it, nothing else), and its socket is
// reachable by every user so that CallAsUser can reach it.
enum class BusPolicy { kOpen, kInstalled };

// One call of a CallAsUser sequence. `params` is borrowed (floating refs are
// sunk); "%HANDLE%" cannot appear in a GVariant, so a call that needs the
// handle of an earlier "connect" of the same sequence sets useHandle: its
// first uint32 argument is replaced by that handle.
struct UserCall {
    std::string method;
    GVariant* params = nullptr;
    std::string interface = kEngineInterface;
    bool useHandle = false;
};

// What another user's connection got: one CallResult per call (in order) and
// the engine's signals that reached that connection.
struct UserCallResults {
    std::string error;                   // set when the sequence could not run at all
    uid_t uid = static_cast<uid_t>(-1);  // the identity the helper ran with
    gid_t gid = static_cast<gid_t>(-1);
    std::vector<CallResult> calls;
    std::vector<std::unique_ptr<Signal>> signals;
    std::vector<const Signal*> Named(const std::string& name) const;
};

class EngineHarness {
public:
    EngineHarness();
    explicit EngineHarness(BusPolicy policy);
    // A second daemon on the bus of another harness (that harness outlives it).
    explicit EngineHarness(const std::string& sharedBusAddress);
    ~EngineHarness();
    EngineHarness(const EngineHarness&) = delete;
    EngineHarness& operator=(const EngineHarness&) = delete;

    // Host paths inside the temporary directory (created empty).
    std::string VconfDir() const { return m_dir.file("vconf"); }
    std::string UsbRoot() const { return m_dir.file("usb"); }
    std::string AppDataDir() const { return m_dir.file("appdata"); }
    std::string PluginDir() const { return m_dir.file("plugins"); }
    std::string SpoolDir() const { return m_dir.file("spool"); }
    std::string StatusFile() const { return m_dir.file("mox-engine.status"); }
    std::string FeaturesFile() const { return m_dir.file("features"); }
    std::string LogFile() const { return m_dir.file("engine.log"); }
    std::string Path(const std::string& name) const { return m_dir.file(name); }
    const std::string& BusAddress() const { return m_busAddress; }

    // A mass-storage stick of model `product` in the spool, mounted at
    // UsbRoot()/name (the directory is made); its mount path.
    std::string Plug(const std::string& name, const std::string& product = "Stick");
    // The stick's spool file is removed: it is pulled.
    void Unplug(const std::string& name);
    // Links a plug-in into PluginDir().
    void InstallPlugin(const std::string& so);

    // Extra or replaced environment of the daemon (before Start).
    void SetEnv(const std::string& name, const std::string& value) { m_env[name] = value; }
    // Writes a configuration key the way mox-vconf does.
    bool SetKey(const std::string& key, int value);
    bool GetKey(const std::string& key, int* value) const;

    // Starts the daemon and waits until it owns its name. False when it exited
    // or did not own the name in time.
    bool Start(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // Starts the daemon and waits for it to exit on its own; returns its exit
    // status, or -1 when it did not exit in time.
    int RunToExit(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // Sends SIGTERM and waits; returns the exit status (-1 on a crash/timeout).
    int Stop(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    bool Running();
    pid_t Pid() const { return m_pid; }
    // The private bus daemon (-1 for a harness on another harness's bus).
    pid_t BusPid() const { return m_busPid; }

    // A new client connection to the private bus.
    ConnectionPtr Connect() const;
    // The harness's default client connection.
    GDBusConnection* Client();
    CallResult Call(const std::string& method, GVariant* params, GDBusConnection* connection = nullptr,
                    int timeoutMs = 10000);

    // Makes the calls on one new connection of the user `uid` (its primary
    // group, no supplementary groups), in a helper process that drops to it,
    // and collects the signals reaching that connection during the calls and
    // for `signalWait` after. Needs root (see CanCallAsUser) and a bus the user
    // can reach (BusPolicy::kInstalled).
    UserCallResults CallAsUser(uid_t uid, std::vector<UserCall> calls,
                               std::chrono::milliseconds signalWait = std::chrono::milliseconds(0));
    CallResult CallAsUser(uid_t uid, const std::string& method, GVariant* params,
                          const std::string& interface = kEngineInterface);
    static bool CanCallAsUser();

    std::string Log() const;
    size_t CountLog(const std::string& needle) const;
    bool WaitForLog(const std::string& needle, size_t count = 1,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // What the daemon wrote to stdout/stderr (sanitizer reports end up here).
    std::string Output() const;

private:
    void Prepare();
    void StartBus(BusPolicy policy);
    pid_t Spawn();
    int WaitPid(std::chrono::milliseconds timeout);

    TempDir m_dir;
    // The socket of a kInstalled bus lives here (mode 0755), apart from m_dir.
    std::unique_ptr<TempDir> m_busDir;
    std::map<std::string, std::string> m_env;
    std::string m_busAddress;
    pid_t m_busPid = -1;
    pid_t m_pid = -1;
    ConnectionPtr m_client;
};

// Iterates the default main context for up to `duration`.
void PumpMainContext(std::chrono::milliseconds duration);

// A JSON document of the daemon (a signal's text, a list item); a text that
// does not parse fails the test and gives null.
Json::Value Parse(const std::string& text);
// Whether a shared-memory object of that name exists now.
bool ShmExists(const std::string& name);

}  // namespace moxtest
