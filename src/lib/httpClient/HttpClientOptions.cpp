// A request's settings as the caller sets them; the transfer maps them to libcurl.

#include <trel/HttpClientOptions.h>

const QSet<HttpClientOptions::HttpPostRedirFlags> HttpClientOptions::PostRedirAll
    = { HttpClientOptions::PostRedir301, HttpClientOptions::PostRedir302, HttpClientOptions::PostRedir303 };

HttpClientOptions::HttpClientOptions() = default;

void HttpClientOptions::setUserData(const HttpClientPrivate& userData)
{
    userData_ = userData; // shares the payload; a no-op when it is already shared
}

HttpClientPrivate HttpClientOptions::userData() const
{
    return userData_;
}

void HttpClientOptions::setTimeoutMs(int timeoutMs)
{
    timeoutMs_ = timeoutMs;
}

int HttpClientOptions::timeoutMs() const
{
    return timeoutMs_;
}

void HttpClientOptions::setReadSizeLimit(int readSizeLimit)
{
    readSizeLimit_ = readSizeLimit;
}

int HttpClientOptions::readSizeLimit() const
{
    return readSizeLimit_;
}

void HttpClientOptions::setImmediateRead(bool immediateRead)
{
    immediateRead_ = immediateRead;
}

bool HttpClientOptions::immediateRead() const
{
    return immediateRead_;
}

void HttpClientOptions::setMaxRedirects(int maxRedirects)
{
    maxRedirects_ = maxRedirects;
}

int HttpClientOptions::maxRedirects() const
{
    return maxRedirects_;
}

void HttpClientOptions::setRedirectAuth(bool redirectAuth)
{
    redirectAuth_ = redirectAuth;
}

bool HttpClientOptions::redirectAuth() const
{
    return redirectAuth_;
}

void HttpClientOptions::disableCompression(bool disable)
{
    disableCompression_ = disable;
}

bool HttpClientOptions::isDisabledCompression() const
{
    return disableCompression_;
}

void HttpClientOptions::setVerifyPeer(bool verifyPeer)
{
    verifyPeer_ = verifyPeer;
}

bool HttpClientOptions::verifyPeer() const
{
    return verifyPeer_;
}

void HttpClientOptions::setCaFile(const QString& path)
{
    caFile_ = path;
}

QString HttpClientOptions::caFile() const
{
    return caFile_;
}

void HttpClientOptions::setCaPath(const QString& directory)
{
    caPath_ = directory;
}

QString HttpClientOptions::caPath() const
{
    return caPath_;
}

void HttpClientOptions::setClientCertificate(const QString& certificateFile, const QString& keyFile)
{
    clientCertificateFile_ = certificateFile;
    clientKeyFile_ = keyFile;
}

QString HttpClientOptions::clientCertificateFile() const
{
    return clientCertificateFile_;
}

QString HttpClientOptions::clientKeyFile() const
{
    return clientKeyFile_;
}

void HttpClientOptions::setConnectTimeoutMs(int connectTimeoutMs)
{
    connectTimeoutMs_ = connectTimeoutMs;
}

int HttpClientOptions::connectTimeoutMs() const
{
    return connectTimeoutMs_;
}

void HttpClientOptions::setInactivityTimeoutMs(int inactivityTimeoutMs)
{
    inactivityTimeoutMs_ = inactivityTimeoutMs;
}

int HttpClientOptions::inactivityTimeoutMs() const
{
    return inactivityTimeoutMs_;
}

void HttpClientOptions::setProgressCallback(ProgressCallback callback)
{
    progressCallback_ = std::move(callback);
}

const HttpClientOptions::ProgressCallback& HttpClientOptions::progressCallback() const
{
    return progressCallback_;
}

void HttpClientOptions::setMaxReceiveBytesPerSecond(qint64 bytesPerSecond)
{
    maxReceiveBytesPerSecond_ = bytesPerSecond;
}

qint64 HttpClientOptions::maxReceiveBytesPerSecond() const
{
    return maxReceiveBytesPerSecond_;
}

void HttpClientOptions::setMaxSendBytesPerSecond(qint64 bytesPerSecond)
{
    maxSendBytesPerSecond_ = bytesPerSecond;
}

qint64 HttpClientOptions::maxSendBytesPerSecond() const
{
    return maxSendBytesPerSecond_;
}

void HttpClientOptions::setTraceCallback(TraceCallback callback)
{
    traceCallback_ = std::move(callback);
}

const HttpClientOptions::TraceCallback& HttpClientOptions::traceCallback() const
{
    return traceCallback_;
}

void HttpClientOptions::setHeaders(const HttpClientHeaders& headers)
{
    headers_ = headers;
}

HttpClientHeaders HttpClientOptions::headers() const
{
    return headers_;
}

void HttpClientOptions::setPostRedirectFlags(QSet<HttpPostRedirFlags> flags)
{
    postRedirectFlags_ = std::move(flags);
}

QSet<HttpClientOptions::HttpPostRedirFlags> HttpClientOptions::postRedirectFlags() const
{
    return postRedirectFlags_;
}
