#include "engine_fixture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace moxtest {

namespace {

using Clock = std::chrono::steady_clock;

size_t CountOccurrences(const std::string& haystack, const std::string& needle) {
    size_t count = 0;
    for (size_t pos = haystack.find(needle); pos != std::string::npos; pos = haystack.find(needle, pos + needle.size()))
        ++count;
    return count;
}

pid_t SpawnWithEnv(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                   const std::string& outputFile) {
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        // A test that aborts must not leave its bus and daemon running (the
        // harness is always made on the test's main thread).
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        int fd = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) {
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            close(fd);
        }
        execve(args[0], args.data(), envp.data());
        _exit(127);
    }
    return pid;
}

}  // namespace

void PumpMainContext(std::chrono::milliseconds duration) {
    auto deadline = Clock::now() + duration;
    do {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    } while (Clock::now() < deadline);
}

std::string Signal::text() const {
    if (!params || g_variant_n_children(params.get()) == 0) return "";
    GVariantPtr first(g_variant_get_child_value(params.get(), 0));
    if (!g_variant_is_of_type(first.get(), G_VARIANT_TYPE_STRING)) return "";
    return g_variant_get_string(first.get(), nullptr);
}

SignalCollector::SignalCollector(GDBusConnection* connection) : m_connection(connection) {
    m_subscription = g_dbus_connection_signal_subscribe(connection, nullptr, kEngineInterface, nullptr, kEnginePath,
                                                        nullptr, G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, this, nullptr);
}

