#include "Outcome.h"

namespace trelfetch {
namespace {

// libcurl's codes for a failed TLS handshake or certificate check.
bool isTlsFailure(int code)
{
    switch (code) {
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_USE_SSL_FAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CLIENTCERT:
        return true;
    default:
        return false;
    }
}

// The library has one status for most endings; libcurl's code beside it tells
// them apart.
int exitCodeOfError(int code)
{
    if (code == CURLE_TOO_MANY_REDIRECTS) {
        return exitcode::kTooManyRedirects;
    }
    if (isTlsFailure(code)) {
        return exitcode::kTls;
    }
    if (code == CURLE_URL_MALFORMAT) {
        return exitcode::kMalformedUrl;
    }
    if (code == CURLE_READ_ERROR) {
        return exitcode::kRead;
    }
    if (code == CURLE_RECV_ERROR || code == CURLE_SEND_ERROR || code == CURLE_PARTIAL_FILE) {
        return exitcode::kReceive;
    }
    return exitcode::kOther;
}

} // namespace

QString libraryReason(const HttpClientResult& result)
{
    return result.headers.value(HttpClientHeaders::ErrorField, QString());
}

int libraryErrorCode(const HttpClientResult& result)
{
    bool valid = false;
    const int code = result.headers.value(HttpClientHeaders::ErrorCodeField, QString()).toInt(&valid);
    return valid ? code : -1;
}

Outcome classify(const HttpClientResult& result, bool failOnHttpError)
{
    const QString reason = libraryReason(result);
    switch (result.status) {
    case HttpClientStatus::OK:
        if (failOnHttpError && result.code >= 400) {
            return { exitcode::kHttpError, QString("The requested URL returned error: %1").arg(result.code) };
        }
        return {};
    case HttpClientStatus::ResolveError:
        return { exitcode::kResolve, reason.isEmpty() ? "could not resolve host" : reason };
    case HttpClientStatus::ConnectError:
        return { exitcode::kConnect, reason.isEmpty() ? "could not connect" : reason };
    case HttpClientStatus::Timeout:
        return { exitcode::kTimeout, reason.isEmpty() ? "timed out" : reason };
    case HttpClientStatus::Error:
    case HttpClientStatus::ImmediateRead:
        break;
    }
    return { exitCodeOfError(libraryErrorCode(result)), reason.isEmpty() ? "transfer failed" : reason };
}

} // namespace trelfetch
