// Times what the loopback benchmark kit does not cover: a 10 MiB body streamed
// through postStream from a producer thread, against nginx on loopback, beside
// curl reading the same bytes from standard input. Prints MB/s and CPU time per
// request for both. GETs, downloads and byte-body posts are measured by the
// kit, beside raw libcurl and QNAM (see README). Usage: trel-bench [--quick]

#include <trel/HttpClient.h>

#include "LocalServers.h"

#include <QCoreApplication>

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <iostream>
#include <thread>
#include <vector>

namespace {

using trel::test::NginxServer;

struct Measurement
{
    double seconds = 0;
    double cpuSeconds = 0;
    int requests = 0;
    qint64 bytes = 0;
    int failures = 0;
};

double cpuOf(const rusage& usage)
{
    return usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec
        + usage.ru_stime.tv_usec / 1e6;
}

double processCpu()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return cpuOf(usage);
}

// Issues `total` requests with at most `inFlight` at once and runs the event
// loop until all have answered.
Measurement runClient(HttpClient& client, int total, int inFlight,
    const std::function<void*(HttpClient&, HttpClient::Callback)>& issue)
{
    Measurement m;
    m.requests = total;
    int started = 0;
    int done = 0;
    std::function<void()> startOne;
    const HttpClient::Callback onResult = [&](const HttpClientResult& result) {
        ++done;
        m.bytes += result.body.size();
        if (result.status != HttpClientStatus::OK || result.code >= 400) {
            ++m.failures;
        }
        if (started < total) {
            startOne();
        }
        if (done == total) {
            QCoreApplication::exit(0);
        }
    };
    startOne = [&] {
        ++started;
        if (!issue(client, onResult)) {
            ++done;
            ++m.failures;
        }
    };
    const double cpuBefore = processCpu();
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < inFlight && started < total; ++i) {
        startOne();
    }
    if (done < total) {
        QCoreApplication::exec();
    }
    m.seconds = timer.nsecsElapsed() / 1e9;
    m.cpuSeconds = processCpu() - cpuBefore;
    return m;
}

// Runs curl with a config file; the child's own CPU time is measured.
Measurement runCurl(
    const QStringList& arguments, int requests, qint64 bytes, const QString& stdinPath = QString())
{
    Measurement m;
    m.requests = requests;
    m.bytes = bytes;
    std::vector<QByteArray> storage { "/usr/bin/curl" };
    for (const QString& argument : arguments) {
        storage.push_back(argument.toLocal8Bit());
    }
    std::vector<char*> argv;
    for (QByteArray& item : storage) {
        argv.push_back(item.data());
    }
    argv.push_back(nullptr);
    QElapsedTimer timer;
    timer.start();
    const pid_t child = fork();
    if (child == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        if (!stdinPath.isEmpty()) {
            dup2(open(stdinPath.toLocal8Bit().constData(), O_RDONLY), STDIN_FILENO);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage {};
    wait4(child, &status, 0, &usage);
    m.seconds = timer.nsecsElapsed() / 1e9;
    m.cpuSeconds = cpuOf(usage);
    m.failures = WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : requests;
    return m;
}

void print(const char* name, const Measurement& library, const Measurement& curl, bool throughput)
{
    auto rate = [&](const Measurement& m) {
        return throughput ? m.bytes / m.seconds / 1e6 : m.requests / m.seconds;
    };
    auto cpuPerRequest = [](const Measurement& m) { return m.cpuSeconds / m.requests * 1e6; };
    std::printf("%-28s %12.1f %-5s %10.1f | curl %12.1f %-5s %10.1f | ratio %5.2f%s\n", name, rate(library),
        throughput ? "MB/s" : "req/s", cpuPerRequest(library), rate(curl), throughput ? "MB/s" : "req/s",
        cpuPerRequest(curl), rate(library) / rate(curl),
        library.failures || curl.failures ? "  (FAILURES)" : "");
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    log4cplus::Initializer logging;
    log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("HttpClient")).setLogLevel(log4cplus::OFF_LOG_LEVEL);
    const bool quick = app.arguments().contains("--quick");
    const int bigRounds = quick ? 2 : 5;

    NginxServer nginx;
    NginxServer::Options serverOptions;
    serverOptions.workers = 1;
    serverOptions.accessLog = false;
    if (!nginx.start(serverOptions)) {
        std::cerr << "trel-bench: could not start nginx: " << nginx.error().toStdString() << "\n";
        return 1;
    }
    QTemporaryDir scratch;
    const QByteArray upload(10 * 1024 * 1024, 'u');
    const QString uploadPath = scratch.path() + "/upload.bin";
    {
        QFile file(uploadPath);
        file.open(QIODevice::WriteOnly);
        file.write(upload);
    }

    HttpClientOptions options;
    options.setReadSizeLimit(-1);
    options.setVerifyPeer(false);

    std::printf("%-28s %18s %10s | %23s %10s\n", "case (nginx on loopback)", "library", "CPU us/req", "curl",
        "CPU us/req");

    HttpClient client;
    const TrelUrl uploadUrl = TrelUrl::fromEncoded(nginx.url("/upload"));
    std::vector<std::thread> producers;
    Measurement stream = runClient(client, bigRounds, 1, [&](HttpClient& c, HttpClient::Callback cb) {
        auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
        producers.emplace_back([queue, &upload] {
            for (int at = 0; at < upload.size(); at += 65536) {
                queue->append(upload.mid(at, 65536));
            }
            queue->close();
        });
        return c.postStream(uploadUrl, queue, options, cb);
    });
    for (auto& producer : producers) {
        producer.join();
    }
    stream.bytes = bigRounds * qint64(upload.size());
    Measurement streamCurl;
    for (int i = 0; i < bigRounds; ++i) {
        const Measurement one
            = runCurl({ "-s", "-X", "POST", "-T", "-", nginx.url("/upload"), "-o", "/dev/null" }, 1,
                upload.size(), uploadPath);
        streamCurl.seconds += one.seconds;
        streamCurl.cpuSeconds += one.cpuSeconds;
        streamCurl.requests += 1;
        streamCurl.bytes += one.bytes;
        streamCurl.failures += one.failures;
    }
    print("10 MiB postStream h1", stream, streamCurl, true);
    return 0;
}
