// IMOXSignalSink: the one way the engine, the scan glue and the storage
// notifications send anything to a client. The bus service implements it and
// is the one place where texts become D-Bus strings (valid UTF-8, see
// mox_bus_text.h); tests record what would have been sent.
//
// Implementations are thread-safe, never block on a client, never throw, and
// log a signal they cannot send (a client that left is not an error).
#pragma once

#include <cstdint>
#include <string>

#include "mox_storage_defines.h"

// A client's identity: connection, sender unique name, object path, interface.
typedef dbus_connection_info_s connect_info_s;

class IMOXSignalSink {
public:
    virtual ~IMOXSignalSink() = default;

    // A signal of one string argument: mox_request_normal_complete,
    // mox_request_metadata, mox_usb_notification, mox_folder_thumb_done.
    virtual void Emit(const connect_info_s& client, const char* szSignal, const std::string& strPayload) = 0;

    // mox_scanner_done: (scanner id, result code, media type, base path, file
    // name, media metadata text).
    virtual void EmitScannerDone(const connect_info_s& client, uint32_t nScannerId, uint32_t nResult,
                                 uint32_t nMediaType, const std::string& strBasePath, const std::string& strName,
                                 const std::string& strMedia) = 0;
};
