#pragma once

#include <trel/HttpClientHeaders.h>
#include <trel/HttpClientPrivate.h>
#include <trel/trel_http_client_export.h>

#include <QSet>

// Per-request settings. A plain value: the client copies it when a request is
// made, so the caller may change or drop its own object right after the call.
class TREL_HTTP_CLIENT_EXPORT HttpClientOptions
{
public:
    enum HttpPostRedirFlags
    {
        PostRedir301 = 0,
        PostRedir302 = 1,
        PostRedir303 = 2,
    };

    // All three flags; built when the library loads.
    static const QSet<HttpPostRedirFlags> PostRedirAll;

    HttpClientOptions();

    // Shares the given context's payload (nothing changes when it already does).
    void setUserData(const HttpClientPrivate& userData);
    HttpClientPrivate userData() const;

    void setTimeoutMs(int timeoutMs);
    int timeoutMs() const;

    void setReadSizeLimit(int readSizeLimit);
    int readSizeLimit() const;

    void setImmediateRead(bool immediateRead);
    bool immediateRead() const;

    void setMaxRedirects(int maxRedirects);
    int maxRedirects() const;

    void setRedirectAuth(bool redirectAuth);
    bool redirectAuth() const;

    // true asks for no compressed content encodings.
    void disableCompression(bool disable);
    bool isDisabledCompression() const;

    void setVerifyPeer(bool verifyPeer);
    bool verifyPeer() const;

    void setHeaders(const HttpClientHeaders& headers);
    HttpClientHeaders headers() const;

    void setPostRedirectFlags(QSet<HttpPostRedirFlags> flags);
    QSet<HttpPostRedirFlags> postRedirectFlags() const;

private:
    HttpClientPrivate userData_;
    int timeoutMs_ = -1;
    int readSizeLimit_ = 65536;
    HttpClientHeaders headers_;
    bool immediateRead_ = false;
    int maxRedirects_ = 5;
    bool redirectAuth_ = false;
    bool disableCompression_ = false;
    bool verifyPeer_ = true;
    QSet<HttpPostRedirFlags> postRedirectFlags_;
};

inline uint qHash(HttpClientOptions::HttpPostRedirFlags flag, uint seed = 0)
{
    return ::qHash(static_cast<int>(flag), seed);
}
