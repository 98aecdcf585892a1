// A complete program: one GET, its result printed from a callback.
//   example_minimal http://127.0.0.1:8080/
#include <trel/HttpClient.h>

#include <QCoreApplication>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

#include <iostream>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 2) {
        std::cerr << "usage: example_minimal URL\n";
        return 2;
    }

    // The library logs through log4cplus to the logger "HttpClient". These two
    // lines send every log record to the console (errors and above by default):
    log4cplus::Initializer logging;
    log4cplus::BasicConfigurator::doConfigure();
    // and this one silences the library's logger altogether:
    log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("HttpClient")).setLogLevel(log4cplus::OFF_LOG_LEVEL);

    HttpClient client; // on this thread's event loop
    HttpClientOptions options;
    options.setTimeoutMs(5000);
    client.get(TrelUrl(QString::fromLocal8Bit(argv[1])), options, [](const HttpClientResult& result) {
        std::cout << HttpClient::toString(result.status).toStdString() << ' ' << result.code << ", "
                  << result.body.size() << " bytes";
        if (result.status != HttpClientStatus::OK) {
            std::cout << " (" << result.headers.value("X-TrelError", QString()).toStdString() << ')';
        }
        std::cout << '\n';
        QCoreApplication::exit(result.status == HttpClientStatus::OK ? 0 : 1);
    });
    return app.exec();
}
