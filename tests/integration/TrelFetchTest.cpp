// trel-fetch end to end: the program is run as a user would run it, against the
// scripted loopback server (which records what arrived) and against nghttpd for
// HTTP/2, TLS and push. Each option is checked by what it changes on the wire
// or in the output; exit codes and the JSON records are asserted.

#include "LocalServers.h"
#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>

#include <mutex>
#include <vector>

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using trel::test::LoopbackServer;
using trel::test::NghttpdServer;
using trel::test::RecordedRequest;
using trel::test::ScriptedResponse;

// Routes the default server does not have: a slow answer, a cacheable one and
// a chunked one that arrives in pieces over time.
ScriptedResponse routes(const RecordedRequest& request)
{
    const QByteArray path = request.target.split('?').first();
    if (path == "/slow") {
        ScriptedResponse response = ScriptedResponse::ok("late");
        response.delayMs = 3000;
        return response;
    }
    if (path == "/delayed") {
        ScriptedResponse response = ScriptedResponse::ok("delayed");
        response.delayMs = 300;
        return response;
    }
    if (path.startsWith("/cacheable/")) {
        return ScriptedResponse::ok("cached body " + path).addHeader("Cache-Control", "max-age=60");
    }
    if (path == "/pieces") {
        ScriptedResponse response = ScriptedResponse::ok(QByteArray(40000, 'p'));
        response.chunked = true;
        response.chunkSize = 4000;
        return response;
    }
    return LoopbackServer::defaultRoutes(request);
}

class ServerEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        ASSERT_TRUE(server().start());
        server().setHandler(routes);
    }
    void TearDown() override { server().stop(); }
    static LoopbackServer& server()
    {
        static LoopbackServer instance;
        return instance;
    }
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new ServerEnvironment);

struct FetchRun
{
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
    QList<QByteArray> lines() const
    {
        QList<QByteArray> all = out.split('\n');
        all.removeAll(QByteArray());
        return all;
    }
};

