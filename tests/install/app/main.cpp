// A minimal application built against the installed library, with every
// public header included, under strict warnings and QT_NO_KEYWORDS: it makes
// one GET and prints its result.
#include <trel/HttpClient.h>
#include <trel/HttpClientCache.h>
#include <trel/HttpClientHeaders.h>
#include <trel/HttpClientOptions.h>
#include <trel/HttpClientPrivate.h>
#include <trel/HttpClientQueue.h>
#include <trel/HttpClientStatus.h>
#include <trel/HttpClientTransfer.h>
#include <trel/Version.h>

#include <QCoreApplication>
#include <QTimer>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <string>
#include <thread>

namespace {

// Answers one request on 127.0.0.1 (a port of the kernel's choosing) with a
// five-byte body, on a thread of its own, so the application has a server
// without anything installed beside it.
class OneRequestServer
{
public:
    OneRequestServer()
        : listener(::socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        listening = listener >= 0
            && ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0
            && ::listen(listener, 1) == 0
            && ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0;
        port = ntohs(address.sin_port);
        if (listening) {
            worker = std::thread([this] { answerOne(); });
        }
    }

    ~OneRequestServer()
    {
        if (listener >= 0) {
            ::shutdown(listener, SHUT_RDWR); // wakes an accept still waiting
        }
        if (worker.joinable()) {
            worker.join();
        }
        if (listener >= 0) {
            ::close(listener);
        }
    }

    OneRequestServer(const OneRequestServer&) = delete;
    OneRequestServer& operator=(const OneRequestServer&) = delete;

    bool isListening() const { return listening; }
    QByteArray url() const { return "http://127.0.0.1:" + QByteArray::number(port) + "/"; }

private:
    void answerOne()
    {
        const int connection = ::accept(listener, nullptr, nullptr);
        if (connection < 0) {
            return;
        }
        std::string request;
        char buffer[1024];
        while (request.find("\r\n\r\n") == std::string::npos && request.size() < 65536) {
            const ssize_t got = ::recv(connection, buffer, sizeof(buffer), 0);
            if (got <= 0) {
                break;
            }
            request.append(buffer, static_cast<size_t>(got));
        }
        const char reply[] = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nConnection: close\r\n\r\nhello";
        [[maybe_unused]] const ssize_t sent = ::send(connection, reply, sizeof(reply) - 1, MSG_NOSIGNAL);
        ::close(connection);
    }

    const int listener;
    bool listening = false;
    quint16 port = 0;
    std::thread worker;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    std::cout << HttpClient::toString(HttpClientStatus::Timeout).toStdString() << '\n';
    std::cout << HttpClientHeaders(QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n")) << '\n';
    // The headers compiled against and the library loaded agree.
    std::cout << (std::strcmp(trelHttpClientVersion(), TREL_HTTP_CLIENT_VERSION_STRING) == 0
            ? "version ok"
            : "version mismatch")
              << '\n';

    // One GET through the event loop, its result from a callback.
    const OneRequestServer server;
    if (!server.isListening()) {
        std::cout << "no loopback server\n";
        return 1;
    }
    HttpClient client;
    client.get(TrelUrl::fromEncoded(server.url()), HttpClientOptions(), [](const HttpClientResult& result) {
        std::cout << "GET " << HttpClient::toString(result.status).toStdString() << ' ' << result.code << ' '
                  << result.body.constData() << '\n';
        QCoreApplication::exit(result.status == HttpClientStatus::OK ? 0 : 1);
    });
    QTimer::singleShot(30000, &app, [] {
        std::cout << "GET no result in 30 s\n";
        QCoreApplication::exit(1);
    });
    return app.exec();
}
