// CMOXBusService: the engine's one face on the bus. It owns the bus name and
// the connection, answers calls of undeclared methods, forgets clients that
// leave the bus, and dispatches the interface's methods through one table of
// {name, in-signature, failure reply, handler}. As the engine's signal sink it
// is the one place where texts become D-Bus strings.
//
// Threads: construction, Own(), every handler and the name-owner tracking run
// on the main loop (the default GLib context), except the list calls. The
// message filter runs on GDBus's worker thread: it hands calls of undeclared
// methods to the main loop, and takes get_partial_list and drop_partial_list
// itself (bounded memory work; see AnswerListCall), reaching the engine and
// the known user ids through EngineSlot. The sink methods may be called from
// any thread: they send on the connection the client record names (referenced
// by GDBus for as long as it is open) and touch no member.
//
// Life: the service outlives the engine and the storage manager it serves
// (main creates it first and destroys it last); Attach() names them once they
// exist, and Detach() before they go.
#pragma once

#include <gio/gio.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "mox_signal_sink.h"
#include "mox_thread_annotations.h"

class CMOXEngineImp;
class CMOXStorageMgr;

class CMOXBusService final : public IMOXSignalSink {
public:
    // `node` is the parsed introspection data: its path and first interface
    // are served. `onClosed` runs on the main loop when the connection closes
    // (the bus went away): the daemon then stops and is restarted.
    CMOXBusService(GDBusNodeInfo* node, std::function<void()> onClosed);
    ~CMOXBusService() override;
    CMOXBusService(const CMOXBusService&) = delete;
    CMOXBusService& operator=(const CMOXBusService&) = delete;

    void Attach(CMOXEngineImp* pEngine, CMOXStorageMgr* pStorage);
    void Detach() { Attach(nullptr, nullptr); }

    // Starts owning "com.orvia.mox.engine" on the system bus; `onNameAcquired`
    // runs once it is ours.
    void Own(std::function<void()> onNameAcquired);
    // Gives the name up (shutdown); signals can still be sent until the
    // service is destroyed.
    void Unown();

    void Emit(const connect_info_s& client, const char* szSignal, const std::string& strPayload) override;
    void EmitScannerDone(const connect_info_s& client, uint32_t nScannerId, uint32_t nResult, uint32_t nMediaType,
                         const std::string& strBasePath, const std::string& strName,
                         const std::string& strMedia) override;

    // One method call, as a handler sees it.
    struct Call {
        GDBusMethodInvocation* invocation;
        GVariant* parameters;
        CMOXBusService* service;
        // The caller: connection, unique name, path, interface and user id.
        connect_info_s Caller() const;
        // Replies with `value` (floating, or null for the empty reply).
        void Reply(GVariant* value) const;
    };
    struct Method {
        const char* szName;
        const char* szInSignature;
        // The reply of a call refused before it did anything (null: empty).
        GVariant* (*pfnFailure)();
        void (*pfnHandler)(const Call& call);
    };
    // The table, in the order of the introspection XML.
    static const Method kMethods[];

    // What the GDBus worker thread reaches: the engine and the storage
    // manager, set by Attach, so that Detach waits for a list or storage call
    // under way there before they go, and the callers' user ids. Lock order:
    // the slot's mutex before those the engine and the storage manager take. Shared with the message filter, which
    // may outlive the service.
    struct EngineSlot {
        mox::Mutex mutex;
        CMOXEngineImp* pEngine GUARDED_BY(mutex) = nullptr;    // null unless storage is attached too
        CMOXStorageMgr* pStorage GUARDED_BY(mutex) = nullptr;  // null unless the engine is attached too
        // User ids by unique name, asked of the bus (on the main loop) once
        // per client connection; an entry goes when its client leaves the
        // bus, and a unique name is never reused.
        std::map<std::string, uid_t> uidBySender GUARDED_BY(mutex);
    };

    CMOXEngineImp* Engine() const { return m_pEngine; }
    CMOXStorageMgr* Storage() const { return m_pStorage; }
    // The caller's user id, asked of the bus once per client connection;
    // (uid_t)-1 when the bus cannot tell.
    uid_t CallerUid(GDBusMethodInvocation* invocation);

private:
    static void s_OnBusAcquired(GDBusConnection* connection, const gchar* szName, gpointer self);
    static void s_OnNameAcquired(GDBusConnection* connection, const gchar* szName, gpointer self);
    static void s_OnNameLost(GDBusConnection* connection, const gchar* szName, gpointer self);
    static void s_OnClosed(GDBusConnection* connection, gboolean bRemotePeerVanished, GError* error, gpointer self);
    static void s_OnNameOwnerChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                                     GVariant* parameters, gpointer self);
    static void s_OnMethodCall(GDBusConnection* connection, const gchar* szSender, const gchar* szPath,
                               const gchar* szInterface, const gchar* szMethod, GVariant* parameters,
                               GDBusMethodInvocation* invocation, gpointer self);
    void m_Dispatch(const char* szMethod, GVariant* parameters, GDBusMethodInvocation* invocation);

    GDBusNodeInfo* m_pNode;  // referenced
    std::function<void()> m_onClosed;
    std::function<void()> m_onNameAcquired;
    CMOXEngineImp* m_pEngine = nullptr;    // main loop only
    CMOXStorageMgr* m_pStorage = nullptr;  // main loop only
    guint m_nOwnerId = 0;
    GDBusConnection* m_pConnection = nullptr;  // referenced; see Threads above
    guint m_nNameOwnerSubscription = 0;
    guint m_nRegistrationId = 0;
    std::shared_ptr<EngineSlot> m_pEngineSlot;
};
