// Platform configuration keys. A key such as "db/mox/reset_status" is the file
// $MOX_VCONF_DIR/db/mox/reset_status holding a decimal integer; writes are
// atomic (temporary file and rename). Changes made by any process reach the
// callbacks registered here on the thread running the default GLib main
// context. Get and set are callable from any thread.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _keynode_t keynode_t;
typedef void (*vconf_callback_fn)(keynode_t* node, void* user_data);

// 0 on success, -1 when the key is missing, unreadable, not an integer or
// not a valid key name.
int vconf_get_int(const char* key, int* intval);
// 0 on success, -1 on failure.
int vconf_set_int(const char* key, int intval);

// Registers cb for changes of key; 0 on success, -1 on failure. The same
// (key, cb) pair is registered once.
int vconf_notify_key_changed(const char* key, vconf_callback_fn cb, void* user_data);
// Removes a registration; 0 on success, -1 when it was not registered.
int vconf_ignore_key_changed(const char* key, vconf_callback_fn cb);

// Accessors valid only inside a callback.
const char* vconf_keynode_get_name(keynode_t* keynode);
int vconf_keynode_get_int(keynode_t* keynode);
int vconf_keynode_get_type(keynode_t* keynode);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop
