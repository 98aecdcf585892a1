// Posts a form and a byte body, receiving both results through callbacks.
//   example_callback_post http://127.0.0.1:8080/echo
#include <trel/HttpClient.h>

#include <QCoreApplication>

#include <iostream>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 2) {
        std::cerr << "usage: example_callback_post URL\n";
        return 2;
    }
    const TrelUrl url(QString::fromLocal8Bit(argv[1]));
    HttpClient client;
    int pending = 2;
    int failures = 0;
    const auto print = [&](const HttpClientResult& result) {
        std::cout << result.url << " -> " << result.status << ' ' << result.code << ": "
                  << result.body.left(60).constData() << '\n';
        failures += result.status == HttpClientStatus::OK ? 0 : 1;
        if (--pending == 0) {
            QCoreApplication::exit(failures);
        }
    };
    client.postForm(url, { { "name", "trel" }, { "kind", "example" } }, HttpClientOptions(), print);
    client.post(url, QByteArray("raw bytes"), HttpClientOptions(), print);
    return app.exec();
}
