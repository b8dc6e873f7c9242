// Types shared by the engine, the plug-ins and the clients.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

// Result code of every command callback and of several replies. 0 is success;
// values not named here come from the source plug-ins and pass through.
typedef enum {
    MOX_ERROR_NONE = 0,
    MOX_ERROR_NO_SUCH_SOURCE = 4,
    MOX_ERROR_DETAIL_NOT_FOUND = 5,
    MOX_ERROR_FAILED_RESULT = 6,
    MOX_ERROR_INVALID_PARAMETER = 7,
    MOX_ERROR_NOT_READY = 8,
    MOX_ERROR_GENERIC = 23,
    MOX_ERROR_SCANNER_FIRST = 24,
    MOX_ERROR_SCANNER_LAST = 31,
    // A source's list answer broke the plug-in contract (negative counts or
    // lengths, lengths beyond the bytes written, bytes written beyond nLen).
    MOX_ERROR_SOURCE_CONTRACT = 32,
    // The storage failed a read (EIO from stat, readdir or open): the answer
    // would have been incomplete, so there is none.
    MOX_ERROR_IO = 33,
    // Sources may return any int: these bounds make every one of them a value
    // of the type, so passing a source's code along is never undefined.
    MOX_ERROR_SOURCE_CODE_MIN = -2147483647 - 1,
    MOX_ERROR_SOURCE_CODE_MAX = 2147483647,
} mox_error_code_e;

// Cursor moves of the client-side result pool (<mox/mox_resultpool.h>) use
// three of these codes: MOX_ERROR_INVALID_PARAMETER for an index outside the
// result, MOX_ERROR_NOT_READY when the index's section is not held yet (or
// the cursor has no position), MOX_ERROR_FAILED_RESULT when the item under
// the cursor cannot be read.

#pragma GCC visibility pop
