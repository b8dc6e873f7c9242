#define MOX_LOG_TAG "MOX-CLOUD"
#include <mox/MOXHttpRequest.h>

#include <curl/curl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <utility>

#include <mox/mox_log.h>
#include <mox/platform/mox_host_paths.h>

// curl's classic progress callback is deprecated in favour of the xferinfo
// one; the classic one is what this class has always installed.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

CURL* Handle(void* p) {
    return static_cast<CURL*>(p);
}

std::atomic<unsigned> g_portSeed{0};

// File transfers have no overall deadline, but a peer that sends nothing for
// this long is given up, so that no transfer can hang for ever.
const long kLowSpeedSeconds = 60;
// Bigger receive buffer than curl's 16 KiB: fewer callbacks on large files.
const long kFileBufferBytes = 512 * 1024;

}  // namespace

bool MOXHttpRequest::GlobalInit() {
    const CURLcode rc = curl_global_init(CURL_GLOBAL_ALL);
    if (rc == CURLE_OK) return true;
    MOX_WARN("curl_global_init failed: %s", curl_easy_strerror(rc));
    return false;
}

void MOXHttpRequest::GlobalCleanup() {
    curl_global_cleanup();
}

MOXHttpHeader::~MOXHttpHeader() = default;

void MOXHttpHeader::add(const std::string& key, const std::string& value) {
    m_fields.emplace_back(key, value);
}

void MOXHttpHeader::remove(const std::string& key) {
    for (auto it = m_fields.begin(); it != m_fields.end();) it = it->first == key ? m_fields.erase(it) : it + 1;
}

int MOXHttpHeader::getSize() const {
    return static_cast<int>(m_fields.size());
}

bool MOXHttpHeader::getKey(int index, std::string& out) const {
    if (index < 0 || index >= getSize()) return false;
    out = m_fields[index].first;
    return true;
}

bool MOXHttpHeader::getValue(int index, std::string& out) const {
    if (index < 0 || index >= getSize()) return false;
    out = m_fields[index].second;
    return true;
}

MOXHttpRequest::MOXHttpRequest(HTTP_REQUEST_TYPE type, std::string url, const MOXHttpHeader& header,
                               std::string payload, HttpCallback callback, void* arg)
    : m_eType(type),
      m_strURL(std::move(url)),
      m_header(header),
      m_strPayload(std::move(payload)),
      m_pfnCallback(callback),
      m_pArg(arg) {}

MOXHttpRequest::MOXHttpRequest(HTTP_REQUEST_TYPE type, std::string url, const MOXHttpHeader& header,
                               HttpCallback callback, void* arg, std::string fileName, _mox_progress_param* pProgress)
    : m_eType(type),
      m_strURL(std::move(url)),
      m_header(header),
      m_strFileName(std::move(fileName)),
      m_pfnCallback(callback),
      m_pArg(arg),
      m_pProgressParam(pProgress) {}

MOXHttpRequest::~MOXHttpRequest() {
    if (m_pHeaderList) curl_slist_free_all(static_cast<curl_slist*>(m_pHeaderList));
    if (m_pHandle) curl_easy_cleanup(Handle(m_pHandle));
    if (m_pFile) fclose(m_pFile);  // NOLINT(cppcoreguidelines-owning-memory): the request owns its file
}

void MOXHttpRequest::setOutputFd(int fd) {
    m_nOutputFd = fd;
}

bool MOXHttpRequest::makeHttpRequestHeaders() {
    curl_slist* pList = nullptr;
    for (int i = 0; i < m_header.getSize(); ++i) {
        std::string key, value;
        m_header.getKey(i, key);
        m_header.getValue(i, value);
        // A field with a line break would smuggle in a second header.
        if (key.find_first_of("\r\n:") != std::string::npos || value.find_first_of("\r\n") != std::string::npos) {
            MOX_WARN("Header field refused: line break or colon in it.");
            continue;
        }
        curl_slist* pNext = curl_slist_append(pList, (key + ": " + value).c_str());
        if (pNext == nullptr) {
            curl_slist_free_all(pList);
            return false;
        }
        pList = pNext;
    }
    m_pHeaderList = pList;
    return true;
}

