// Times the library through HttpClient against nginx on loopback, and curl
// doing the same work, and prints requests per second, MB/s and CPU time per
// request for both. Usage: trel-bench [--quick]

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

QString writeConfig(const QTemporaryDir& dir, const QString& name, const QByteArray& url, int count)
{
    const QString path = dir.path() + "/" + name;
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    for (int i = 0; i < count; ++i) {
        file.write("url = \"" + url + "\"\noutput = \"/dev/null\"\n");
    }
    return path;
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
    const int sequential = quick ? 500 : 5000;
    const int parallel = quick ? 2000 : 20000;
    const int bigRounds = quick ? 2 : 5;

    NginxServer nginx;
    NginxServer::Options serverOptions;
    serverOptions.http2Tls = true;
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

    for (const bool h2 : { false, true }) {
        const QByteArray url = h2 ? nginx.tlsUrl("/files/1k") : nginx.url("/files/1k");
        const QStringList curlBase = h2 ? QStringList { "-s", "-k", "--http2" } : QStringList { "-s" };
        HttpClient client(nullptr, h2 ? HttpClient::Http2 : HttpClient::Http1);
        const TrelUrl target = TrelUrl::fromEncoded(url);
        auto get = [&](HttpClient& c, HttpClient::Callback cb) { return c.get(target, options, cb); };
        runClient(client, 50, 1, get); // warm the connection
        const Measurement seq = runClient(client, sequential, 1, get);
        const Measurement seqCurl
            = runCurl(curlBase + QStringList { "-K", writeConfig(scratch, "seq", url, sequential) },
                sequential, sequential * 1024LL);
        print(h2 ? "1 KiB GET sequential h2 tls" : "1 KiB GET sequential h1", seq, seqCurl, false);
        const Measurement par = runClient(client, parallel, 50, get);
        const Measurement parCurl = runCurl(curlBase
                + QStringList { "-Z", "--parallel-max", "50", "-K",
                    writeConfig(scratch, "par", url, parallel) },
            parallel, parallel * 1024LL);
        print(h2 ? "1 KiB GET 50 in flight h2 tls" : "1 KiB GET 50 in flight h1", par, parCurl, false);
    }

    HttpClient client;
    const TrelUrl big = TrelUrl::fromEncoded(nginx.url("/files/10m"));
    const Measurement download = runClient(client, bigRounds, 1,
        [&](HttpClient& c, HttpClient::Callback cb) { return c.get(big, options, cb); });
    const Measurement downloadCurl
        = runCurl(QStringList { "-s", "-K", writeConfig(scratch, "big", nginx.url("/files/10m"), bigRounds) },
            bigRounds, bigRounds * 10485760LL);
    print("10 MiB download h1", download, downloadCurl, true);
    // The same again in a process that has already held such bodies: the first
    // ones pay a page fault for every 4 KiB of fresh memory, until the C library
    // keeps blocks of this size on its heap and reuses them. curl writes to
    // /dev/null and never holds a body, so its figure is the same for both.
    const Measurement warmDownload = runClient(client, bigRounds, 1,
        [&](HttpClient& c, HttpClient::Callback cb) { return c.get(big, options, cb); });
    print("10 MiB download h1, warm", warmDownload, downloadCurl, true);

    const TrelUrl uploadUrl = TrelUrl::fromEncoded(nginx.url("/upload"));
    Measurement post = runClient(client, bigRounds, 1,
        [&](HttpClient& c, HttpClient::Callback cb) { return c.post(uploadUrl, upload, options, cb); });
    post.bytes = bigRounds * qint64(upload.size());
    QStringList postArgs { "-s" };
    for (int i = 0; i < bigRounds; ++i) {
        postArgs << "--data-binary"
                 << "@" + uploadPath << nginx.url("/upload") << "-o"
                 << "/dev/null";
        if (i + 1 < bigRounds) {
            postArgs << "--next";
        }
    }
    print("10 MiB post h1", post, runCurl(postArgs, bigRounds, bigRounds * qint64(upload.size())), true);

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
