#pragma once

#include <trel/HttpClientHeaders.h>
#include <trel/TrelUrl.h>
#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QMetaType>

#include <cstdint>
#include <ostream>

// First classification of every request's outcome. A cancelled request is
// `Error` with code -1; there is no separate value for it.
enum HttpClientStatus : std::int32_t
{
    OK = 0,
    ResolveError = 1,
    ConnectError = 2,
    Timeout = 3,
    Error = 4,
    ImmediateRead = 5,
};

// The one outcome record of a request.
struct HttpClientResult
{
    TrelUrl url; // the caller's URL, before any rewriting
    HttpClientStatus status = HttpClientStatus::Error;
    // The HTTP response code: 0 when no response was obtained (resolve, connect
    // and TLS failures), -1 when the request was cancelled or its client destroyed.
    int code = -1;
    QByteArray body;
    HttpClientHeaders headers;
};

// Writes HttpClient::toString(status).
TREL_HTTP_CLIENT_EXPORT std::ostream& operator<<(std::ostream& out, HttpClientStatus status);

Q_DECLARE_METATYPE(HttpClientResult)