bool MOXHttpRequest::setPUTFileUploadOption() {
    m_pFile = fopen(m_strFileName.c_str(), "rbe");  // NOLINT(cppcoreguidelines-owning-memory): closed above
    struct stat st;
    if (m_pFile == nullptr || fstat(fileno(m_pFile), &st) != 0 || !S_ISREG(st.st_mode)) {
        MOX_WARN("setPUTFileUploadOption Error");
        return false;
    }
    CURL* h = Handle(m_pHandle);
    curl_easy_setopt(h, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(h, CURLOPT_READFUNCTION, cb_read);
    curl_easy_setopt(h, CURLOPT_READDATA, this);
    curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(st.st_size));
    return true;
}

bool MOXHttpRequest::init() {
    if (m_pHandle != nullptr) {
        MOX_WARN("init() called twice: refused.");
        return false;
    }
    m_pHandle = curl_easy_init();
    assert(m_pHandle != NULL);
    CURL* h = Handle(m_pHandle);
    curl_easy_setopt(h, CURLOPT_PRIVATE, this);
    curl_easy_setopt(h, CURLOPT_DNS_CACHE_TIMEOUT, 300L);
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, cb_writeHeader);
    curl_easy_setopt(h, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(h, CURLOPT_ERRORBUFFER, m_szCurlError);

    const bool bToFile = m_eType == HTTP_REQUEST_GET && (!m_strFileName.empty() || m_nOutputFd >= 0);
    if (!bToFile) {
        curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, cb_write);
        curl_easy_setopt(h, CURLOPT_WRITEDATA, this);
    } else {
        if (m_nOutputFd < 0) {
            MOX_TRACE("In init, m_strFileName:%s\n", m_strFileName.c_str());
            m_pFile = fopen(m_strFileName.c_str(), "wbe");  // NOLINT(cppcoreguidelines-owning-memory)
            if (m_pFile == nullptr) {
                MOX_TRACE("ERROR: fcntl file:%s\n ", m_strFileName.c_str());
                return false;
            }
        }
        curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, cb_writeFile);
        curl_easy_setopt(h, CURLOPT_WRITEDATA, this);
        curl_easy_setopt(h, CURLOPT_BUFFERSIZE, kFileBufferBytes);
    }

    curl_easy_setopt(h, CURLOPT_IPRESOLVE, CURL_IPRESOLVE_V4);
    curl_easy_setopt(h, CURLOPT_COOKIEFILE, "");
    curl_easy_setopt(h, CURLOPT_SSLCERT, nullptr);
    curl_easy_setopt(h, CURLOPT_SSLKEY, nullptr);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
    const std::string strCaBundle = mox_host::CaBundlePath();
    curl_easy_setopt(h, CURLOPT_CAINFO, strCaBundle.c_str());  // curl copies the string
    curl_easy_setopt(h, CURLOPT_SSL_SESSIONID_CACHE, 1L);
    curl_easy_setopt(h, CURLOPT_POSTREDIR, 7L);
    curl_easy_setopt(h, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(h, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(h, CURLOPT_MAXCONNECTS, 32L);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, 10L);
    // Only the web: no file://, ftp:// or the like, not even through a redirect.
    if (curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https") != CURLE_OK ||
        curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https") != CURLE_OK) {
        MOX_WARN("Can not restrict the protocols: request refused.");
        return false;
    }
    curl_easy_setopt(h, CURLOPT_MAXREDIRS, 10L);

    const bool bFileTransfer = !m_strFileName.empty() || m_nOutputFd >= 0;
    if (!bFileTransfer && m_pProgressParam == nullptr) {
        curl_easy_setopt(h, CURLOPT_TIMEOUT, 60L);
    } else {
        curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 1L);
        curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, kLowSpeedSeconds);
    }

    unsigned seed = static_cast<unsigned>(time(nullptr)) ^ (static_cast<unsigned>(getpid()) << 16) ^
                    g_portSeed.fetch_add(0x9e3779b9u);
    long nPort = static_cast<long>(rand_r(&seed) / (RAND_MAX + 1.0) * 65535.0) + 1;
    curl_easy_setopt(h, CURLOPT_LOCALPORT, nPort);
    curl_easy_setopt(h, CURLOPT_LOCALPORTRANGE, 65535L);

    // The callback is installed for every request, so that setCancel() works
    // without a progress parameter too and curl never prints its own meter.
    curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
    if (m_pProgressParam) m_pProgressParam->pRequest = this;
    curl_easy_setopt(h, CURLOPT_PROGRESSFUNCTION, cb_progress);
    curl_easy_setopt(h, CURLOPT_PROGRESSDATA, this);

    switch (m_eType) {
        case HTTP_REQUEST_GET: curl_easy_setopt(h, CURLOPT_HTTPGET, 1L); break;
        case HTTP_REQUEST_PUT:
            curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, "PUT");
            if (!m_strFileName.empty() && !setPUTFileUploadOption()) return false;
            if (m_strFileName.empty()) {
                curl_easy_setopt(h, CURLOPT_POSTFIELDS, m_strPayload.c_str());
                curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(m_strPayload.size()));
            }
            break;
        case HTTP_REQUEST_POST:
            curl_easy_setopt(h, CURLOPT_POSTFIELDS, m_strPayload.c_str());
            curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(m_strPayload.size()));
            break;
        case HTTP_REQUEST_DELETE: curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, "DELETE"); break;
        default: MOX_WARN("Unknown request type[%d].", static_cast<int>(m_eType)); return false;
    }

    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
    if (curl_easy_setopt(h, CURLOPT_URL, m_strURL.c_str()) != CURLE_OK) {
        MOX_WARN("URL refused by curl.");
        return false;
    }
    if (!makeHttpRequestHeaders()) return false;
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, static_cast<curl_slist*>(m_pHeaderList));
    return true;
}

