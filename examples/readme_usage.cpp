// The usage example quoted in README.md: a GET answered to a slot, a POST
// answered to a callback, a cancel, and HTTP/2 with server push.
//   example_readme_usage http://127.0.0.1:8080/ https://localhost:8443/
#include <trel/DbgLog.h> // streams a QString
#include <trel/HttpClient.h>

#include <QCoreApplication>
#include <QObject>
#include <QTimer>

#include <iostream>

class Receiver : public QObject
{
    Q_OBJECT
public slots:
    void onResult(const TrelUrl& url, const HttpClientPrivate&, int status, int code, const QByteArray& body,
        const HttpClientHeaders& headers)
    {
        std::cout << (url.isEmpty() ? "pushed " : "got ")
                  << headers.value("X-TrelEfectiveUrl", url.toString()) << ": "
                  << HttpClient::toString(HttpClientStatus(status)) << ' ' << code << ", " << body.size()
                  << " bytes\n";
    }
};

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 3)
        return 2;
    const TrelUrl http1(QString::fromLocal8Bit(argv[1])), http2(QString::fromLocal8Bit(argv[2]));
    Receiver receiver;

    // The README quotes this block verbatim; its aligned comments are kept.
    // clang-format off
    HttpClientOptions options;
    options.setTimeoutMs(5000);
    // Every request keeps at most 64 KiB of body unless told otherwise, and a
    // longer body ends it with Error: these may bring up to 16 MiB.
    options.setReadSizeLimit(16 * 1024 * 1024);

    HttpClient client;                                  // HTTP/1.1, on this thread's event loop
    client.get(http1, &receiver, "onResult", options);  // result: a queued call of the slot
    client.post(http1, "hello", options, [](const HttpClientResult& r) {
        std::cout << "posted: " << r.status << ' ' << r.code << '\n';  // runs on this thread
    });
    void* id = client.get(http1, options, [](const HttpClientResult& r) {
        std::cout << "cancelled: " << r.status << ' ' << r.code << '\n';  // Error -1
    });
    client.cancel(id);                                  // still exactly one result

    HttpClient h2(nullptr, HttpClient::Http2);          // multiplexing and server push
    HttpClientOptions insecure = options;
    insecure.setVerifyPeer(false);                      // the demo's self-signed certificate
    h2.setPushProperties(&receiver, "onResult", insecure);
    h2.get(http2, &receiver, "onResult", insecure);
    // clang-format on

    QTimer::singleShot(2000, &app, &QCoreApplication::quit);
    return app.exec();
}

#include "readme_usage.moc"
