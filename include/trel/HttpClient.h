#pragma once

#include <trel/HttpClientHeaders.h>
#include <trel/HttpClientOptions.h>
#include <trel/HttpClientPrivate.h>
#include <trel/HttpClientQueue.h>
#include <trel/HttpClientStatus.h>
#include <trel/TrelUrl.h>
#include <trel/trel_http_client_export.h>

#include <QObject>
#include <QString>

#include <functional>

class TREL_HTTP_CLIENT_EXPORT HttpClient : public QObject
{
    Q_OBJECT

public:
    enum HttpVersion
    {
        Http1 = 0,
        Http2 = 1,
    };

    enum HttpMethod
    {
        Get = 0,
        Head = 1,
        Post = 2,
        Put = 3,
        Delete = 4,
        Patch = 5,
    };

    using Result = HttpClientResult;
    using Callback = std::function<void(const HttpClientResult&)>;

    // "OK", "ResolveError", ... for 0..5; "Invalid status N" for anything else.
    static QString toString(HttpClientStatus status);
};

Q_DECLARE_METATYPE(HttpClient::Callback)
