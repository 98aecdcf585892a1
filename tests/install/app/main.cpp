// A minimal application built against the installed library.
#include <trel/HttpClient.h>

#include <iostream>

int main()
{
    std::cout << HttpClient::toString(HttpClientStatus::Timeout).toStdString() << '\n';
    std::cout << HttpClientHeaders(QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n")) << '\n';
    return 0;
}
