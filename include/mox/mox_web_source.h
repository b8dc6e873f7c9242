// The source plug-in interface: what a library dropped into the engine's
// plug-in directory implements so that clients can `connect` to it and send
// list, detail and act requests to its sources.
//
// A plug-in library exports, with C linkage:
//   int          GetSourceAbiVersion(void)   -> MOX_WEB_SOURCE_ABI_VERSION (1 or 2)
//   int          GetSourcesCount(void)       -> number of sources offered
//   const char*  GetSourceName(int nIndex)   -> name of source nIndex (0-based)
//   IWebSource*  CreateSource(const char*)   -> a new source, or NULL
// MOX_WEB_SOURCE_DEFINE_ABI_VERSION() defines the first one. The engine
// refuses, with a warning, a library that lacks any of them or that was built
// against an ABI version it does not know, so a plug-in is never called
// through a wrong vtable. ABI 2 only adds slot 8 (GetAnswerValidity): an ABI-1
// library keeps working, and the engine never calls slot 8 of its sources.
//
// Object life: the engine calls CreateSource once per source name, then
// Init(); a source whose Init() fails is Destroy()ed. A source stays in use
// until the engine stops: Close(), then Destroy() (which deletes the object;
// the destructor is not called by the engine).
//
// Threads: one source object serves every client and every request at once,
// from several engine threads, so every operation must be safe for
// concurrent calls. Operations never throw: an exception escaping one is
// caught by the engine and turned into error 23, but the source's state is
// then whatever the throw left.
//
// Virtual operations, in their fixed slot order (new operations are only
// ever added with a new ABI version):
//   1 Init   2 Close   3 GetData   4 GetDetail   5 Act   6 Execute   7 Destroy
//   8 GetAnswerValidity (ABI 2)
//
// Stopping: bStop is written by another engine thread while an operation
// runs (the client went away, or the engine stops). Read it only through
// MoxStopRequested(bStop), never as a plain bool, and return soon (any code)
// once it is true.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <cstdio>
#include <string>
#include <vector>

#include <mox/mox_cache_defines.h>
#include <mox/mox_types.h>

#define MOX_WEB_SOURCE_ABI_VERSION 2
// The oldest ABI the engine still loads.
#define MOX_WEB_SOURCE_MIN_ABI_VERSION 1

// How the answers of a list query stay valid (GetAnswerValidity).
typedef enum {
    // Kept until a storage below a path the query names goes away or the
    // engine writes there (what ABI-1 sources get).
    MOX_ANSWER_KEEP = 0,
    // Kept while the stamp stays the same: the engine asks for the stamp
    // again before it serves a kept answer, and asks the source afresh when
    // the stamp differs.
    MOX_ANSWER_STAMPED = 1,
    // Never kept: every request asks the source.
    MOX_ANSWER_NO_KEEP = 2,
    // A flag or'ed into any of the above: the answer is already in the order
    // the query's "SortedKey"/"SortedType" ask for (the source sorted it), so
    // the engine does not sort it again. Only honoured for a request naming
    // this one source; a list of several sources is sorted by the engine.
    MOX_ANSWER_ORDERED = 0x100,
} mox_answer_validity_e;

// True once the engine asked the running operation to stop. bStop is written
// from another thread: this is the only safe way to read it.
inline bool MoxStopRequested(const bool& bStop) {
    return __atomic_load_n(&bStop, __ATOMIC_ACQUIRE);
}

// Progress of a file transfer: bytes downloaded so far, download total,
// bytes uploaded so far, upload total.
typedef struct {
    double dlnow;
    double dltotal;
    double ulnow;
    double ultotal;
} mox_transfer_progress_data_s;

// Progress report of a transfer. pProgress is valid only during the call;
// the callback copies what it needs and never frees it.
typedef void (*mox_transfer_progress_cb)(void* pUserData, const char* szParam, mox_transfer_progress_data_s* pProgress,
                                         mox_error_code_e eError);

