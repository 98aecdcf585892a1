// How a request's options become libcurl easy options: headers, TLS, encoding,
// HTTP version, URL and protocols, buffers, redirects, keep-alive, timeouts,
// rate limits, method.

#include <trel/HttpClient.h>
#include <trel/HttpClientTransfer.h>
#include <trel/Version.h>

#include "Log.h"
#include "UrlUserInfo.h"

#include <QFile>

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClientTransfer";
const log4cplus::Logger logger = trel::log::libraryLogger();

const char* const kAllowedProtocols = "http,https";
const char* const kUserAgent = "trel_http_client/" TREL_HTTP_CLIENT_VERSION_STRING;

// libcurl's receive buffer. Large reads mean fewer receive calls, write
// callbacks and socket actions for big bodies: 2 MiB instead of 512 KiB cut
// the receive calls for sixty 10 MiB bodies from 1,720 to 998 and held them
// whole 5-18% faster. Since libcurl 8.7 the buffer belongs to the multi
// handle, so small requests do not pay for its size.
constexpr long kReceiveBufferBytes = 2 * 1024 * 1024;
// An immediate-read transfer hands over what one socket action received, and
// libcurl reads several buffers per action: with 512 KiB its pieces grew to
// megabytes, and trel-fetch's 256 MB download peaked at 42-54 MB RSS instead
// of 23-24 MB. A caller reading immediately wants bounded memory, so it gets
// 64 KiB (libcurl's default is 16 KiB).
constexpr long kImmediateReadBufferBytes = 64 * 1024;

long postRedirectMask(const QSet<HttpClientOptions::HttpPostRedirFlags>& flags)
{
    long mask = 0;
    for (const HttpClientOptions::HttpPostRedirFlags flag : flags) {
        switch (flag) {
        case HttpClientOptions::PostRedir301:
            mask |= CURL_REDIR_POST_301;
            break;
        case HttpClientOptions::PostRedir302:
            mask |= CURL_REDIR_POST_302;
            break;
        case HttpClientOptions::PostRedir303:
            mask |= CURL_REDIR_POST_303;
            break;
        }
    }
    return mask;
}

// User information in the URL, even a user alone, is what libcurl
// authenticates with.
bool carriesUserInfo(const QByteArray& encodedUrl)
{
    const std::pair<int, int> userInfo = trel::url::userInfoSpan(encodedUrl);
    return userInfo.second > userInfo.first;
}
} // namespace

void HttpClientTransfer::configure(int httpVersion)
{
    CURL* const handle = easy.get();
    const QByteArray encodedUrl = url.toEncoded();

    options.headers().forEachRequestLine([this](const QByteArray& line) {
        headerList.reset(curl_slist_append(headerList.release(), line.constData()));
    });
    if (headerList) {
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headerList.get());
    }
    // A User-Agent of the caller's own goes out through the header list instead.
    if (!options.headers().contains(QStringLiteral("user-agent"))) { // any case; lower makes no copy
        curl_easy_setopt(handle, CURLOPT_USERAGENT, kUserAgent);
    }
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText.data());

    if (!options.verifyPeer()) {
        // Widening authentication together with peer verification is intended,
        // for a request with credentials to use: without them the methods
        // change nothing on the wire, yet with NTLM among them libcurl examines
        // every pooled connection for every new transfer.
        if (carriesUserInfo(encodedUrl)) {
            curl_easy_setopt(handle, CURLOPT_HTTPAUTH, CURLAUTH_ANY);
        }
        curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
    }
    configureTlsTrust();
    if (!options.isDisabledCompression()) {
        curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, ""); // every encoding libcurl has
    }
    if (httpVersion == HttpClient::Http2) {
        curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2_0));
        curl_easy_setopt(handle, CURLOPT_PIPEWAIT, 1L);
    }

    if (!options.isDisabledCompression()) {
        curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, ""); // again; kept, it is harmless
    }

    curl_easy_setopt(handle, CURLOPT_URL, encodedUrl.constData());
    // A URL or a redirect naming file:, ftp:, gopher: and the like must never
    // reach libcurl's other protocol handlers.
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, kAllowedProtocols);
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, kAllowedProtocols);
    installReceiveCallbacks();
    installProgressCallback();
    installTraceCallback();
    curl_easy_setopt(handle, CURLOPT_BUFFERSIZE,
        options.immediateRead() ? kImmediateReadBufferBytes : kReceiveBufferBytes);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);

    const int maxRedirects = options.maxRedirects();
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, maxRedirects != 0 ? 1L : 0L);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, maxRedirects >= 0 ? static_cast<long>(maxRedirects) : -1L);
    curl_easy_setopt(handle, CURLOPT_UNRESTRICTED_AUTH, options.redirectAuth() ? 1L : 0L);

    curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPIDLE, 60L);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPINTVL, 60L);

    if (options.timeoutMs() > 0) {
        curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(options.timeoutMs()));
    }
    if (options.connectTimeoutMs() > 0) {
        curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options.connectTimeoutMs()));
    }
    configureRateLimits();

    switch (method) {
    case HttpClient::Head:
        curl_easy_setopt(handle, CURLOPT_HEADER, 1L); // header lines reach the body too
        curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
        break;
    case HttpClient::Post:
        curl_easy_setopt(handle, CURLOPT_POST, 1L);
        break;
    case HttpClient::Put:
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, "PUT");
        break;
    case HttpClient::Delete:
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, "DELETE");
        break;
    case HttpClient::Patch:
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, "PATCH");
        break;
    default:
        break; // Get: libcurl's default
    }

    const QSet<HttpClientOptions::HttpPostRedirFlags> postRedirect = options.postRedirectFlags();
    if (!postRedirect.isEmpty()) {
        curl_easy_setopt(handle, CURLOPT_POSTREDIR, postRedirectMask(postRedirect));
    }
}

// Set only when asked for: libcurl's default is no limit either way.
void HttpClientTransfer::configureRateLimits()
{
    CURL* const handle = easy.get();
    if (options.maxReceiveBytesPerSecond() > 0) {
        curl_easy_setopt(handle, CURLOPT_MAX_RECV_SPEED_LARGE,
            static_cast<curl_off_t>(options.maxReceiveBytesPerSecond()));
    }
    if (options.maxSendBytesPerSecond() > 0) {
        curl_easy_setopt(
            handle, CURLOPT_MAX_SEND_SPEED_LARGE, static_cast<curl_off_t>(options.maxSendBytesPerSecond()));
    }
}

void HttpClientTransfer::installReceiveCallbacks()
{
    CURL* const handle = easy.get();
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &HttpClientTransfer::curlWriteFunc);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &HttpClientTransfer::curlWriteHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &receiveBuffer);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &receiveBuffer);
}

// libcurl copies each path, and keeps connections made under other trust
// settings apart: a connection verified against one CA is never reused for a
// request that names another.
void HttpClientTransfer::configureTlsTrust()
{
    CURL* const handle = easy.get();
    const auto setPath = [handle](CURLoption option, const QString& path) {
        if (!path.isEmpty()) {
            curl_easy_setopt(handle, option, QFile::encodeName(path).constData());
        }
    };
    setPath(CURLOPT_CAINFO, options.caFile());
    setPath(CURLOPT_CAPATH, options.caPath());
    setPath(CURLOPT_SSLCERT, options.clientCertificateFile());
    setPath(CURLOPT_SSLKEY, options.clientKeyFile());
}
