/// \file
/// HttpClientOptions: the per-request settings.
#pragma once

#include <trel/HttpClientHeaders.h>
#include <trel/HttpClientPrivate.h>
#include <trel/trel_http_client_export.h>

#include <QSet>

#include <functional>

/// Per-request settings, given to every request operation of HttpClient and
/// to HttpClient::setPushProperties().
///
/// A plain value: the client copies it when a request is made, so the caller
/// may change or drop its own object right after the call; later changes do not
/// reach requests already made. Not synchronised, like any Qt value.
///
/// The read size limit applies to every request, pushed responses included:
/// unless setReadSizeLimit() says otherwise, at most 65,536 bytes (64 KiB) of a
/// body are kept (with immediate read, between two deliveries), and a longer
/// body ends the request with HttpClientStatus::Error. Raise the limit, or make
/// it negative for none, wherever larger bodies are expected.
///
/// TLS trust is libcurl's built-in CA bundle and CA directory, the ones libcurl
/// was built with (`curl-config --ca`; on Debian
/// `/etc/ssl/certs/ca-certificates.crt` and `/etc/ssl/certs`, both kept by
/// `update-ca-certificates`), unless setCaFile() or setCaPath() names others.
/// The environment variables `SSL_CERT_FILE`, `SSL_CERT_DIR` and
/// `CURL_CA_BUNDLE` change nothing; setVerifyPeer(false) turns verification off.
class TREL_HTTP_CLIENT_EXPORT HttpClientOptions
{
public:
    /// Redirect responses after which a POST stays a POST (with its body);
    /// without a flag, libcurl follows that redirect with a GET.
    enum HttpPostRedirFlags
    {
        PostRedir301 = 0, ///< Keep POST after "301 Moved Permanently".
        PostRedir302 = 1, ///< Keep POST after "302 Found".
        PostRedir303 = 2, ///< Keep POST after "303 See Other".
    };

    /// All three flags; built when the library loads.
    static const QSet<HttpPostRedirFlags> PostRedirAll;

    /// The defaults: no timeout, a read size limit of 65536 bytes, no immediate
    /// read, at most 5 redirects, no credentials sent on to redirect targets,
    /// compression asked for, peers verified, no extra headers, no POST
    /// redirect flags, an empty caller context, no rate limits, and no
    /// progress or trace callback.
    HttpClientOptions();

    /// Sets the caller context handed back beside every result of the request
    /// (the `context` argument of a result slot). Shares \p userData's payload
    /// (nothing changes when it already does); nothing in it is ever read or
    /// changed by the client.
    void setUserData(const HttpClientPrivate& userData);
    /// The caller context; a default-constructed HttpClientPrivate unless set.
    HttpClientPrivate userData() const;

    /// Limits the whole transfer (resolving, connecting, sending and receiving)
    /// to \p timeoutMs milliseconds; a request that runs longer ends with
    /// HttpClientStatus::Timeout. Below 1 means no limit (the default, -1).
    void setTimeoutMs(int timeoutMs);
    /// The transfer's time limit in milliseconds; below 1 means none.
    int timeoutMs() const;

    /// Keeps at most \p readSizeLimit bytes of the response body (decoded).
    /// A longer body ends the request with HttpClientStatus::Error and the body
    /// up to the limit; 0 keeps nothing, so any body fails the request. Negative
    /// means no limit. The default is 65536. With setImmediateRead() on, the
    /// limit bounds what is held between two deliveries instead, and no request
    /// fails for size (see there).
    void setReadSizeLimit(int readSizeLimit);
    /// The most body bytes kept; negative means no limit.
    int readSizeLimit() const;

    /// With \p immediateRead true, what has arrived is handed over after every
    /// network event as a result with status HttpClientStatus::ImmediateRead,
    /// and the final result carries only the rest. The read size limit then
    /// applies to what is held between two deliveries: a write that would pass
    /// it pauses reception until what is held has been handed over, so no
    /// delivery is larger than the limit (when the limit is at least 64 KiB;
    /// a smaller one can be passed by one write of libcurl's) and the request
    /// never fails for size. libcurl then reads 64 KiB at a time instead of
    /// 512 KiB, so each delivery stays small and a download of any size needs
    /// little memory. Off by default.
    void setImmediateRead(bool immediateRead);
    /// Whether early deliveries are on.
    bool immediateRead() const;

