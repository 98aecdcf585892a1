// Fetches one URL and receives the result through a queued slot.
//   example_slot_get http://127.0.0.1:8080/
#include <trel/DbgLog.h> // streams a QString
#include <trel/HttpClient.h>

#include <QCoreApplication>
#include <QObject>

#include <iostream>

class Printer : public QObject
{
    Q_OBJECT

public slots:
    // The six arguments every result slot takes, in this order.
    void onResult(const TrelUrl& url, const HttpClientPrivate& context, int status, int code,
        const QByteArray& body, const HttpClientHeaders& headers)
    {
        std::cout << url << " [" << context.getString() << "] -> "
                  << HttpClient::toString(static_cast<HttpClientStatus>(status)) << ' ' << code << ", "
                  << body.size() << " bytes, Content-Type: " << headers.value("Content-Type", QString("?"))
                  << '\n';
        QCoreApplication::exit(status == HttpClientStatus::OK ? 0 : 1);
    }
};

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 2) {
        std::cerr << "usage: example_slot_get URL\n";
        return 2;
    }
    HttpClient client;
    Printer printer;
    HttpClientOptions options;
    options.setTimeoutMs(5000);
    options.setUserData(HttpClientPrivate(QStringLiteral("my request")));
    client.get(TrelUrl(QString::fromLocal8Bit(argv[1])), &printer, "onResult", options);
    return app.exec();
}

#include "slot_get.moc"
