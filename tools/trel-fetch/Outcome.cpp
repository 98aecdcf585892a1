#include "Outcome.h"

namespace trelfetch {
namespace {

// curl's exit codes are libcurl's codes, so the code beside the library's
// reason is the exit code; a result without one counts as "other".
int exitCodeOfError(int code)
{
    constexpr int kLastCurlCode = CURL_LAST - 1;
    return code > 0 && code <= kLastCurlCode ? code : exitcode::kOther;
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