void MOXHttpRequest::saveResponseInfo() {
    CURL* h = Handle(m_pHandle);
    long nCode = 0;
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &nCode);
    m_response.setResponseCode(nCode);
    char* szURL = nullptr;
    if (curl_easy_getinfo(h, CURLINFO_EFFECTIVE_URL, &szURL) == CURLE_OK && szURL) m_response.setURL(szURL);
    m_response.setPayload(m_strBody);
    // The fields of the last response (after redirects), one per line.
    MOXHttpHeader header;
    size_t nStart = 0;
    while (nStart < m_strHeaderText.size()) {
        size_t nEnd = m_strHeaderText.find('\n', nStart);
        if (nEnd == std::string::npos) nEnd = m_strHeaderText.size();
        std::string line = m_strHeaderText.substr(nStart, nEnd - nStart);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        size_t nColon = line.find(':');
        if (line.compare(0, 5, "HTTP/") == 0) {
            header = MOXHttpHeader();
        } else if (nColon != std::string::npos) {
            size_t nValue = line.find_first_not_of(" \t", nColon + 1);
            header.add(line.substr(0, nColon), nValue == std::string::npos ? "" : line.substr(nValue));
        }
        nStart = nEnd + 1;
    }
    m_response.setHeader(header);
}

int MOXHttpRequest::execute() {
    if (m_pHandle == nullptr) {
        MOX_WARN("execute() without a successful init().");
        return CURLE_FAILED_INIT;
    }
    MOX_TRACE("before easy_perform!");
    CURLcode eResult = curl_easy_perform(Handle(m_pHandle));
    if (eResult == CURLE_OK) {
        MOX_TRACE("After easy_perform!");
        m_strError.clear();
    } else {
        m_strError = m_szCurlError[0] ? m_szCurlError : curl_easy_strerror(eResult);
        MOX_DEBUG("easy_perform failed[%d]: %s", static_cast<int>(eResult), m_strError.c_str());
    }
    if (m_pFile && m_eType == HTTP_REQUEST_GET && fflush(m_pFile) != 0 && eResult == CURLE_OK)
        eResult = CURLE_WRITE_ERROR;
    {
        mox::MutexLock lock(m_mutex);
        bFinished = true;
    }
    m_stopCond.notify_all();
    saveResponseInfo();
    if (m_pfnCallback) m_pfnCallback(static_cast<int>(eResult), this, m_pArg);
    return static_cast<int>(eResult);
}

void MOXHttpRequest::setCancel() {
    mox::UniqueLock lock(m_mutex);
    if (bFinished) {
        MOX_TRACE("bFinished is true!");
        return;
    }
    MOX_TRACE("bFinished is false");
    m_bCancel = true;
    MOX_DEBUG("setCancel.\n");
    MOX_TRACE("Wait for stopCond!");
    // Ends when the progress callback saw the flag or the transfer ended by
    // itself (curl calls the callback at least once a second meanwhile).
    while (!m_bCancelSeen && !bFinished) lock.Wait(m_stopCond);
}