class IWebSource {
public:
    // 1. Called once right after creation; false makes the engine destroy it.
    virtual bool Init() = 0;
    // 2. Called once before Destroy(): stop background work, close sessions.
    virtual void Close() = 0;
    // 3. The list query. strQueryCmd is the command document (JSON object)
    //    with "mox_source" naming this source. Write the items (one string
    //    each, back to back, no separator) to stream and report: nLen exactly
    //    the bytes written; nStartIndex..nEndIndex the window of the items
    //    written (inclusive; their count must equal lengths.size());
    //    nTotalCount all matching items; groups (first index, count); lengths
    //    one entry per item written, summing to at most nLen. On entry: nLen
    //    0, nStartIndex 0, nEndIndex -1, nTotalCount 0, empty vectors. Poll
    //    MoxStopRequested(bStop) in long loops and waits. 0 on success; an
    //    answer with no items makes the engine report error 6; an answer
    //    that breaks these rules fails the request with error 32.
    virtual mox_error_code_e GetData(bool& bStop, std::string& strQueryCmd, FILE* stream, int& nLen, int& nStartIndex,
                                     int& nEndIndex, int& nTotalCount, std::vector<mox_data_group_s>& groups,
                                     std::vector<mox_data_length_s>& lengths) = 0;
    // 4. The detail of one item: strResult is handed to the client as is
    //    (conventionally a JSON object text). 5 when the item does not exist.
    virtual mox_error_code_e GetDetail(bool& bStop, std::string& strCommand, std::string& strResult) {
        (void)bStop;
        (void)strCommand;
        strResult.clear();
        return MOX_ERROR_GENERIC;
    }
    // 5. A normal action ("mox_uploadcomment", "mox_setlike",
    //    "mox_create_album") described by the document strCommand.
    virtual mox_error_code_e Act(bool& bStop, std::string& strCommand) {
        (void)bStop;
        (void)strCommand;
        return MOX_ERROR_GENERIC;
    }
    // 6. A file transfer ("mox_file_transfer") reporting its progress through
    //    pfnProgress. The default completes at once with one report of
    //    100/100 downloaded and 1000/1000 uploaded, and returns 0.
    virtual int Execute(bool& bStop, std::string& strParam, mox_transfer_progress_cb pfnProgress, void* pUserData) {
        (void)bStop;
        mox_transfer_progress_data_s progress = {100.0, 100.0, 1000.0, 1000.0};
        if (pfnProgress) pfnProgress(pUserData, strParam.c_str(), &progress, MOX_ERROR_NONE);
        return 0;
    }
    // 7. Deletes the object (implementations: `delete this;`).
    virtual void Destroy() = 0;
    // 8 (ABI 2). How the answer to strQueryCmd stays valid. For
    //    MOX_ANSWER_STAMPED, strStamp receives a short text (at most 256
    //    bytes; a longer one is not kept) that changes whenever the answer
    //    would (for a folder: its identity and change times, its entries'
    //    sizes and times); an empty stamp means "do not keep". Called on every list request before the cache is
    //    consulted, so it must be much cheaper than GetData. Any thread, concurrently.
    virtual mox_answer_validity_e GetAnswerValidity(const std::string& strQueryCmd, std::string& strStamp) {
        (void)strQueryCmd;
        strStamp.clear();
        return MOX_ANSWER_KEEP;
    }

protected:
    // Not virtual: the engine only ever destroys a source through Destroy(),
    // which keeps the slot order above the whole vtable.
    ~IWebSource() = default;
};

// Entry points of a plug-in library.
typedef int (*mox_get_source_abi_version_fn)(void);
typedef int (*mox_get_sources_count_fn)(void);
typedef const char* (*mox_get_source_name_fn)(int nIndex);
typedef IWebSource* (*mox_create_source_fn)(const char* szSourceName);

#define MOX_WEB_SOURCE_DEFINE_ABI_VERSION()                                           \
    extern "C" __attribute__((visibility("default"))) int GetSourceAbiVersion(void) { \
        return MOX_WEB_SOURCE_ABI_VERSION;                                            \
    }

// All four entry points of a library offering one source named szName (a
// string literal), an object of class TSource (default-constructible; declare
// it `final` so that `delete this` in Destroy() compiles without warnings).
// Needs <cstring> and <new>.
#define MOX_WEB_SOURCE_DEFINE_SINGLE_SOURCE(szName, TSource)                                               \
    MOX_WEB_SOURCE_DEFINE_ABI_VERSION()                                                                    \
    extern "C" __attribute__((visibility("default"))) int GetSourcesCount(void) {                          \
        return 1;                                                                                          \
    }                                                                                                      \
    extern "C" __attribute__((visibility("default"))) const char* GetSourceName(int nIndex) {              \
        return nIndex == 0 ? (szName) : nullptr;                                                           \
    }                                                                                                      \
    extern "C" __attribute__((visibility("default"))) IWebSource* CreateSource(const char* szSourceName) { \
        if (szSourceName == nullptr || strcmp(szSourceName, (szName)) != 0) return nullptr;                \
        return new (std::nothrow) TSource();                                                               \
    }

#pragma GCC visibility pop
