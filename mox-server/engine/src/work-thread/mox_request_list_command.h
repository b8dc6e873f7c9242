// CMOXRequestListCommand ("mox_requestlist"): asks one or more sources for a
// list at once (the sources the cache cannot answer side by side), keeps each
// source's answer as a data block in the cache pool, joins the blocks into
// one result list (sources in name order, optionally sorted) and reports the
// list's name, or an error code with an empty name, through the callback.
//
// Threads: Execute() runs the request on a worker-pool thread, which shares
// the sources with the pool through CMOXWorkerPool::RunTogether() and builds
// the list once all have answered. The source calls share m_eError (atomic;
// the last failure wins) and each writes only its own pre-created slot of
// the block map. Stop() (any thread) raises the bStop every source call of
// this command sees.
//
// Validity: before the cache is consulted, an ABI-2 source says how its
// answer stays valid (GetAnswerValidity): a stamp checked against the kept
// answer's, or "do not keep", and whether its answer is in the asked order
// already (MOX_ANSWER_ORDERED: a single such source is not sorted again). Kept answers also remember the storage paths
// their query names, so that storage events and the engine's writes forget
// them (CCachePool::ForgetTouching).
//
// Bounds: at most kMaxSources distinct sources per request; what a source
// answers is checked before it reaches the data-block builder. An answer
// above 16 MiB is served as consecutive data blocks of at most 16 MiB each
// (a folder of 1,000,000 files: some 11), not kept for reuse.
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include <mox/json_value.h>

#include "cache_pool.h"
#include "mox_command.h"
#include "mox_request_defines.h"

class CMOXRequestListCommand : public IMOXCommand {
public:
    static const size_t kMaxSources = 16;

    explicit CMOXRequestListCommand(MOXCommandCallback fnDone);
    ~CMOXRequestListCommand() override;

    void Execute(std::string strCommand) override;
    void Stop() override { __atomic_store_n(&m_bStop, true, __ATOMIC_RELEASE); }
    // Shutdown with a source stuck in GetData: unlinks the data blocks being
    // built, whose threads may never return.
    static void UnlinkBlocksInProgress();
    // The cache ids of the blocks of result list strList, built by a list
    // command and not taken yet; forgotten once taken. False when the list
    // is not known (then read its block table).
    static bool TakeBlocksOfList(const std::string& strList, std::vector<int>& cacheIds);
    // The normalised absolute paths a command document names.
    static std::vector<std::string> PathsOfDocument(const std::string& strDocument);

    // The request thread's body.
    void GetRequestListThreadProc(const std::string& strCommand);
    // One source thread's body: fills *pNames with the source's block name,
    // or the names of its parts when the answer is too big for one block.
    void GetListFromSourceProc(std::string strQueryCmd, const std::string& strSource, std::vector<std::string>* pNames);

private:
    // Source name -> its answer's block names (in item order).
    using BlockMap = std::map<std::string, std::vector<std::string>>;

    // The request thread's work; eError and the list name are its outcome.
    std::string m_RunRequest(const std::string& strCommand, mox_error_code_e& eError);
    // Fills sources from "mox_source"; false (warning) when it is not a
    // non-empty array of strings within the bounds.
    bool m_GetSources(const CJsonValue& doc, std::vector<std::string>& sources, mox_error_code_e& eError);
    // Builds the result list; an empty name when it cannot be built.
    std::string m_GenerateResultList(CJsonValue& doc, BlockMap& blocks, mox_error_code_e& eError);
    // Copies an answer too big for one block (whole, nLen item bytes) into
    // consecutive parts, each handed to the pool to answer this request
    // only; their names are appended to names. False when a part fails (the
    // parts made so far are in names, for the caller to let go of).
    static bool m_ServeInParts(CCacheBuilder& whole, int nLen, int nStartIndex, int nTotalCount,
                               std::vector<mox_data_group_s>& groups, std::vector<mox_data_length_s>& lengths,
                               std::vector<std::string>& names);
    bool m_GetComandKeyTypeInfo(CJsonValue& doc, CMOXSortFunction& fn);
    void m_getSortValueType(std::string& strKey, MOX_VALUETYPE& eType);
    // Asks an ABI-2 source how its answer stays valid; false when it must
    // not be kept (the cache is then not consulted either).
    // bOrdered: the source said its answer is in the asked order already.
    static bool m_AskValidity(IWebSource* pSource, const std::string& strSource, const std::string& strQueryCmd,
                              SCacheValidity& validity, bool& bOrdered);
    // Lets go of the pool's count for every block in blocks.
    static void m_ReleaseBlocks(const BlockMap& blocks);

    MOXCommandCallback m_fnDone;
    std::atomic<int> m_eError{MOX_ERROR_NONE};  // written by the source threads
    // Sources that answered in the asked order themselves (MOX_ANSWER_ORDERED).
    std::atomic<int> m_nOrderedSources{0};
    // The sources' stop flag: written by Stop() and read by the sources
    // through atomic builtins only (MoxStopRequested).
    bool m_bStop = false;
};
