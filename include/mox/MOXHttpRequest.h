// HTTP(S) requests for source plug-ins: one transfer with libcurl's easy
// interface, of one of four types, to one URL, with a header list and either
// an in-memory body or a local file, reporting progress and cancellable from
// another thread.
//
// Only http and https are spoken, redirects included (a redirect to any other
// scheme fails the transfer). Peers are verified against the CA bundle named
// by MOX_CA_BUNDLE (default /opt/down/cert/ca.pem). In-memory answers are
// bounded (kMaxBodyBytes, kMaxHeaderBytes): a larger answer fails the
// transfer. GlobalInit() must have run (the daemon does it at start).
// The class is in libmoxhttp (-lmoxhttp), apart from libmoxcommon, so that
// clients that make no HTTP calls do not load libcurl.
//
// Threads: init() and execute() run on one thread (execute blocks until the
// transfer ends); setCancel() may be called from any other thread and blocks
// until the transfer has seen it or ended. The progress function runs on the
// execute() thread.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <condition_variable>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <mox/platform/mox_thread_annotations.h>

typedef enum {
    HTTP_REQUEST_POST = 0,
    HTTP_REQUEST_GET = 1,
    HTTP_REQUEST_PUT = 2,
    HTTP_REQUEST_DELETE = 3,
} HTTP_REQUEST_TYPE;

// Ordered header fields; add() appends, remove() drops every field of a key.
class MOXHttpHeader {
public:
    MOXHttpHeader() = default;
    virtual ~MOXHttpHeader();

    void add(const std::string& key, const std::string& value);
    void remove(const std::string& key);
    int getSize() const;
    // False for an index out of range (out untouched).
    bool getKey(int index, std::string& out) const;
    bool getValue(int index, std::string& out) const;

private:
    std::vector<std::pair<std::string, std::string>> m_fields;
};

class MOXHttpResponse {
public:
    const MOXHttpHeader& getHeader() const { return m_header; }
    void setHeader(const MOXHttpHeader& header) { m_header = header; }
    const std::string& getPayload() const { return m_strPayload; }
    void setPayload(const std::string& payload) { m_strPayload = payload; }
    const std::string& getURL() const { return m_strURL; }
    void setURL(const std::string& url) { m_strURL = url; }
    long getResponseCode() const { return m_nResponseCode; }
    void setResponseCode(long code) { m_nResponseCode = code; }

private:
    MOXHttpHeader m_header;
    std::string m_strPayload;
    std::string m_strURL;
    long m_nResponseCode = 0;
};

class MOXHttpRequest;

// Progress of a request, defined by the plug-in that starts it. pfnProgress
// (may be NULL) gets the bytes so far and the totals (0 while unknown) and
// strCommand; a nonzero return aborts the transfer like setCancel(). init()
// sets pRequest.
struct _mox_progress_param {
    int (*pfnProgress)(void* pUserData, const char* szCommand, double dlNow, double dlTotal, double ulNow,
                       double ulTotal) = nullptr;
    void* pUserData = nullptr;
    std::string strCommand;
    MOXHttpRequest* pRequest = nullptr;
};

class MOXHttpRequest {
public:
    // Called by execute() with curl's result code (0 = success).
    typedef void (*HttpCallback)(int nResult, MOXHttpRequest* pRequest, void* pArg);

    static const size_t kMaxBodyBytes = 64u << 20;
    static const size_t kMaxHeaderBytes = 1u << 20;

    // libcurl's process-wide state (TLS libraries included): set up once at
    // the start of a process that makes HTTP calls, before any thread uses
    // libcurl, and released once at its end. False when the set-up failed
    // (no request can succeed then).
    static bool GlobalInit();
    static void GlobalCleanup();

    // A request with an in-memory body (the answer lands in response()).
    MOXHttpRequest(HTTP_REQUEST_TYPE type, std::string url, const MOXHttpHeader& header, std::string payload,
                   HttpCallback callback, void* arg);
    // A request that writes a GET answer to fileName, or uploads fileName with
    // PUT, and reports progress through pProgress (not owned, may be NULL;
    // must outlive execute()).
    MOXHttpRequest(HTTP_REQUEST_TYPE type, std::string url, const MOXHttpHeader& header, HttpCallback callback,
                   void* arg, std::string fileName, _mox_progress_param* pProgress);
    virtual ~MOXHttpRequest();
    MOXHttpRequest(const MOXHttpRequest&) = delete;
    MOXHttpRequest& operator=(const MOXHttpRequest&) = delete;

    // A GET answer goes to this open descriptor (not owned) instead of a
    // named file; call before init(). For callers that open the file
    // themselves, e.g. beneath a confined directory.
    void setOutputFd(int fd);

    // Configures the handle; false when a file cannot be opened or an option
    // is refused (the request must not be executed then).
    bool init();
    // Performs the transfer; curl's result code (0 = success). An HTTP error
    // status is not a failure here: see response().getResponseCode().
    int execute();
    // curl's message for the last execute(), empty on success.
    const std::string& getError() const { return m_strError; }

    void setCancel();
    // Download progress so far (bytes, total; 0 while unknown).
    void getProgressStatus(double& now, double& total);
    MOXHttpResponse* getResponse() { return &m_response; }
    const MOXHttpResponse& response() const { return m_response; }
    const std::string& getURL() const { return m_strURL; }
    const std::string& getSentPayload() const { return m_strPayload; }
    void setID(int id) { m_nID = id; }
    int getID() const { return m_nID; }
    // URL-encodes szText[0 .. nLength - 1]; empty on failure.
    std::string encode(const char* szText, int nLength);

private:
    bool makeHttpRequestHeaders();
    bool setPUTFileUploadOption();
    void saveResponseInfo();

    static size_t cb_write(char* pData, size_t nSize, size_t nCount, void* pUser);
    static size_t cb_writeHeader(char* pData, size_t nSize, size_t nCount, void* pUser);
    static size_t cb_writeFile(char* pData, size_t nSize, size_t nCount, void* pUser);
    static size_t cb_read(char* pData, size_t nSize, size_t nCount, void* pUser);
    static int cb_progress(void* pUser, double dDLTotal, double dDLNow, double dULTotal, double dULNow);

    void* m_pHandle = nullptr;      // CURL*, owned
    void* m_pHeaderList = nullptr;  // curl_slist*, owned
    HTTP_REQUEST_TYPE m_eType;
    std::string m_strURL;
    MOXHttpHeader m_header;
    std::string m_strPayload;
    std::string m_strBody;
    std::string m_strHeaderText;
    std::string m_strFileName;
    FILE* m_pFile = nullptr;  // owned when opened from m_strFileName
    int m_nOutputFd = -1;     // not owned
    HttpCallback m_pfnCallback;
    void* m_pArg;
    _mox_progress_param* m_pProgressParam = nullptr;
    int m_nID = 0;
    std::string m_strError;
    MOXHttpResponse m_response;
    char m_szCurlError[256] = {0};

    mox::Mutex m_mutex;
    std::condition_variable m_stopCond;
    bool m_bCancel GUARDED_BY(m_mutex) = false;
    bool m_bCancelSeen GUARDED_BY(m_mutex) = false;
    bool bFinished GUARDED_BY(m_mutex) = false;
    double m_dDLNow GUARDED_BY(m_mutex) = 0;
    double m_dDLTotal GUARDED_BY(m_mutex) = 0;
};

#pragma GCC visibility pop