    /// Follows at most \p maxRedirects redirects: 0 follows none (the redirect
    /// response itself is the result), negative follows any number; one more
    /// redirect than allowed ends with HttpClientStatus::Error. The default is 5.
    void setMaxRedirects(int maxRedirects);
    /// The redirect limit: 0 none, negative any number.
    int maxRedirects() const;

    /// With \p redirectAuth true, credentials (the URL's user info and an
    /// `Authorization` header) are sent on to redirect targets on other hosts or
    /// ports too; by default (false) they go only to the original host and port.
    void setRedirectAuth(bool redirectAuth);
    /// Whether credentials go on to redirect targets.
    bool redirectAuth() const;

    /// \p disable true asks for no compressed content encodings. Otherwise (the
    /// default) the request offers every encoding libcurl supports and the body
    /// arrives decoded.
    void disableCompression(bool disable);
    /// Whether compressed encodings are not asked for.
    bool isDisabledCompression() const;

    /// Whether the server's TLS certificate is verified (the default, true).
    /// false skips the check that the certificate chain is trusted (a
    /// self-signed certificate passes), and also lets libcurl pick any HTTP
    /// authentication method the server offers for a URL with user
    /// information (without it there is nothing to authenticate with); meant
    /// for test servers only.
    void setVerifyPeer(bool verifyPeer);
    /// Whether the server's TLS certificate is verified.
    bool verifyPeer() const;

    /// Trusts the certificates in the PEM file \p path instead of libcurl's
    /// built-in bundle (a private CA, say). Empty (the default) keeps the
    /// built-in one. A file that cannot be read ends the request with
    /// HttpClientStatus::Error (libcurl's code 77).
    void setCaFile(const QString& path);
    /// The PEM file of trusted certificates; empty for libcurl's default.
    QString caFile() const;

    /// Trusts the certificates in \p directory, which holds PEM files under
    /// their hashed names (as `openssl rehash` or `update-ca-certificates`
    /// leave them), instead of libcurl's built-in directory. Empty (the
    /// default) keeps the built-in one.
    void setCaPath(const QString& directory);
    /// The directory of trusted certificates; empty for libcurl's default.
    QString caPath() const;

    /// Presents the client certificate in the PEM file \p certificateFile,
    /// with its private key from the PEM file \p keyFile (unencrypted), to a
    /// server that asks for one (mutual TLS). Empty names (the default) present
    /// none; an empty \p keyFile looks for the key in \p certificateFile.
    void setClientCertificate(const QString& certificateFile, const QString& keyFile);
    /// The client certificate's PEM file; empty unless set.
    QString clientCertificateFile() const;
    /// The client certificate's key file; empty unless set.
    QString clientKeyFile() const;

    /// Limits connecting (resolving, the TCP handshake and the TLS handshake)
    /// to \p connectTimeoutMs milliseconds; a request that cannot connect in
    /// time ends with HttpClientStatus::Timeout. Below 1 means libcurl's
    /// default of 300 seconds (the default, -1).
    void setConnectTimeoutMs(int connectTimeoutMs);
    /// The limit for connecting in milliseconds; below 1 means libcurl's default.
    int connectTimeoutMs() const;

    /// Ends a request with HttpClientStatus::Timeout once its transfer has
    /// received and sent no body byte for \p inactivityTimeoutMs milliseconds
    /// (connecting and waiting for the response head count as nothing moving).
    /// Below 1 means no such limit (the default, -1). Unlike setTimeoutMs(), a
    /// long transfer that keeps moving is never cut.
    void setInactivityTimeoutMs(int inactivityTimeoutMs);
    /// The inactivity limit in milliseconds; below 1 means none.
    int inactivityTimeoutMs() const;

    /// What setProgressCallback() takes: the body bytes received so far, the
    /// length the response announced (-1 when unknown), the bytes sent so far
    /// (as libcurl counts them: a streamed body over HTTP/1.1 includes its
    /// chunk framing) and the length of the request body (-1 when unknown or none).
    using ProgressCallback
        = std::function<void(qint64 received, qint64 receiveTotal, qint64 sent, qint64 sendTotal)>;

    /// Calls \p callback with the request's progress as bytes move: on the
    /// client's thread, from the event loop (never inside a request call or a
    /// libcurl callback), at most every 100 ms, and once more with the final
    /// numbers before the result is delivered. Works for slot and callback
    /// forms alike; pushed responses report none. Empty (the default) costs
    /// nothing: libcurl's progress function stays off.
    void setProgressCallback(ProgressCallback callback);
    /// The progress callback; empty unless set.
    const ProgressCallback& progressCallback() const;