SignalCollector::~SignalCollector() {
    g_dbus_connection_signal_unsubscribe(m_connection, m_subscription);
    // Dispatch whatever is queued so no callback can reach a dead collector.
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

void SignalCollector::OnSignal(GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar* name,
                               GVariant* params, gpointer self) {
    auto signal = std::make_unique<Signal>();
    signal->name = name;
    signal->sender = sender ? sender : "";
    signal->params.reset(g_variant_ref(params));
    static_cast<SignalCollector*>(self)->m_signals.push_back(std::move(signal));
}

bool SignalCollector::WaitFor(const std::string& name, size_t count, std::chrono::milliseconds timeout) {
    auto deadline = Clock::now() + timeout;
    while (Named(name).size() < count) {
        if (Clock::now() >= deadline) return false;
        PumpMainContext(std::chrono::milliseconds(10));
    }
    return true;
}

std::vector<const Signal*> SignalCollector::Named(const std::string& name) const {
    std::vector<const Signal*> out;
    for (const auto& s : m_signals)
        if (s->name == name) out.push_back(s.get());
    return out;
}

void SignalCollector::Drain(std::chrono::milliseconds duration) {
    PumpMainContext(duration);
}

EngineHarness::EngineHarness() : EngineHarness(BusPolicy::kOpen) {}

EngineHarness::EngineHarness(BusPolicy policy) {
    Prepare();
    StartBus(policy);
}

EngineHarness::EngineHarness(const std::string& sharedBusAddress) : m_busAddress(sharedBusAddress) {
    Prepare();
}

void EngineHarness::Prepare() {
    for (const auto& dir : {VconfDir(), UsbRoot(), AppDataDir(), PluginDir(), SpoolDir()})
        std::filesystem::create_directories(dir);
    m_env["MOX_DBUS_CONFIG"] = MOX_DBUS_XML;
    m_env["MOX_STATUS_FILE"] = StatusFile();
    m_env["MOX_PLUGIN_DIR"] = PluginDir();
    m_env["MOX_APP_DATA_DIR"] = AppDataDir();
    m_env["MOX_USB_ROOT"] = UsbRoot();
    m_env["MOX_VCONF_DIR"] = VconfDir();
    // Never the system's index: every daemon of a test indexes into its own.
    m_env["MOX_LIBRARY_DIR"] = m_dir.file("library");
    m_env["MOX_FEATURES_FILE"] = FeaturesFile();
    m_env["MOX_CA_BUNDLE"] = m_dir.file("ca.pem");
    m_env["MOX_USB_BACKEND"] = "spool:" + SpoolDir();
    m_env["MOX_LOG"] = "file:" + LogFile();
    m_env["MOX_LOG_LEVEL"] = "debug";
}

EngineHarness::~EngineHarness() {
    m_client.reset();
    // Whether the daemon was still running (then SIGKILL ends it) or had
    // died, and how: with the log's tail, the account of a failed test.
    std::string strEnd = "not running";
    if (m_pid > 0) {
        int status = 0;
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            strEnd = WIFSIGNALED(status) ? "had died of signal " + std::to_string(WTERMSIG(status))
                                         : "had exited with " + std::to_string(WEXITSTATUS(status));
        } else {
            strEnd = "was running";
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    if (::testing::Test::HasFailure()) {
        const std::string log = Log();
        constexpr size_t kTail = 16 * 1024;
        fprintf(stderr, "--- the engine %s; last %zu bytes of its log ---\n%s\n---\n", strEnd.c_str(),
                std::min(log.size(), kTail), log.substr(log.size() > kTail ? log.size() - kTail : 0).c_str());
    }
    if (m_busPid > 0) {
        kill(m_busPid, SIGTERM);
        waitpid(m_busPid, nullptr, 0);
    }
}

void EngineHarness::StartBus(BusPolicy policy) {
    std::string socket = m_dir.file("bus.socket");
    std::string config = m_dir.file("bus.conf");
    const std::string head =
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
        "<busconfig>\n"
        "  <type>system</type>\n";
    if (policy == BusPolicy::kInstalled) {
        // Other users must reach the socket, not the rest of the test's files.
        m_busDir = std::make_unique<TempDir>();
        chmod(m_busDir->path().c_str(), 0755);
        socket = m_busDir->file("bus.socket");
        // The system bus's own defaults (as in dbus's system.conf), then the
        // installed engine policy, unchanged.
        WriteTextFile(
            config,
            head + "  <listen>unix:path=" + socket +
                "</listen>\n"
                "  <auth>EXTERNAL</auth>\n"
                "  <policy context=\"default\">\n"
                "    <allow user=\"*\"/>\n"
                "    <deny own=\"*\"/>\n"
                "    <deny send_type=\"method_call\"/>\n"
                "    <allow send_type=\"signal\"/>\n"
                "    <allow send_requested_reply=\"true\" send_type=\"method_return\"/>\n"
                "    <allow send_requested_reply=\"true\" send_type=\"error\"/>\n"
                "    <allow receive_type=\"method_call\"/>\n"
                "    <allow receive_type=\"method_return\"/>\n"
                "    <allow receive_type=\"error\"/>\n"
                "    <allow receive_type=\"signal\"/>\n"
                "    <allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\"/>\n"
                "    <allow send_destination=\"org.freedesktop.DBus\"\n"
                "           send_interface=\"org.freedesktop.DBus.Introspectable\"/>\n"
                "    <deny send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\"\n"
                "          send_member=\"UpdateActivationEnvironment\"/>\n"
                "  </policy>\n"
                "  <include>" MOX_DBUS_POLICY
                "</include>\n"
                "</busconfig>\n");
    } else {
        std::string allow;
        for (const char* rule : {"user=\"*\"", "own=\"*\"", "send_type=\"method_call\"", "send_type=\"signal\"",
                                 "send_type=\"method_return\"", "send_type=\"error\"", "receive_type=\"method_call\"",
                                 "receive_type=\"signal\"", "receive_type=\"method_return\"", "receive_type=\"error\""})
            allow += std::string("    <allow ") + rule + "/>\n";
        WriteTextFile(config, head + "  <listen>unix:path=" + socket + "</listen>\n  <auth>EXTERNAL</auth>\n" +
                                  "  <policy context=\"default\">\n" + allow + "  </policy>\n</busconfig>\n");
    }
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) env.emplace_back(*e);
    m_busPid = SpawnWithEnv({"/usr/bin/dbus-daemon", "--nofork", "--nopidfile", "--config-file=" + config}, env,
                            m_dir.file("bus.out"));
    m_busAddress = "unix:path=" + socket;
    // The socket file appears at bind(), a little before the bus accepts
    // connections: wait until a client really gets through.
    auto deadline = Clock::now() + std::chrono::seconds(10);
    while (!m_client) {
        try {
            m_client = Connect();
        } catch (const std::runtime_error&) {
            if (Clock::now() > deadline) throw std::runtime_error("dbus-daemon did not start");
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

std::string EngineHarness::Plug(const std::string& name, const std::string& product) {
    const std::string mount = UsbRoot() + "/" + name;
    std::filesystem::create_directories(mount);
    // The spool's contract: written under a temporary name, then renamed.
    const std::string tmp = SpoolDir() + "/." + name + ".tmp";
    EXPECT_TRUE(WriteTextFile(tmp, R"({"devname":"/dev/)" + name + R"(","class":8,"mount_path":")" + mount +
                                       R"(","fs_type":0,"disk_type":1,"manufacturer":"Acme","product":")" + product +
                                       R"("})"));
    EXPECT_EQ(rename(tmp.c_str(), (SpoolDir() + "/" + name + ".json").c_str()), 0);
    return mount;
}

void EngineHarness::Unplug(const std::string& name) {
    EXPECT_EQ(std::remove((SpoolDir() + "/" + name + ".json").c_str()), 0) << name;
}

void EngineHarness::InstallPlugin(const std::string& so) {
    std::filesystem::create_symlink(so, PluginDir() + "/" + std::filesystem::path(so).filename().string());
}

bool EngineHarness::SetKey(const std::string& key, int value) {
    std::string path = VconfDir() + "/" + key;
    std::string tmp = path + ".test-tmp";
    if (!WriteTextFile(tmp, std::to_string(value) + "\n")) return false;
    return rename(tmp.c_str(), path.c_str()) == 0;
}

bool EngineHarness::GetKey(const std::string& key, int* value) const {
    std::string text = ReadTextFile(VconfDir() + "/" + key);
    if (text.empty()) return false;
    *value = std::atoi(text.c_str());
    return true;
}

pid_t EngineHarness::Spawn() {
    std::map<std::string, std::string> env;
    for (char** e = environ; *e; ++e) {
        std::string entry(*e);
        size_t eq = entry.find('=');
        if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    env.erase("NOTIFY_SOCKET");
    env.erase("JOURNAL_STREAM");
    for (const auto& kv : m_env) env[kv.first] = kv.second;
    env["DBUS_SYSTEM_BUS_ADDRESS"] = m_busAddress;
    std::vector<std::string> flat;
    for (const auto& kv : env) flat.push_back(kv.first + "=" + kv.second);
    return SpawnWithEnv({MOX_ENGINE_BINARY}, flat, m_dir.file("engine.out"));
}

ConnectionPtr EngineHarness::Connect() const {
    GError* error = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        m_busAddress.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!connection) {
        std::string message = error ? error->message : "unknown error";
        if (error) g_error_free(error);
        throw std::runtime_error("cannot connect to the test bus: " + message);
    }
    return ConnectionPtr(connection);
}

GDBusConnection* EngineHarness::Client() {
    if (!m_client) m_client = Connect();
    return m_client.get();
}

bool EngineHarness::Start(std::chrono::milliseconds timeout) {
    m_pid = Spawn();
    auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline) {
        if (!Running()) return false;
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_sync(
            Client(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
            g_variant_new("(s)", kEngineName), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, &error);
        if (error) g_error_free(error);
        gboolean owned = FALSE;
        if (reply) {
            g_variant_get(reply, "(b)", &owned);
            g_variant_unref(reply);
        }
        // The object is registered before the name is owned, so a call can go now.
        if (owned) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

int EngineHarness::WaitPid(std::chrono::milliseconds timeout) {
    auto deadline = Clock::now() + timeout;
    while (true) {
        int status = 0;
        pid_t r = waitpid(m_pid, &status, WNOHANG);
        if (r == m_pid) {
            m_pid = -1;
            if (WIFSIGNALED(status)) fprintf(stderr, "daemon killed by signal %d\n", WTERMSIG(status));
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        if (r < 0) {
            m_pid = -1;
            return -1;
        }
        if (Clock::now() > deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

int EngineHarness::RunToExit(std::chrono::milliseconds timeout) {
    m_pid = Spawn();
    return WaitPid(timeout);
}

int EngineHarness::Stop(std::chrono::milliseconds timeout) {
    if (m_pid <= 0) return -1;
    kill(m_pid, SIGTERM);
    int status = WaitPid(timeout);
    if (status != 0) fprintf(stderr, "--- daemon output ---\n%s\n---\n", Output().c_str());
    return status;
}

bool EngineHarness::Running() {
    if (m_pid <= 0) return false;
    int status = 0;
    pid_t r = waitpid(m_pid, &status, WNOHANG);
    if (r == 0) return true;
    if (r == m_pid) m_pid = -1;
    return false;
}

CallResult EngineHarness::Call(const std::string& method, GVariant* params, GDBusConnection* connection,
                               int timeoutMs) {
    CallResult result;
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(connection ? connection : Client(), kEngineName, kEnginePath,
                                                  kEngineInterface, method.c_str(), params, nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, timeoutMs, nullptr, &error);
    result.reply.reset(reply);
    if (error) {
        result.error = error->message;
        g_error_free(error);
    }
    return result;
}

std::vector<const Signal*> UserCallResults::Named(const std::string& name) const {
    std::vector<const Signal*> out;
    for (const auto& s : signals)
        if (s->name == name) out.push_back(s.get());
    return out;
}

bool EngineHarness::CanCallAsUser() {
    return geteuid() == 0;
}

namespace {

// GVariant text of a call's parameters for the helper; the first uint32 may
// stand for the sequence's handle.
std::string ParamsText(GVariant* params, bool useHandle) {
    if (!params) return "";
    std::string text = "(";
    size_t n = g_variant_n_children(params);
    for (size_t i = 0; i < n; ++i) {
        GVariantPtr child(g_variant_get_child_value(params, i));
        if (i == 0 && useHandle && g_variant_is_of_type(child.get(), G_VARIANT_TYPE_UINT32)) {
            text += "uint32 %HANDLE%";
        } else {
            gchar* printed = g_variant_print(child.get(), TRUE);
            text += printed;
            g_free(printed);
        }
        text += i + 1 < n ? ", " : (n == 1 ? "," : "");
    }
    return text + ")";
}

}  // namespace

UserCallResults EngineHarness::CallAsUser(uid_t uid, std::vector<UserCall> calls,
                                          std::chrono::milliseconds signalWait) {
    UserCallResults results;
    std::vector<std::string> argv = {MOX_CALL_AS_BINARY, std::to_string(signalWait.count())};
    for (auto& call : calls) {
        if (call.params) g_variant_ref_sink(call.params);
        argv.push_back(call.interface);
        argv.push_back(call.method);
        argv.push_back(ParamsText(call.params, call.useHandle));
        if (call.params) g_variant_unref(call.params);
    }
    if (!CanCallAsUser()) {
        results.error = "only root can switch to another user";
        return results;
    }
    gid_t gid = uid;
    if (const passwd* pw = getpwuid(uid)) gid = pw->pw_gid;
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        if (strncmp(*e, "DBUS_SYSTEM_BUS_ADDRESS=", 24) != 0 && strncmp(*e, "ASAN_OPTIONS=", 13) != 0)
            env.emplace_back(*e);
    env.push_back("DBUS_SYSTEM_BUS_ADDRESS=" + m_busAddress);
    env.push_back("ASAN_OPTIONS=detect_leaks=0");  // the helper's exit is not under test
    std::vector<char*> args, envp;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);

    // Opened while still root: the build tree need not be reachable by the user.
    int binary = open(MOX_CALL_AS_BINARY, O_RDONLY | O_CLOEXEC);
    int out[2];
    if (binary < 0 || pipe2(out, O_CLOEXEC) != 0) {
        if (binary >= 0) close(binary);
        results.error = std::string("cannot prepare the helper: ") + strerror(errno);
        return results;
    }
    pid_t pid = fork();
    if (pid == 0) {
        // Only async-signal-safe calls between fork and exec.
        dup2(out[1], STDOUT_FILENO);
        if (setgroups(0, nullptr) != 0 || setresgid(gid, gid, gid) != 0 || setresuid(uid, uid, uid) != 0 ||
            chdir("/") != 0)
            _exit(126);
        fexecve(binary, args.data(), envp.data());
        _exit(127);
    }
    close(out[1]);
    close(binary);
    if (pid < 0) {
        close(out[0]);
        results.error = "fork failed";
        return results;
    }
    std::string text;
    auto deadline = Clock::now() + signalWait + std::chrono::seconds(10) * (calls.size() + 1);
    char buffer[4096];
    while (Clock::now() < deadline) {
        pollfd pfd{out[0], POLLIN, 0};
        if (poll(&pfd, 1, 100) <= 0) continue;
        ssize_t n = read(out[0], buffer, sizeof(buffer));
        if (n <= 0) break;
        text.append(buffer, static_cast<size_t>(n));
    }
    close(out[0]);
    kill(pid, SIGKILL);  // a no-op unless the helper overran its time
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        results.error = "helper exited with status " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1);

    // The helper's lines: "whoami UID GID", "signal NAME VALUE", "reply N VALUE",
    // "error N TEXT" or "fatal TEXT".
    auto variant = [](const std::string& printed) {
        GVariant* value = g_variant_parse(nullptr, printed.c_str(), nullptr, nullptr, nullptr);
        return GVariantPtr(value ? g_variant_ref_sink(value) : nullptr);
    };
    results.calls.resize(calls.size());
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string kind, key, rest;
        fields >> kind >> key;
        std::getline(fields >> std::ws, rest);
        const size_t index = std::strtoul(key.c_str(), nullptr, 10);
        if (kind == "fatal") {
            results.error = line.substr(6);
        } else if (kind == "whoami") {
            results.uid = static_cast<uid_t>(index);
            results.gid = static_cast<gid_t>(std::strtoul(rest.c_str(), nullptr, 10));
        } else if (kind == "signal") {
            results.signals.push_back(std::make_unique<Signal>());
            results.signals.back()->name = key;
            results.signals.back()->params = variant(rest);
        } else if (index < results.calls.size() && kind == "reply") {
            results.calls[index].reply = variant(rest);
        } else if (index < results.calls.size() && kind == "error") {
            results.calls[index].error = rest;
        }
    }
    return results;
}

CallResult EngineHarness::CallAsUser(uid_t uid, const std::string& method, GVariant* params,
                                     const std::string& interface) {
    std::vector<UserCall> calls(1);
    calls[0].method = method;
    calls[0].params = params;
    calls[0].interface = interface;
    UserCallResults results = CallAsUser(uid, std::move(calls));
    CallResult result;
    if (!results.calls.empty()) result = std::move(results.calls[0]);
    if (!result.ok() && result.error.empty()) result.error = results.error.empty() ? "no reply" : results.error;
    return result;
}

std::string EngineHarness::Log() const {
    return ReadTextFile(LogFile());
}

size_t EngineHarness::CountLog(const std::string& needle) const {
    return CountOccurrences(Log(), needle);
}

bool EngineHarness::WaitForLog(const std::string& needle, size_t count, std::chrono::milliseconds timeout) {
    auto deadline = Clock::now() + timeout;
    while (CountLog(needle) < count) {
        if (Clock::now() >= deadline) return false;
        PumpMainContext(std::chrono::milliseconds(20));
    }
    return true;
}

std::string EngineHarness::Output() const {
    return ReadTextFile(m_dir.file("engine.out"));
}

Json::Value Parse(const std::string& text) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream in(text);
    EXPECT_TRUE(Json::parseFromStream(builder, in, &value, &errors)) << errors << text;
    return value;
}

bool ShmExists(const std::string& name) {
    struct stat st {};
    return stat(("/dev/shm/" + name).c_str(), &st) == 0;
}

}  // namespace moxtest
