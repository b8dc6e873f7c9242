// Protocol numbers of the engine's signals, shared by the engine and its
// clients: the "mox_event_type" of mox_request_normal_complete and
// mox_request_metadata, and the scan results that mox_scanner_done carries.
#pragma once

// The values of "mox_event_type".
typedef enum {
    MOX_EVENT_LIST_READY = 0,         // a result list is named
    MOX_EVENT_LIST_SOURCE_ERROR = 1,  // the source ended with code 6
    MOX_EVENT_LIST_FAILED = 2,        // no result list; refusals carry "mox_error_code"
    MOX_EVENT_DETAIL = 3,             // the detail, or an unexpected code of the source
    MOX_EVENT_DETAIL_FAILED = 4,      // no source, the source failed, or refused (code 23)
    MOX_EVENT_DETAIL_NOT_FOUND = 5,   // no such item (also a path that leads outside the storage)
    MOX_EVENT_ACT_DONE = 6,           // act or transfer ended with code 0
    MOX_EVENT_ACT_FAILED = 7,         // any other code, in "mox_error_code"
    MOX_EVENT_DISCONNECTED = 8,
    MOX_EVENT_LIST_DROPPED = 10,
    MOX_EVENT_DROP_FAILED = 11,
    MOX_EVENT_ACT_PROGRESS = 12,
    MOX_EVENT_META_DONE = 13,    // on mox_request_metadata
    MOX_EVENT_META_FAILED = 14,  // on mox_request_metadata
} mox_event_type_e;

// Scan results as mox_scanner_done and mox_folder_thumb_done carry them
// (the scanner's own results 800..805 converted by the scan manager).
typedef enum {
    MOX_SCAN_NO_MEDIA = 24,
    MOX_SCAN_ONE_MEDIA = 25,
    MOX_SCAN_MULTI_MEDIA = 26,
    MOX_SCAN_FAILED = 27,  // the scan could not be done
    MOX_SCAN_FOLDER_FILES = 29,
    MOX_SCAN_FOLDER_DIRS = 30,
    MOX_SCAN_FOLDER_EMPTY = 31,
} mox_scan_result_e;