    /// Limits how fast the response is received: libcurl reads no faster than
    /// \p bytesPerSecond on average over the transfer, pausing reception as
    /// needed. Below 1 means no limit (the default, 0). The limit is this
    /// request's own: other requests are not counted against it.
    /// \param bytesPerSecond the most body bytes per second to receive.
    void setMaxReceiveBytesPerSecond(qint64 bytesPerSecond);
    /// The receive rate limit in bytes per second; below 1 means none.
    qint64 maxReceiveBytesPerSecond() const;

    /// Limits how fast the request body is sent: libcurl sends no faster than
    /// \p bytesPerSecond on average over the transfer. Below 1 means no limit
    /// (the default, 0).
    /// \param bytesPerSecond the most body bytes per second to send.
    void setMaxSendBytesPerSecond(qint64 bytesPerSecond);
    /// The send rate limit in bytes per second; below 1 means none.
    qint64 maxSendBytesPerSecond() const;

    /// What a piece of a request's trace is (see setTraceCallback()).
    enum TraceKind
    {
        /// One of libcurl's informational lines, as `curl -v` shows them after
        /// "* " (without that prefix): "Connected to 127.0.0.1 (127.0.0.1) port
        /// 8080", TLS handshake steps, connection reuse, ...; line end included.
        TraceText,
        /// One response header line exactly as received, CRLF included: the
        /// status line and fields of every response, redirects and interim
        /// (1xx) responses too. Over HTTP/2, libcurl writes the status line as
        /// "HTTP/2 200" and the fields in lower case.
        TraceHeaderIn,
        /// The request head as libcurl sent it: request line, every field and
        /// the blank line, in one piece or a few (one per request for a redirect
        /// followed). Over HTTP/2 written as HTTP/1.1 would be, with "HTTP/2".
        TraceHeaderOut,
    };

    /// What setTraceCallback() takes: the kind of a piece and its bytes.
    using TraceCallback = std::function<void(HttpClientOptions::TraceKind kind, const QByteArray& data)>;

    /// Calls \p callback with libcurl's account of the request as it happens:
    /// its informational lines, the request head sent and the response header
    /// lines received (see TraceKind); body bytes and TLS records are never
    /// passed, so what is held stays as small as the heads. The callback runs
    /// on the client's thread, from the event loop (never inside a request
    /// call, HttpClient::cancel() or a libcurl callback), with the pieces in
    /// the order libcurl produced them, every one before the request's result.
    /// No order with progress reports is promised: the last progress report
    /// may come before the last pieces. Pushed responses and responses answered
    /// from the cache report none. Empty (the default) costs nothing: libcurl's
    /// verbose mode and debug function stay off.
    /// \param callback receives each piece; empty for no trace.
    void setTraceCallback(TraceCallback callback);
    /// The trace callback; empty unless set.
    const TraceCallback& traceCallback() const;

    /// Extra request header fields, sent as given; a field libcurl would send
    /// itself is replaced by one of the same name. A name given values with
    /// HttpClientHeaders::append() goes out as one line per value. An
    /// `Authorization` or `Cookie` field keeps a GET out of the response cache
    /// in both directions.
    void setHeaders(const HttpClientHeaders& headers);
    /// The extra request header fields; empty unless set.
    HttpClientHeaders headers() const;

    /// After which redirect responses a POST stays a POST; empty (the default)
    /// lets libcurl turn it into a GET after 301, 302 and 303. PostRedirAll
    /// keeps POST after all three.
    void setPostRedirectFlags(QSet<HttpPostRedirFlags> flags);
    /// The POST redirect flags; empty unless set.
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
    QString caFile_;
    QString caPath_;
    QString clientCertificateFile_;
    QString clientKeyFile_;
    int connectTimeoutMs_ = -1;
    int inactivityTimeoutMs_ = -1;
    ProgressCallback progressCallback_;
    qint64 maxReceiveBytesPerSecond_ = 0;
    qint64 maxSendBytesPerSecond_ = 0;
    TraceCallback traceCallback_;
    QSet<HttpPostRedirFlags> postRedirectFlags_;
};

/// Hashes a POST redirect flag, so that it can be a QSet element.
inline uint qHash(HttpClientOptions::HttpPostRedirFlags flag, uint seed = 0)
{
    return ::qHash(static_cast<int>(flag), seed);
}