void MOXHttpRequest::getProgressStatus(double& now, double& total) {
    mox::MutexLock lock(m_mutex);
    now = m_dDLNow;
    total = m_dDLTotal;
}

std::string MOXHttpRequest::encode(const char* szText, int nLength) {
    if (szText == nullptr || nLength < 0) return std::string();
    CURL* h = m_pHandle ? Handle(m_pHandle) : nullptr;
    char* szEncoded = curl_easy_escape(h, szText, nLength);
    if (szEncoded == nullptr) return std::string();
    std::string strEncoded(szEncoded);
    curl_free(szEncoded);
    return strEncoded;
}

size_t MOXHttpRequest::cb_write(char* pData, size_t nSize, size_t nCount, void* pUser) {
    auto* pThis = static_cast<MOXHttpRequest*>(pUser);
    size_t nBytes = nSize * nCount;
    if (pThis->m_strBody.size() + nBytes > kMaxBodyBytes) {
        MOX_WARN("Answer larger than %zu bytes: transfer aborted.", kMaxBodyBytes);
        return 0;
    }
    pThis->m_strBody.append(pData, nBytes);
    return nBytes;
}

size_t MOXHttpRequest::cb_writeHeader(char* pData, size_t nSize, size_t nCount, void* pUser) {
    auto* pThis = static_cast<MOXHttpRequest*>(pUser);
    size_t nBytes = nSize * nCount;
    if (pThis->m_strHeaderText.size() + nBytes > kMaxHeaderBytes) return 0;
    pThis->m_strHeaderText.append(pData, nBytes);
    return nBytes;
}

size_t MOXHttpRequest::cb_writeFile(char* pData, size_t nSize, size_t nCount, void* pUser) {
    auto* pThis = static_cast<MOXHttpRequest*>(pUser);
    size_t nBytes = nSize * nCount;
    if (pThis->m_pFile) return fwrite(pData, 1, nBytes, pThis->m_pFile);
    size_t nDone = 0;
    while (nDone < nBytes) {
        ssize_t n = write(pThis->m_nOutputFd, pData + nDone, nBytes - nDone);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            MOX_WARN("Write of a download failed: errno %d.", errno);
            return 0;  // curl ends the transfer with CURLE_WRITE_ERROR
        }
        nDone += static_cast<size_t>(n);
    }
    return nBytes;
}

size_t MOXHttpRequest::cb_read(char* pData, size_t nSize, size_t nCount, void* pUser) {
    auto* pThis = static_cast<MOXHttpRequest*>(pUser);
    if (pThis->m_pFile == nullptr) return CURL_READFUNC_ABORT;
    size_t n = fread(pData, 1, nSize * nCount, pThis->m_pFile);
    if (n == 0 && ferror(pThis->m_pFile)) return CURL_READFUNC_ABORT;
    return n;
}

int MOXHttpRequest::cb_progress(void* pUser, double dDLTotal, double dDLNow, double dULTotal, double dULNow) {
    auto* pTmpThis = static_cast<MOXHttpRequest*>(pUser);
    MOX_TRACE("In cb_progress!\n");
    MOX_TRACE("dDLTotal: %lf, dDLNow: %lf, dULTotal: %lf, dULNow: %lf\n", dDLTotal, dDLNow, dULTotal, dULNow);
    {
        mox::MutexLock lock(pTmpThis->m_mutex);
        pTmpThis->m_dDLNow = dDLNow;
        pTmpThis->m_dDLTotal = dDLTotal;
    }
    int nAbort = 0;
    _mox_progress_param* pProgressParam = pTmpThis->m_pProgressParam;
    if (pProgressParam && pProgressParam->pfnProgress) {
        MOX_TRACE("before progress cb!");
        MOX_TRACE("pStrCMD: %s\n", pProgressParam->strCommand.c_str());
        nAbort = pProgressParam->pfnProgress(pProgressParam->pUserData, pProgressParam->strCommand.c_str(), dDLNow,
                                             dDLTotal, dULNow, dULTotal);
        MOX_TRACE("after progress cb!");
    }
    mox::MutexLock lock(pTmpThis->m_mutex);
    if (pTmpThis->m_bCancel) {
        MOX_TRACE("pTmpThis->m_bCancel is true!\n");
        pTmpThis->m_bCancelSeen = true;
        MOX_TRACE("signal this cond");
        pTmpThis->m_stopCond.notify_all();
        return 1;
    }
    return nAbort != 0 ? 1 : 0;
}