FetchRun runFetch(const QStringList& arguments, const QByteArray& input = {}, int timeoutMs = 60000)
{
    QProcess process;
    process.start(QStringLiteral(TREL_FETCH_PATH), arguments);
    FetchRun run;
    if (!process.waitForStarted(10000)) {
        run.err = "could not start trel-fetch";
        return run;
    }
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(5000);
        run.err = "trel-fetch did not finish in time";
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

QString url(const QByteArray& path)
{
    return QString::fromLatin1(ServerEnvironment::server().url(path));
}

// "OK 200 10B 3ms http://..." split into its fields.
struct Line
{
    QString status;
    int code = 0;
    qint64 bytes = -1;
    QString effectiveUrl;
    QString tags;
};

Line parse(const QByteArray& text)
{
    static const QRegularExpression pattern(R"(^(\w+) (-?\d+) (\d+)B (\d+)ms (\S*)(?: \[(.*)\])?$)");
    const QRegularExpressionMatch match = pattern.match(QString::fromUtf8(text));
    if (!match.hasMatch()) {
        ADD_FAILURE() << "unexpected line: " << text.constData();
        return {};
    }
    return { match.captured(1), match.captured(2).toInt(), match.captured(3).toLongLong(), match.captured(5),
        match.captured(6) };
}

class TrelFetch : public ::testing::Test
{
protected:
    void SetUp() override { server().clear(); }
    static LoopbackServer& server() { return ServerEnvironment::server(); }
    RecordedRequest onlyRequest() const
    {
        const auto requests = server().requests();
        EXPECT_EQ(requests.size(), 1);
        return requests.isEmpty() ? RecordedRequest() : requests.first();
    }
};

// ---------------------------------------------------------------------------
// Output and exit status

TEST_F(TrelFetch, PrintsOneLinePerResultAndASummary)
{
    const FetchRun run = runFetch({ url("/bytes/10"), url("/status/404") });
    EXPECT_EQ(run.exitCode, 1) << run.err.constData(); // the 404 is a failure
    ASSERT_EQ(run.lines().size(), 2) << run.out.constData();
    QMap<int, Line> byCode;
    for (const QByteArray& text : run.lines()) {
        const Line line = parse(text);
        byCode.insert(line.code, line);
    }
    EXPECT_EQ(byCode.value(200).status, "OK");
    EXPECT_EQ(byCode.value(200).bytes, 10);
    EXPECT_EQ(byCode.value(200).effectiveUrl, url("/bytes/10"));
    EXPECT_EQ(byCode.value(404).bytes, QByteArray("status 404").size());
    EXPECT_TRUE(run.err.contains("2 requests, 1 failed, 20 bytes in ")) << run.err.constData();
    EXPECT_TRUE(run.err.contains(" requests/s")) << run.err.constData();
    EXPECT_FALSE(run.err.contains('\r')) << "no progress line when standard error is not a terminal";
    EXPECT_EQ(server().requestCount(), 2);
}

TEST_F(TrelFetch, ExitsZeroWhenEverythingSucceeds)
{
    const FetchRun run = runFetch({ url("/a"), url("/b"), url("/c") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_EQ(run.lines().size(), 3);
}

TEST_F(TrelFetch, ExitStatusCountsFailuresUpTo100)
{
    QStringList urls;
    for (int i = 0; i < 3; ++i) {
        urls << url("/status/500?i=" + QByteArray::number(i));
    }
    EXPECT_EQ(runFetch(urls).exitCode, 3);
    for (int i = 3; i < 105; ++i) {
        urls << url("/status/503?i=" + QByteArray::number(i));
    }
    const FetchRun run = runFetch(QStringList { "--parallel", "16" } + urls);
    EXPECT_EQ(run.exitCode, 100);
    EXPECT_TRUE(run.err.contains("105 requests, 105 failed")) << run.err.constData();
}

TEST_F(TrelFetch, JsonPrintsOneObjectPerResult)
{
    const FetchRun run = runFetch({ "--json", url("/redirect/2"), url("/status/500") });
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_EQ(run.lines().size(), 2) << run.out.constData();
    QMap<int, QJsonObject> byCode;
    for (const QByteArray& text : run.lines()) {
        QJsonParseError error {};
        const QJsonDocument document = QJsonDocument::fromJson(text, &error);
        ASSERT_EQ(error.error, QJsonParseError::NoError) << text.constData();
        byCode.insert(document.object().value("code").toInt(), document.object());
    }
    const QJsonObject redirected = byCode.value(200);
    EXPECT_EQ(redirected.value("kind").toString(), "result");
    EXPECT_EQ(redirected.value("status").toString(), "OK");
    EXPECT_EQ(redirected.value("url").toString(), url("/redirect/2"));
    EXPECT_EQ(redirected.value("effective_url").toString(), url("/redirect/0"));
    EXPECT_EQ(redirected.value("bytes").toInt(), 4); // "done"
    EXPECT_EQ(redirected.value("round").toInt(), 1);
    EXPECT_FALSE(redirected.value("cached").toBool());
    EXPECT_FALSE(redirected.value("cancelled").toBool());
    EXPECT_TRUE(redirected.value("ms").isDouble());
    EXPECT_EQ(byCode.value(500).value("status").toString(), "OK");
}

TEST_F(TrelFetch, HelpExitsZero)
{
    const FetchRun run = runFetch({ "--help" });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.contains("--parallel")) << run.out.constData();
    EXPECT_TRUE(run.out.contains("Usage: trel-fetch")) << run.out.constData();
}

// ---------------------------------------------------------------------------
// Bad input: a message and status 2, and nothing is sent

TEST_F(TrelFetch, BadInputExitsTwoWithAMessageAndSendsNothing)
{
    const QString missing = QTemporaryDir().path() + "/missing";
    const QList<QPair<QStringList, QByteArray>> cases = {
        { { "--frobnicate", url("/") }, "frobnicate" },
        { { "--header", "no colon here", url("/") }, "malformed header" },
        { { "--header", ": empty name", url("/") }, "malformed header" },
        { { "--data", "@" + missing, url("/echo") }, "cannot read" },
        { { "--upload-file", missing, url("/echo") }, "cannot read" },
        { { "not a url" }, "invalid URL" },
        { { "ftp://127.0.0.1/file" }, "invalid URL" },
        { { "http://" }, "invalid URL" },
        { {}, "no URL given" },
        { { "--method", "BREW", url("/") }, "unknown method" },
        { { "--method", "GET", "--data", "x", url("/") }, "--data needs" },
        { { "--method", "PUT", "--form", "a=b", url("/") }, "POST requests only" },
        { { "--form", "novalue", url("/") }, "malformed form field" },
        { { "--data", "x", "--form", "a=b", url("/") }, "choose one" },
        { { "--timeout", "soon", url("/") }, "--timeout needs an integer" },
        { { "--parallel", "0", url("/") }, "--parallel needs an integer" },
        { { "--compressed", "--no-compression", url("/") }, "contradict" },
        { { "--push", url("/") }, "--push needs --http2" },
        { { "--stream", url("/a"), url("/b") }, "exactly one URL" },
        { { "-", url("/a") }, "must be the only URL" },
    };
    for (const auto& [arguments, message] : cases) {
        const FetchRun run = runFetch(arguments);
        EXPECT_EQ(run.exitCode, 2) << arguments.join(' ').toStdString();
        EXPECT_TRUE(run.err.contains(message))
            << arguments.join(' ').toStdString() << ": " << run.err.constData();
        EXPECT_TRUE(run.out.isEmpty()) << run.out.constData();
    }
    EXPECT_EQ(server().requestCount(), 0);
}

TEST_F(TrelFetch, InvalidUrlOnStandardInputExitsTwo)
{
    const FetchRun run = runFetch({ "-" }, url("/a").toUtf8() + "\nnot a url\n");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains("invalid URL 'not a url'")) << run.err.constData();
    EXPECT_EQ(server().requestCount(), 0);
}

// ---------------------------------------------------------------------------
// Each option, seen on the wire

TEST_F(TrelFetch, MethodAndDataGoOnTheWire)
{
    EXPECT_EQ(runFetch({ "--method", "PUT", "--data", "hello", url("/echo") }).exitCode, 0);
    EXPECT_EQ(onlyRequest().method, "PUT");
    EXPECT_EQ(onlyRequest().body, "hello");

    server().clear();
    EXPECT_EQ(runFetch({ "--data", "posted", url("/echo") }).exitCode, 0);
    EXPECT_EQ(onlyRequest().method, "POST"); // a body without a method is a POST
    EXPECT_EQ(onlyRequest().body, "posted");

    for (const QString method : { "PATCH", "DELETE" }) {
        server().clear();
        EXPECT_EQ(runFetch({ "--method", method, "--data", "x", url("/echo") }).exitCode, 0);
        EXPECT_EQ(onlyRequest().method, method.toLatin1());
    }
    server().clear();
    // A HEAD response's header lines are its body.
    QTemporaryDir dir;
    const FetchRun head = runFetch({ "--method", "HEAD", "--output", dir.path(), url("/bytes/100") });
    EXPECT_EQ(head.exitCode, 0);
    EXPECT_EQ(onlyRequest().method, "HEAD");
    QFile saved(dir.filePath("100"));
    ASSERT_TRUE(saved.open(QIODevice::ReadOnly));
    const QByteArray headers = saved.readAll();
    EXPECT_TRUE(headers.startsWith("HTTP/1.1 200")) << headers.constData();
    EXPECT_TRUE(headers.contains("Content-Length: 100")) << headers.constData();
    EXPECT_EQ(parse(head.lines().value(0)).bytes, headers.size());
}

TEST_F(TrelFetch, DataFromAFile)
{
    QTemporaryDir dir;
    QFile file(dir.filePath("body.bin"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    const QByteArray content("binary\0body\xff", 12);
    file.write(content);
    file.close();
    EXPECT_EQ(runFetch({ "--data", "@" + file.fileName(), url("/echo") }).exitCode, 0);
    EXPECT_EQ(onlyRequest().body, content);
}

TEST_F(TrelFetch, FormFieldsArriveAsMultipartParts)
{
    EXPECT_EQ(runFetch({ "--form", "name=trel", "--form", "kind=a=b", url("/echo") }).exitCode, 0);
    const RecordedRequest request = onlyRequest();
    EXPECT_EQ(request.method, "POST");
    ASSERT_EQ(request.parts.size(), 2);
    EXPECT_EQ(request.parts[0].name, "name");
    EXPECT_EQ(request.parts[0].data, "trel");
    EXPECT_EQ(request.parts[1].name, "kind");
    EXPECT_EQ(request.parts[1].data, "a=b");
}

TEST_F(TrelFetch, UploadFileArrivesAsOneFilePart)
{
    QTemporaryDir dir;
    QFile file(dir.filePath("upload.txt"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("file for upload\n");
    file.close();
    EXPECT_EQ(runFetch({ "--upload-file", file.fileName(), url("/echo") }).exitCode, 0);
    const RecordedRequest request = onlyRequest();
    ASSERT_EQ(request.parts.size(), 1);
    EXPECT_EQ(request.parts[0].name, "filename");
    EXPECT_EQ(request.parts[0].data, "file for upload\n");
}

TEST_F(TrelFetch, StreamSendsStandardInputWhole)
{
    QByteArray input;
    for (int i = 0; input.size() < 300000; ++i) {
        input += QByteArray::number(i) + '\n';
    }
    const FetchRun run = runFetch({ "--stream", "--max-size", "1000000", url("/echo") }, input);
    EXPECT_EQ(run.exitCode, 0) << run.out.constData() << run.err.constData();
    const RecordedRequest request = onlyRequest();
    EXPECT_TRUE(request.chunked);
    EXPECT_EQ(request.body.size(), input.size());
    EXPECT_TRUE(request.body == input);
    EXPECT_EQ(parse(run.lines().value(0)).bytes, input.size()); // echoed back
}

TEST_F(TrelFetch, HeadersAreSent)
{
    EXPECT_EQ(runFetch({ "--header", "X-Trel-Test: yes please", "--header", "Accept: text/plain", url("/") })
                  .exitCode,
        0);
    EXPECT_EQ(onlyRequest().header("X-Trel-Test"), "yes please");
    EXPECT_EQ(onlyRequest().header("Accept"), "text/plain");
}

TEST_F(TrelFetch, CompressionIsAskedForUnlessTurnedOff)
{
    const FetchRun compressed = runFetch({ url("/gzip") });
    EXPECT_EQ(compressed.exitCode, 0);
    EXPECT_TRUE(onlyRequest().hasHeader("Accept-Encoding"));
    EXPECT_EQ(parse(compressed.lines().value(0)).bytes, 1600); // decoded

    server().clear();
    EXPECT_EQ(runFetch({ "--compressed", url("/") }).exitCode, 0);
    EXPECT_TRUE(onlyRequest().hasHeader("Accept-Encoding"));

    server().clear();
    EXPECT_EQ(runFetch({ "--no-compression", url("/") }).exitCode, 0);
    EXPECT_FALSE(onlyRequest().hasHeader("Accept-Encoding"));
}

TEST_F(TrelFetch, TimeoutEndsASlowRequest)
{
    const FetchRun run = runFetch({ "--timeout", "200", url("/slow") });
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(parse(run.lines().value(0)).status, "Timeout");
}

TEST_F(TrelFetch, CancelAfterEndsARequestWithErrorMinusOne)
{
    const FetchRun run = runFetch({ "--cancel-after", "200", url("/slow"), url("/a") });
    EXPECT_EQ(run.exitCode, 1) << run.out.constData();
    QStringList cancelled;
    for (const QByteArray& text : run.lines()) {
        const Line line = parse(text);
        if (line.tags.contains("cancelled")) {
            EXPECT_EQ(line.status, "Error");
            EXPECT_EQ(line.code, -1);
            cancelled << line.effectiveUrl;
        } else {
            EXPECT_EQ(line.status, "OK"); // finished before its deadline
        }
    }
    EXPECT_EQ(cancelled, QStringList { url("/slow") });
}

TEST_F(TrelFetch, MaxSizeFailsALargerBody)
{
    EXPECT_EQ(runFetch({ "--max-size", "1000", url("/bytes/1000") }).exitCode, 0);
    const FetchRun run = runFetch({ "--max-size", "999", url("/bytes/1000") });
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(parse(run.lines().value(0)).status, "Error");
}

TEST_F(TrelFetch, MaxRedirsLimitsRedirects)
{
    EXPECT_EQ(parse(runFetch({ url("/redirect/3") }).lines().value(0)).code, 200);
    server().clear();
    const Line none = parse(runFetch({ "--max-redirs", "0", url("/redirect/3") }).lines().value(0));
    EXPECT_EQ(none.code, 302);
    EXPECT_EQ(server().requestCount(), 1);
    const FetchRun tooMany = runFetch({ "--max-redirs", "1", url("/redirect/3") });
    EXPECT_EQ(tooMany.exitCode, 1);
    EXPECT_EQ(parse(tooMany.lines().value(0)).status, "Error");
}

TEST_F(TrelFetch, Post302KeepsThePostAfterARedirect)
{
    EXPECT_EQ(runFetch({ "--data", "x", url("/redirect/1") }).exitCode, 0);
    ASSERT_EQ(server().requests().size(), 2);
    EXPECT_EQ(server().requests()[1].method, "GET");

    server().clear();
    EXPECT_EQ(runFetch({ "--post302", "--data", "x", url("/redirect/1") }).exitCode, 0);
    ASSERT_EQ(server().requests().size(), 2);
    EXPECT_EQ(server().requests()[1].method, "POST");
    EXPECT_EQ(server().requests()[1].body, "x");
}

TEST_F(TrelFetch, ImmediatePrintsEachDeliveryAndTheTotal)
{
    const FetchRun run = runFetch({ "--immediate", url("/pieces") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    qint64 immediateBytes = 0;
    int immediateLines = 0;
    Line final;
    for (const QByteArray& text : run.lines()) {
        const Line line = parse(text);
        if (line.status == "ImmediateRead") {
            ++immediateLines;
            immediateBytes += line.bytes;
        } else {
            final = line;
        }
    }
    EXPECT_GE(immediateLines, 1);
    EXPECT_EQ(final.status, "OK");
    EXPECT_EQ(final.bytes, 40000); // the request's total over all deliveries
    EXPECT_LE(immediateBytes, 40000);
}

TEST_F(TrelFetch, LaterRoundsAreServedFromTheCache)
{
    const FetchRun run
        = runFetch({ "--cache-size", "100000", "--repeat", "3", url("/cacheable/1"), url("/cacheable/2") });
    EXPECT_EQ(run.exitCode, 0);
    ASSERT_EQ(run.lines().size(), 6);
    int fromCache = 0;
    for (const QByteArray& text : run.lines()) {
        const Line line = parse(text);
        fromCache += line.tags.contains("from cache") ? 1 : 0;
        EXPECT_EQ(line.tags.contains("from cache"), !line.tags.contains("round 1")) << text.constData();
    }
    EXPECT_EQ(fromCache, 4);
    EXPECT_EQ(server().requestCount(), 2);
    EXPECT_TRUE(run.err.contains("4 from cache")) << run.err.constData();

    server().clear();
    EXPECT_EQ(runFetch({ "--repeat", "2", url("/cacheable/1") }).exitCode, 0);
    EXPECT_EQ(server().requestCount(), 2); // no cache without --cache-size
}

TEST_F(TrelFetch, ParallelBoundsTheRequestsInFlight)
{
    QStringList urls;
    for (int i = 0; i < 6; ++i) {
        urls << url("/delayed?i=" + QByteArray::number(i));
    }
    EXPECT_EQ(runFetch(QStringList { "--parallel", "2" } + urls).exitCode, 0);
    QSet<int> connections;
    for (const RecordedRequest& request : server().requests()) {
        connections.insert(request.connectionId);
    }
    EXPECT_EQ(server().requestCount(), 6);
    EXPECT_LE(connections.size(), 2); // two at a time reuse two connections

    server().clear();
    EXPECT_EQ(runFetch(urls).exitCode, 0);
    connections.clear();
    for (const RecordedRequest& request : server().requests()) {
        connections.insert(request.connectionId);
    }
    EXPECT_EQ(connections.size(), 6); // all at once need a connection each
}

TEST_F(TrelFetch, OutputSavesEachBody)
{
    QTemporaryDir dir;
    const QString out = dir.filePath("saved");
    const FetchRun run
        = runFetch({ "--output", out, url("/bytes/300"), url("/files/a.txt"), url("/other/a.txt") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    QFile bytes(out + "/300");
    ASSERT_TRUE(bytes.open(QIODevice::ReadOnly)) << bytes.fileName().toStdString();
    EXPECT_EQ(bytes.readAll().size(), 300);
    // Two URLs with the same last segment get their list position as a prefix.
    EXPECT_TRUE(QFile::exists(out + "/2-a.txt"));
    EXPECT_TRUE(QFile::exists(out + "/3-a.txt"));
    EXPECT_TRUE(run.out.contains("saved to " + out.toUtf8() + "/300")) << run.out.constData();
}

TEST_F(TrelFetch, VerboseWritesTheLibraryTraceToStandardError)
{
    const FetchRun verbose = runFetch({ "--verbose", url("/") });
    EXPECT_EQ(verbose.exitCode, 0);
    EXPECT_TRUE(verbose.err.contains("TRACE Enter ")) << verbose.err.constData();
    const FetchRun quiet = runFetch({ url("/") });
    EXPECT_FALSE(quiet.err.contains("TRACE")) << quiet.err.constData();
    EXPECT_FALSE(quiet.err.contains("log4cplus")) << quiet.err.constData();
}

TEST_F(TrelFetch, TenThousandUrlsFromStandardInput)
{
    QByteArray list;
    for (int i = 0; i < 10000; ++i) {
        list += url("/n?i=" + QByteArray::number(i)).toUtf8() + '\n';
    }
    const FetchRun run = runFetch({ "--parallel", "64", "-" }, list, 300000);
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_EQ(run.lines().size(), 10000);
    EXPECT_EQ(server().requestCount(), 10000);
    EXPECT_TRUE(run.err.contains("10000 requests, 0 failed")) << run.err.constData();
}

// Runs trel-fetch with standard error on a pseudo-terminal and returns what it
// wrote there; standard output goes to /dev/null.
QByteArray standardErrorOnATerminal(const QStringList& arguments)
{
    // Everything the child needs is prepared before the fork: the server's
    // thread may hold the allocator's lock at that moment.
    std::vector<QByteArray> storage { QByteArray(TREL_FETCH_PATH) };
    for (const QString& argument : arguments) {
        storage.push_back(argument.toLocal8Bit());
    }
    std::vector<char*> argv;
    for (QByteArray& argument : storage) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    int terminal = -1;
    const pid_t child = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child < 0) {
        return "forkpty failed";
    }
    if (child == 0) {
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDOUT_FILENO);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    QByteArray written;
    char buffer[4096];
    for (;;) { // ends when the child exits and the terminal reports EIO
        const ssize_t count = ::read(terminal, buffer, sizeof buffer);
        if (count <= 0) {
            break;
        }
        written.append(buffer, static_cast<int>(count));
    }
    ::close(terminal);
    int status = 0;
    ::waitpid(child, &status, 0);
    return written;
}

TEST_F(TrelFetch, ProgressLineOnlyOnATerminalAndNeverWithJson)
{
    QStringList urls { "--parallel", "1" };
    for (int i = 0; i < 4; ++i) { // 4 x 300 ms, one at a time: longer than the progress interval
        urls << url("/delayed?progress=" + QByteArray::number(i));
    }
    const QByteArray terminal = standardErrorOnATerminal(urls);
    EXPECT_TRUE(terminal.contains("/4 done, ")) << terminal.constData();
    EXPECT_TRUE(terminal.contains("\r")) << terminal.constData();
    EXPECT_TRUE(terminal.contains("4 requests, 0 failed")) << terminal.constData();

    const QByteArray json = standardErrorOnATerminal(QStringList { "--json" } + urls);
    EXPECT_FALSE(json.contains("done, ")) << json.constData();
    EXPECT_TRUE(json.contains("4 requests, 0 failed")) << json.constData();
}

// ---------------------------------------------------------------------------
// HTTP/2, TLS and push against nghttpd

class TrelFetchHttp2 : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        nghttpd = new NghttpdServer;
        NghttpdServer::Options options;
        options.pushes = QStringList { "/index.html=/style.css" };
        options.verbose = true;
        if (!nghttpd->start(options)) {
            startError = nghttpd->error();
        }
    }
    static void TearDownTestSuite()
    {
        delete nghttpd;
        nghttpd = nullptr;
    }
    void SetUp() override { ASSERT_TRUE(startError.isEmpty()) << startError.toStdString(); }
    static QString url(const QByteArray& path) { return QString::fromLatin1(nghttpd->url(path)); }

    static NghttpdServer* nghttpd;
    static QString startError;
};

NghttpdServer* TrelFetchHttp2::nghttpd = nullptr;
QString TrelFetchHttp2::startError;

// nghttpd's frame log names the session of every request it receives.
QSet<QString> sessionsThatReceived(const QString& log, const QString& pathPrefix)
{
    const QRegularExpression received("^\\[id=(\\d+)\\].* :path: " + QRegularExpression::escape(pathPrefix),
        QRegularExpression::MultilineOption);
    QSet<QString> sessions;
    auto matches = received.globalMatch(log);
    while (matches.hasNext()) {
        sessions.insert(matches.next().captured(1));
    }
    return sessions;
}

TEST_F(TrelFetchHttp2, ConcurrentRequestsShareOneConnection)
{
    QStringList urls;
    for (int i = 0; i < 10; ++i) {
        urls << url("/1k?shared=" + QByteArray::number(i));
    }
    const FetchRun run = runFetch(QStringList { "--http2", "--insecure" } + urls);
    EXPECT_EQ(run.exitCode, 0) << run.out.constData() << run.err.constData();
    EXPECT_EQ(run.lines().size(), 10);
    for (const QByteArray& text : run.lines()) {
        EXPECT_EQ(parse(text).bytes, 1024);
    }
    EXPECT_EQ(sessionsThatReceived(nghttpd->log(), "/1k?shared=").size(), 1) << nghttpd->log().toStdString();
}

TEST_F(TrelFetchHttp2, CertificateIsVerifiedUnlessInsecure)
{
    const FetchRun verified = runFetch({ "--http2", url("/index.html") });
    EXPECT_EQ(verified.exitCode, 1);
    EXPECT_NE(parse(verified.lines().value(0)).status, "OK");
    EXPECT_EQ(runFetch({ "--http2", "--insecure", url("/index.html") }).exitCode, 0);
}

TEST_F(TrelFetchHttp2, PushedResponsesArePrinted)
{
    const FetchRun run = runFetch({ "--http2", "--insecure", "--push", url("/index.html") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    ASSERT_EQ(run.lines().size(), 2) << run.out.constData();
    const Line pushed = parse(run.lines().at(0).contains("[push]") ? run.lines().at(0) : run.lines().at(1));
    EXPECT_EQ(pushed.status, "OK");
    EXPECT_EQ(pushed.effectiveUrl, url("/style.css"));
    EXPECT_EQ(pushed.bytes, QByteArray("body{}").size());
    EXPECT_TRUE(run.err.contains("1 pushed")) << run.err.constData();

    const FetchRun withoutPush = runFetch({ "--http2", "--insecure", url("/index.html") });
    EXPECT_EQ(withoutPush.lines().size(), 1) << withoutPush.out.constData();
}

} // namespace
