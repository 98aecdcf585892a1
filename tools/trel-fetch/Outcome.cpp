#include "Outcome.h"

namespace trelfetch {
namespace {

const char* const kErrorHeader = "X-TrelError";

bool mentions(const QString& reason, const char* word)
{
    return reason.contains(QLatin1String(word), Qt::CaseInsensitive);
}

// The library has one status for most endings; its reason tells them apart.
int exitCodeOfError(const QString& reason)
{
    if (mentions(reason, "redirects followed")) {
        return exitcode::kTooManyRedirects;
    }
    if (mentions(reason, "SSL") || mentions(reason, "TLS") || mentions(reason, "certificate")) {
        return exitcode::kTls;
    }
    if (mentions(reason, "URL rejected") || mentions(reason, "malformed")) {
        return exitcode::kMalformedUrl;
    }
    if (mentions(reason, "Recv failure") || mentions(reason, "connection reset")
        || mentions(reason, "transfer closed")) {
        return exitcode::kReceive;
    }
    return exitcode::kOther;
}

} // namespace

QString libraryReason(const HttpClientResult& result)
{
    return result.headers.value(kErrorHeader, QString());
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
    return { exitCodeOfError(reason), reason.isEmpty() ? "transfer failed" : reason };
}

} // namespace trelfetch
