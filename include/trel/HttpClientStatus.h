/// \file
/// HttpClientStatus and HttpClientResult: how a request ended and what it brought back.
#pragma once

#include <trel/HttpClientHeaders.h>
#include <trel/TrelUrl.h>
#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QMetaType>

#include <cstdint>
#include <ostream>

/// First classification of a request's outcome, delivered with every result.
///
/// Every value but ImmediateRead ends a request: each started request gets
/// exactly one result with one of them. A cancelled request, and one still
/// running when its client is destroyed, ends with `Error` and code -1; there is
/// no separate value for it. HttpClient::toString() names the values.
enum HttpClientStatus : std::int32_t
{
    /// The exchange completed: a whole response arrived, whatever its HTTP code
    /// (a 404 or a 500 is `OK` too; look at HttpClientResult::code). The headers
    /// carry `X-TrelEfectiveUrl`, the URL the request ended at after redirects.
    OK = 0,
    /// The host name (or the proxy's) could not be resolved. Code 0, no response.
    ResolveError = 1,
    /// No connection could be made to the server. Code 0, no response.
    ConnectError = 2,
    /// The request's HttpClientOptions::timeoutMs() (or libcurl's own connection
    /// time limit) ran out before the exchange completed; the body holds what had
    /// arrived. The code is the response's when its status line had arrived, else 0.
    Timeout = 3,
    /// Every other ending: cancellation by HttpClient::cancel() and destruction
    /// of the client (code -1, empty body and headers), a response body larger
    /// than HttpClientOptions::readSizeLimit() (the body up to the limit), TLS
    /// failures (code 0), a URL whose scheme is not http or https (code 0),
    /// a redirect to such a URL or one redirect too many (the code of the last
    /// redirect response, such as 302), protocol errors.
    Error = 4,
    /// Not an ending: with HttpClientOptions::setImmediateRead() on, what
    /// arrived since the previous delivery (body bytes and header lines, plus
    /// `X-TrelEfectiveUrl`, with the response code known so far), handed over
    /// after a network event. More ImmediateRead deliveries may follow, then
    /// exactly one final result, which holds only what was not yet handed over.
    /// A request that is cancelled gets no more ImmediateRead deliveries.
    ImmediateRead = 5,
};

/// The outcome of a request: what a HttpClient::Callback receives, and what a
/// receiver's slot receives as separate arguments.
///
/// A plain value, copied freely, declared to Qt's meta-type system.
struct HttpClientResult
{
    /// The caller's URL exactly as given to the request operation, before any
    /// rewriting (see `encodePlusSign` of HttpClient::HttpClient()); empty for
    /// an HTTP/2 pushed response.
    TrelUrl url;
    /// How the request ended (or ImmediateRead for an early delivery).
    HttpClientStatus status = HttpClientStatus::Error;
    /// The HTTP response code of the last response received (after redirects);
    /// 0 when no response was obtained (resolve, connect and TLS failures, a
    /// refused scheme), -1 when the request was cancelled or its client destroyed.
    int code = -1;
    /// The response body, decoded from any content encoding; at most
    /// HttpClientOptions::readSizeLimit() bytes. For `head` it holds the
    /// response's header lines.
    QByteArray body;
    /// The response header fields (those of every response on the way,
    /// a later one replacing an earlier one of the same name), plus
    /// `X-TrelEfectiveUrl` on `OK` and ImmediateRead deliveries, and
    /// `X-TrelError` with the reason on every failure that libcurl reported
    /// (not on cancellation or destruction, whose headers stay empty).
    HttpClientHeaders headers;
};

/// Writes HttpClient::toString() of \p status to \p out and returns \p out.
TREL_HTTP_CLIENT_EXPORT std::ostream& operator<<(std::ostream& out, HttpClientStatus status);

Q_DECLARE_METATYPE(HttpClientResult)
