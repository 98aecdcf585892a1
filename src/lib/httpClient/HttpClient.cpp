#include <trel/HttpClient.h>

QString HttpClient::toString(HttpClientStatus status)
{
    switch (status) {
    case HttpClientStatus::OK:
        return QStringLiteral("OK");
    case HttpClientStatus::ResolveError:
        return QStringLiteral("ResolveError");
    case HttpClientStatus::ConnectError:
        return QStringLiteral("ConnectError");
    case HttpClientStatus::Timeout:
        return QStringLiteral("Timeout");
    case HttpClientStatus::Error:
        return QStringLiteral("Error");
    case HttpClientStatus::ImmediateRead:
        return QStringLiteral("ImmediateRead");
    }
    return QStringLiteral("Invalid status %1").arg(static_cast<int>(status));
}
