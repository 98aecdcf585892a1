// A minimal application built against the installed library, with every
// public header included, under strict warnings and QT_NO_KEYWORDS.
#include <trel/HttpClient.h>
#include <trel/HttpClientCache.h>
#include <trel/HttpClientHeaders.h>
#include <trel/HttpClientOptions.h>
#include <trel/HttpClientPrivate.h>
#include <trel/HttpClientQueue.h>
#include <trel/HttpClientStatus.h>
#include <trel/HttpClientTransfer.h>
#include <trel/Version.h>

#include <cstring>
#include <iostream>

int main()
{
    std::cout << HttpClient::toString(HttpClientStatus::Timeout).toStdString() << '\n';
    std::cout << HttpClientHeaders(QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n")) << '\n';
    // The headers compiled against and the library loaded agree.
    std::cout << (std::strcmp(trelHttpClientVersion(), TREL_HTTP_CLIENT_VERSION_STRING) == 0
            ? "version ok"
            : "version mismatch")
              << '\n';
    return 0;
}
