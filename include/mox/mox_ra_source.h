// The transfer source "mox_ra_source" (libmox_ra_source.so): file copies
// between storages and downloads from http/https URLs onto a storage, and
// the normal actions on local storage. Clients reach it with request_act /
// stop_act and the documents below; its result codes arrive as the final
// signal's "mox_error_code".
//
// Transfer ("mox_command" "mox_file_transfer", "mox_source" "mox_ra_source"):
//   "mox_transfer_id"        string chosen by the client (1..255 bytes)
//   "mox_transfer_src"       absolute file path below MOX_USB_ROOT, or an
//                            http:// or https:// URL
//   "mox_transfer_dst"       absolute file path below MOX_USB_ROOT
//   "mox_transfer_overwrite" bool, default false
// Stop (stop_act): the same document kind with "mox_file_transfer_stop" true
// and the transfer's "mox_transfer_id".
// Album ("mox_create_album"): "mox_album_path", the folder to create.
#pragma once

// Result codes besides 0 (success) and 7 (malformed document, path outside
// the USB root, unknown transfer id in a stop). They lie in the range of
// mox_error_code_e that the engine leaves to sources.
enum {
    MOX_RA_ERROR_STOPPED = 9,       // stopped by stop_act or at shutdown
    MOX_RA_ERROR_EXISTS = 10,       // destination exists, no "mox_transfer_overwrite"
    MOX_RA_ERROR_SOURCE = 11,       // source file missing or not a readable regular file
    MOX_RA_ERROR_HTTP = 12,         // the server answered with a status other than 2xx
    MOX_RA_ERROR_NETWORK = 13,      // connection, TLS, redirect or protocol failure
    MOX_RA_ERROR_WRITE = 14,        // destination not writable (full, unplugged, read-only)
    MOX_RA_ERROR_BUSY = 15,         // the id or the destination is already in transfer
    MOX_RA_ERROR_UNSUPPORTED = 16,  // "mox_setlike" / "mox_uploadcomment" on local storage
};
