// Records shared between the engine, the source plug-ins and client processes
// that read data blocks ("mox_datablock_T_N") and result lists
// ("mox_resultlist_T_N") in POSIX shared memory. The layouts of both objects are
// little-endian 32-bit integers; the records below are their table entries and
// are copied byte for byte, so their size and field order are fixed.
//
// Names: "mox_datablock_T_N" or "mox_resultlist_T_N": T the engine instance's
// tag, N a decimal number of at most nine digits, the object's id (the number
// after the last "_"). Take names from the engine's signals and lists rather
// than predicting them: the engine creates each object exclusively and moves
// on to another (random) number when a name is taken, so numbers need not be
// consecutive.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <cstdint>

// One entry of a data block's or result list's group table. The two integers
// are stored and handed back verbatim, never interpreted by the cache or the
// lists; by convention (and as the client's result pool reads them) they are
// the list index of the group's first item and the group's item count.
typedef struct {
    int32_t nStartIndex;
    int32_t nCount;
} mox_data_group_s;

// Byte length of one item string that a source wrote into a data block.
typedef struct {
    int32_t nLength;
} mox_data_length_s;

// What the cache pool does with a block once its last client lets go of it.
typedef enum {
    MOX_CACHE_BLOCK_TEMPORARY = 0,   // deleted and unlinked at once
    MOX_CACHE_BLOCK_LRU = 1,         // kept for reuse, counted against the limit, evicted oldest first
    MOX_CACHE_BLOCK_PERSISTANT = 2,  // kept until its query is deleted, not counted
} mox_cache_block_type;

// One entry of a result list's item table: the slot of the data block in the
// list's block-name table, and the item number inside that block.
typedef struct mox_result_item_index_s {
    int32_t nDataBlockIndex;
    int32_t nItemIndex;
} mox_result_item_index_s;
typedef mox_result_item_index_s ResultItemIndex;

static_assert(sizeof(mox_data_group_s) == 8, "group table entries are 8 bytes");
static_assert(sizeof(mox_data_length_s) == 4, "item lengths are 4 bytes");
static_assert(sizeof(mox_result_item_index_s) == 8, "item table entries are 8 bytes");

// Fixed sizes of the two layouts.
enum {
    MOX_DATABLOCK_HEADER_SIZE = 28,
    MOX_RESULTLIST_HEADER_SIZE = 36,
    MOX_RESULTLIST_NAME_SLOT_SIZE = 128,
};

// Readers refuse objects larger than this: a crafted object claiming a huge
// size must not make a reader allocate or copy without bound. Every block the
// engine builds for a list fits the 10 MiB cache limit by far.
#define MOX_SHM_OBJECT_MAX_SIZE (64 * 1024 * 1024)

#pragma GCC visibility pop
