// trel-fetch end to end: the program is run as a user would run it, against the
// scripted loopback server (which records what arrived), against nginx (large
// bodies, long lists) and against nghttpd (HTTP/2, TLS and push). Each option
// is checked by what it changes on the wire, on standard output, in files or in
// the exit code.

#include "LocalServers.h"
#include "LoopbackServer.h"
#include "TrelFetchSupport.h"

#include <gtest/gtest.h>

#include <memory>

#include <trel/Version.h>

#include <QJsonArray>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>

#include <csignal>

#include <netinet/in.h>
#include <sys/socket.h>

namespace {

using trel::test::FetchRun;
using trel::test::filesIn;
using trel::test::LoopbackServer;
using trel::test::NghttpdServer;
using trel::test::NginxServer;
using trel::test::readFile;
using trel::test::RecordedRequest;
using trel::test::runFetch;
using trel::test::ScriptedResponse;
using trel::test::writeFile;

// Routes the default server does not have: slow answers, a cacheable one,
// chunked ones without a length, and one that never answers.
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
    if (path == "/cookies") {
        return ScriptedResponse::ok("two cookies\n")
            .addHeader("Set-Cookie", "a=1")
            .addHeader("Set-Cookie", "b=2");
    }
    if (path == "/stall") {
        return ScriptedResponse::withFault(ScriptedResponse::Fault::Stall);
    }
    if (path == "/reset") {
        ScriptedResponse response = ScriptedResponse::ok(QByteArray(100000, 'r'));
        response.fault = ScriptedResponse::Fault::ResetAfter;
        response.cutAt = 20000;
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

QString url(const QByteArray& path)
{
    return QString::fromLatin1(ServerEnvironment::server().url(path));
}

// 'a'..'z' repeated, as the loopback server's /bytes/<n> sends it.
QByteArray patternBytes(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>('a' + i % 26);
    }
    return bytes;
}

// A port on which nothing listens: connections are refused.
QString closedPortUrl()
{
    return QString("http://127.0.0.1:%1/").arg(trel::test::freeLoopbackPort());
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
// Output: standard output, -o, -O, --output-dir, --create-dirs, --clobber, --save-errors

TEST_F(TrelFetch, BodyGoesToStandardOutputByDefault)
{
    const FetchRun run = runFetch({ url("/bytes/100") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_EQ(run.out, patternBytes(100));
    EXPECT_TRUE(run.err.isEmpty()) << run.err.constData();
}

TEST_F(TrelFetch, SeveralBodiesFollowEachOtherInOrder)
{
    const FetchRun run = runFetch({ url("/bytes/5"), url("/echo"), url("/bytes/3") });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out, patternBytes(5) + patternBytes(3)); // /echo of a GET has an empty body
}

TEST_F(TrelFetch, OutputAndRemoteNameBelongToTheUrlsInOrder)
{
    QTemporaryDir dir;
    const FetchRun run = runFetch({ "--output-dir", dir.path(), "-o", "first.bin", url("/bytes/10"), "-O",
        url("/files/second.txt"), url("/bytes/4") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_EQ(readFile(dir.filePath("first.bin")), patternBytes(10));
    EXPECT_EQ(readFile(dir.filePath("second.txt")), "ok");
    EXPECT_EQ(run.out, patternBytes(4)); // the third URL has no -o: standard output
    EXPECT_EQ(filesIn(dir.path()), (QStringList { "first.bin", "second.txt" }));
}

TEST_F(TrelFetch, DashAsOutputIsStandardOutput)
{
    QTemporaryDir dir;
    const FetchRun run = runFetch({ "-o", "-", url("/bytes/3"), "-o", dir.filePath("b"), url("/bytes/4") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_EQ(run.out, "abc");
    EXPECT_EQ(readFile(dir.filePath("b")), "abcd");
}

// As with curl, a reader that goes away is a write error (23), not a crash.
TEST_F(TrelFetch, AClosedStandardOutputIsAWriteError)
{
    QProcess shell;
    shell.start("bash",
        { "-c", "set -o pipefail; \"$0\" -s \"$1\" | head -c 10 >/dev/null", TREL_FETCH_PATH,
            url("/bytes/20000000") });
    ASSERT_TRUE(shell.waitForFinished(60000));
    EXPECT_EQ(shell.exitCode(), 23) << shell.readAllStandardError().constData();
}

TEST_F(TrelFetch, RemoteNameAllSavesEveryBody)
{
    QTemporaryDir dir;
    const FetchRun run
        = runFetch({ "--remote-name-all", "--output-dir", dir.path(), url("/a/one"), url("/b/two") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_EQ(filesIn(dir.path()), (QStringList { "one", "two" }));
    EXPECT_TRUE(run.out.isEmpty());
}

TEST_F(TrelFetch, MissingDirectoriesAreCreatedOnlyWithCreateDirs)
{
    QTemporaryDir dir;
    const QString nested = dir.filePath("x/y/out.bin");
    const FetchRun refused = runFetch({ "-o", nested, url("/bytes/10") });
    EXPECT_EQ(refused.exitCode, 23) << refused.err.constData();
    EXPECT_TRUE(refused.err.contains("(23)")) << refused.err.constData();
    EXPECT_FALSE(QFile::exists(nested));

    const FetchRun created = runFetch({ "--create-dirs", "-o", nested, url("/bytes/10") });
    EXPECT_EQ(created.exitCode, 0) << created.err.constData();
    EXPECT_EQ(readFile(nested), patternBytes(10));
}

TEST_F(TrelFetch, OutputIsAFileNeverADirectory)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("file.json");
    EXPECT_EQ(runFetch({ "-o", path, url("/bytes/7") }).exitCode, 0);
    EXPECT_TRUE(QFileInfo(path).isFile());
    EXPECT_EQ(readFile(path), patternBytes(7));
}

TEST_F(TrelFetch, AnExistingFileIsReplacedUnlessNoClobber)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("keep.txt");
    ASSERT_TRUE(writeFile(path, "precious"));
    const FetchRun replaced = runFetch({ "-o", path, url("/bytes/10") });
    EXPECT_EQ(replaced.exitCode, 0) << replaced.err.constData();
    EXPECT_EQ(readFile(path), patternBytes(10));
    EXPECT_EQ(filesIn(dir.path()), QStringList { "keep.txt" });

    ASSERT_TRUE(writeFile(path, "precious"));
    const FetchRun numbered = runFetch({ "--no-clobber", "-o", path, url("/bytes/10") });
    EXPECT_EQ(numbered.exitCode, 0) << numbered.err.constData();
    EXPECT_EQ(readFile(path), "precious");
    EXPECT_EQ(readFile(path + ".1"), patternBytes(10));
    const FetchRun again = runFetch({ "--no-clobber", "-o", path, url("/bytes/3") });
    EXPECT_EQ(again.exitCode, 0) << again.err.constData();
    EXPECT_EQ(readFile(path + ".2"), "abc");
}

// Writing into a device is not replacing a file: curl users throw bodies away
// with -o /dev/null, and no --clobber is needed for that.
TEST_F(TrelFetch, OutputToDevNullNeedsNoClobber)
{
    const FetchRun run
        = runFetch({ "-o", "/dev/null", url("/bytes/10"), "-o", "/dev/null", url("/bytes/20") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_TRUE(run.out.isEmpty());
    EXPECT_EQ(server().requestCount(), 2);
}

TEST_F(TrelFetch, ErrorBodiesAreWrittenUnlessFail)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("error.txt");
    const FetchRun written = runFetch({ "-o", path, url("/status/404") });
    EXPECT_EQ(written.exitCode, 0); // like curl, a 404 is not a failure without -f
    EXPECT_EQ(readFile(path), "status 404");

    const FetchRun held = runFetch({ "-f", "-o", dir.filePath("held.txt"), url("/status/404") });
    EXPECT_EQ(held.exitCode, 22);
    EXPECT_FALSE(QFileInfo::exists(dir.filePath("held.txt")));

    const FetchRun withBody = runFetch({ "--fail-with-body", url("/status/500") });
    EXPECT_EQ(withBody.exitCode, 22);
    EXPECT_EQ(withBody.out, "status 500");

    const FetchRun failed
        = runFetch({ "-f", "--save-errors", "-o", dir.filePath("f.txt"), url("/status/500") });
    EXPECT_EQ(failed.exitCode, 22);
    EXPECT_EQ(readFile(dir.filePath("f.txt")), "status 500");
}

TEST_F(TrelFetch, ABrokenTransferLeavesNoFileBehind)
{
    QTemporaryDir dir;
    const FetchRun run = runFetch({ "--save-errors", "-o", dir.filePath("cut.bin"), url("/reset") });
    EXPECT_EQ(run.exitCode, 56) << run.err.constData();
    EXPECT_TRUE(filesIn(dir.path()).isEmpty()) << filesIn(dir.path()).join(' ').toStdString();
}

// ---------------------------------------------------------------------------
// Size: no limit unless --max-filesize

TEST_F(TrelFetch, BodiesHaveNoSizeLimitByDefault)
{
    const int size = 10 * 1024 * 1024;
    const FetchRun run = runFetch({ url("/bytes/" + QByteArray::number(size)) });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_EQ(run.out.size(), size);
    EXPECT_TRUE(run.out == patternBytes(size));
}

TEST_F(TrelFetch, MaxFilesizeFailsALargerBodyAndKeepsNothing)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("body.bin");
    EXPECT_EQ(runFetch({ "--max-filesize", "1000", "-o", path, url("/bytes/1000") }).exitCode, 0);
    EXPECT_EQ(readFile(path).size(), 1000);
    ASSERT_TRUE(QFile::remove(path));

    const FetchRun announced = runFetch({ "--max-filesize", "999", "-o", path, url("/bytes/1000") });
    EXPECT_EQ(announced.exitCode, 63);
    EXPECT_TRUE(announced.err.contains("--max-filesize 999")) << announced.err.constData();
    EXPECT_TRUE(filesIn(dir.path()).isEmpty()) << filesIn(dir.path()).join(' ').toStdString();

    // Chunked: no length announced, so the limit is found while counting.
    const FetchRun counted = runFetch({ "--max-filesize", "10000", "-o", path, url("/pieces") });
    EXPECT_EQ(counted.exitCode, 63) << counted.err.constData();
    EXPECT_TRUE(filesIn(dir.path()).isEmpty()) << filesIn(dir.path()).join(' ').toStdString();

    const FetchRun toStandardOutput = runFetch({ "--max-filesize", "10", url("/pieces") });
    EXPECT_EQ(toStandardOutput.exitCode, 63);
    EXPECT_LE(toStandardOutput.out.size(), 10);
}

// ---------------------------------------------------------------------------
// Exit codes like curl's

TEST_F(TrelFetch, ExitCodesNameTheFailure)
{
    const QList<QPair<QStringList, int>> cases = {
        { { url("/a") }, 0 },
        { { "http://no-such-host.invalid/" }, 6 },
        { { closedPortUrl() }, 7 },
        { { "-f", url("/status/404") }, 22 },
        { { "-m", "0.3", url("/slow") }, 28 },
        { { "-L", "--max-redirs", "1", url("/redirect/3") }, 47 },
        { { "not a url" }, 3 },
        { { "--cancel-after", "200", url("/slow") }, 42 },
        { { "--frobnicate", url("/a") }, 2 },
    };
    for (const auto& [arguments, code] : cases) {
        const FetchRun run = runFetch(arguments);
        EXPECT_EQ(run.exitCode, code) << arguments.join(' ').toStdString() << ": " << run.err.constData();
        if (code != 0 && code != 2) {
            EXPECT_TRUE(run.err.contains(QString("trel-fetch: (%1) ").arg(code).toUtf8()))
                << run.err.constData();
        }
    }
}

TEST_F(TrelFetch, TheFirstFailureInInputOrderDecides)
{
    const FetchRun sequential = runFetch({ "-f", url("/a"), url("/status/404"), closedPortUrl() });
    EXPECT_EQ(sequential.exitCode, 22) << sequential.err.constData();

    // In parallel the refused connection fails long before the timeout, but
    // the slow URL comes first in the input.
    const FetchRun parallel = runFetch({ "-Z", "-m", "1.5", url("/slow"), closedPortUrl() });
    EXPECT_EQ(parallel.exitCode, 28) << parallel.err.constData();
}

TEST_F(TrelFetch, UsageErrorsExitTwoAndSendNothing)
{
    const QString missing = QTemporaryDir().path() + "/missing";
    const QList<QPair<QStringList, QByteArray>> cases = {
        { { "--frobnicate", url("/") }, "unknown option '--frobnicate'" },
        { { "-j", url("/") }, "unknown option '-j'" },
        { { "-H", "no colon here", url("/") }, "malformed header" },
        { { "-T", missing, url("/echo") }, "cannot read" },
        { {}, "no URL given" },
        { { "-X", "BR EW", url("/") }, "not an HTTP method" },
        { { "-X", "PROP(FIND)", url("/") }, "not an HTTP method" },
        { { "-I", "-d", "x", url("/") }, "-I sends HEAD" },
        { { "--digest", "-u", "a:b", url("/") }, "--digest is not supported" },
        { { "-u", "nopassword", url("/") }, "-u needs USER:PASSWORD" },
        { { "--limit-rate", "fast", url("/") }, "--limit-rate needs a size" },
        { { "-K", missing, url("/") }, "--config: cannot read" },
        { { "-X", "PATCH", "-T", missing, url("/") }, "cannot read" },
        { { "-X", "PUT", "-F", "a=b", url("/") }, "POST requests only" },
        { { "-F", "novalue", url("/") }, "malformed form field" },
        { { "-F", "f=@", url("/") }, "needs a file name" },
        { { "-F", "f=@x;size=3", url("/") }, "unknown attribute 'size=3'" },
        { { "-X", "DELETE", "-T", "-", url("/") }, "-T streams the file with PUT" },
        { { "-T", "-", url("/a"), url("/b") }, "exactly one URL" },
        { { "-d", "x", "-F", "a=b", url("/") }, "choose one" },
        { { "-m", "soon", url("/") }, "--max-time needs a number of seconds" },
        { { "--connect-timeout", "-1", url("/") }, "--connect-timeout needs" },
        { { "--parallel-max", "0", url("/") }, "--parallel-max needs an integer" },
        { { "--max-filesize", "-1", url("/") }, "--max-filesize needs a size" },
        { { "--report=xml", url("/") }, "--report takes text or json" },
        { { "--push", url("/") }, "--push needs --http2" },
        { { "--stream", url("/a"), url("/b") }, "exactly one URL" },
        { { "-o", "a", "-o", "b", url("/a") }, "more -o/-O than URLs" },
        { { "-d", "@-", "-" }, "cannot hold both" },
        { { "-o" }, "-o needs a value" },
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

// ---------------------------------------------------------------------------
// The options people type by reflex, seen on the wire

TEST_F(TrelFetch, CookieJarIsWrittenWithCAndReadWithB)
{
    QTemporaryDir dir;
    const QString jar = dir.filePath("jar.txt");
    EXPECT_EQ(runFetch({ "-c", jar, url("/cookies") }).exitCode, 0);
    QFile written(jar);
    ASSERT_TRUE(written.open(QIODevice::ReadOnly));
    const QByteArray saved = written.readAll();
    EXPECT_TRUE(saved.startsWith("# Netscape HTTP Cookie File\n")) << saved.constData();
    EXPECT_TRUE(saved.contains("\ta\t1\n")) << saved.constData();
    EXPECT_TRUE(saved.contains("\tb\t2\n")) << saved.constData();
    server().clear();
    EXPECT_EQ(runFetch({ "-b", jar, url("/echo") }).exitCode, 0);
    const QByteArray sent = onlyRequest().header("Cookie");
    EXPECT_TRUE(sent == "a=1; b=2" || sent == "b=2; a=1") << sent.constData();
}

TEST_F(TrelFetch, CookieWithAnEqualsSignIsSentAsGivenAndAMissingJarIsEmpty)
{
    EXPECT_EQ(runFetch({ "-b", "theme=dark; lang=en", url("/echo") }).exitCode, 0);
    EXPECT_EQ(onlyRequest().header("Cookie"), "theme=dark; lang=en");
    server().clear();
    QTemporaryDir dir;
    EXPECT_EQ(runFetch({ "-b", dir.filePath("none.txt"), url("/echo") }).exitCode, 0);
    EXPECT_FALSE(onlyRequest().hasHeader("Cookie"));
}

TEST_F(TrelFetch, RequestMethodAndDataGoOnTheWire)
{
    EXPECT_EQ(runFetch({ "-X", "PUT", "-d", "hello", url("/echo") }).exitCode, 0);
    EXPECT_EQ(onlyRequest().method, "PUT");
    EXPECT_EQ(onlyRequest().body, "hello");

    server().clear();
    EXPECT_EQ(runFetch({ "-X", "PROPFIND", "-d", "<propfind/>", url("/echo") }).exitCode, 0);
    EXPECT_EQ(onlyRequest().method, "PROPFIND");
    EXPECT_EQ(onlyRequest().body, "<propfind/>");

    server().clear();
    const FetchRun posted = runFetch({ "-d", "a=1", "--data", "b=2", url("/echo") });
    EXPECT_EQ(posted.exitCode, 0);
    EXPECT_EQ(onlyRequest().method, "POST"); // a body without a method is a POST
    EXPECT_EQ(onlyRequest().body, "a=1&b=2"); // several -d are joined with &, as curl does
    EXPECT_EQ(posted.out, "a=1&b=2"); // echoed to standard output

    for (const QString method : { "PATCH", "DELETE" }) {
        server().clear();
        EXPECT_EQ(runFetch({ "--request", method, "-d", "x", url("/echo") }).exitCode, 0);
        EXPECT_EQ(onlyRequest().method, method.toLatin1());
    }
}

TEST_F(TrelFetch, DataFromAFileAndFromStandardInput)
{
    QTemporaryDir dir;
    const QByteArray content("binary\0body\xff", 12);
    ASSERT_TRUE(writeFile(dir.filePath("body.bin"), content));
    EXPECT_EQ(runFetch({ "-d", "@" + dir.filePath("body.bin"), url("/echo") }).exitCode, 0);
    EXPECT_EQ(onlyRequest().body, content);

    server().clear();
    EXPECT_EQ(runFetch({ "-d", "@-", url("/echo") }, "from standard input").exitCode, 0);
    EXPECT_EQ(onlyRequest().body, "from standard input");
}

TEST_F(TrelFetch, FormFieldsArriveAsMultipartParts)
{
    EXPECT_EQ(runFetch({ "-F", "name=trel", "--form", "kind=a=b", url("/echo") }).exitCode, 0);
    const RecordedRequest request = onlyRequest();
    EXPECT_EQ(request.method, "POST");
    ASSERT_EQ(request.parts.size(), 2);
    EXPECT_EQ(request.parts[0].name, "name");
    EXPECT_EQ(request.parts[0].data, "trel");
    EXPECT_EQ(request.parts[1].name, "kind");
    EXPECT_EQ(request.parts[1].data, "a=b");
}

TEST_F(TrelFetch, FormFileUploadsTheFileAsAFilePart)
{
    QTemporaryDir dir;
    ASSERT_TRUE(writeFile(dir.filePath("upload.txt"), "file for upload\n"));
    EXPECT_EQ(runFetch({ "-F", "doc=@" + dir.filePath("upload.txt"), url("/echo") }).exitCode, 0);
    const RecordedRequest request = onlyRequest();
    EXPECT_EQ(request.method, "POST");
    ASSERT_EQ(request.parts.size(), 1);
    EXPECT_EQ(request.parts[0].name, "doc");
    EXPECT_EQ(request.parts[0].filename, "upload.txt");
    EXPECT_EQ(request.parts[0].contentType, "text/plain"); // typed from the extension, as curl does
    EXPECT_EQ(request.parts[0].data, "file for upload\n");
}

TEST_F(TrelFetch, FormMixesFieldsAndFilesWithNamesAndTypesGiven)
{
    QTemporaryDir dir;
    ASSERT_TRUE(writeFile(dir.filePath("a.json"), "{}\n"));
    ASSERT_TRUE(writeFile(dir.filePath("b.bin"), "bytes"));
    const FetchRun run = runFetch({ "-F", "title=two files", "-F",
        "first=@" + dir.filePath("a.json") + ";type=application/json;filename=data.json", "-F",
        "second=@" + dir.filePath("b.bin"), url("/echo") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    const RecordedRequest request = onlyRequest();
    ASSERT_EQ(request.parts.size(), 3);
    EXPECT_EQ(request.parts[0].name, "title");
    EXPECT_EQ(request.parts[0].data, "two files");
    EXPECT_TRUE(request.parts[0].filename.isEmpty());
    EXPECT_EQ(request.parts[1].filename, "data.json");
    EXPECT_EQ(request.parts[1].contentType, "application/json");
    EXPECT_EQ(request.parts[1].data, "{}\n");
    EXPECT_EQ(request.parts[2].filename, "b.bin");
    EXPECT_EQ(request.parts[2].data, "bytes");
}

TEST_F(TrelFetch, AFormFileThatCannotBeReadExits26AndSendsNothing)
{
    QTemporaryDir dir;
    const FetchRun run = runFetch({ "-F", "a=b", "-F", "f=@" + dir.filePath("missing.bin"), url("/echo") });
    EXPECT_EQ(run.exitCode, 26) << run.err.constData();
    EXPECT_TRUE(run.err.contains("missing.bin")) << run.err.constData();
    EXPECT_EQ(server().requestCount(), 0);
}

TEST_F(TrelFetch, UploadFilePutsTheRawFile)
{
    QTemporaryDir dir;
    const QByteArray content("raw\0file\n", 9);
    ASSERT_TRUE(writeFile(dir.filePath("upload.bin"), content));
    EXPECT_EQ(runFetch({ "-T", dir.filePath("upload.bin"), url("/echo") }).exitCode, 0);
    const RecordedRequest request = onlyRequest();
    EXPECT_EQ(request.method, "PUT");
    EXPECT_EQ(request.body, content);
    // As curl sends a file: its length announced, no form type; standard input goes in chunks.
    EXPECT_FALSE(request.chunked);
    EXPECT_EQ(request.header("Content-Length"), "9");
    EXPECT_FALSE(request.hasHeader("Content-Type"));
    EXPECT_TRUE(request.parts.isEmpty());
}

TEST_F(TrelFetch, UploadFileGoesWholeToEveryUrlAndPostsUnderXPost)
{
    QTemporaryDir dir;
    QByteArray content;
    for (int i = 0; content.size() < 3 * 1024 * 1024; ++i) { // larger than the streamer's queue
        content += QByteArray::number(i) + '\n';
    }
    ASSERT_TRUE(writeFile(dir.filePath("big.txt"), content));
    EXPECT_EQ(runFetch({ "-T", dir.filePath("big.txt"), "-o", "/dev/null", "-o", "/dev/null", url("/echo"),
                           url("/echo") })
                  .exitCode,
        0);
    ASSERT_EQ(server().requestCount(), 2);
    for (const RecordedRequest& request : server().requests()) {
        EXPECT_EQ(request.method, "PUT");
        EXPECT_TRUE(request.body == content);
    }
    server().clear();
    EXPECT_EQ(runFetch({ "-X", "POST", "-T", "-", url("/echo") }, "from standard input").exitCode, 0);
    EXPECT_EQ(onlyRequest().method, "POST");
    EXPECT_EQ(onlyRequest().body, "from standard input");
}

TEST_F(TrelFetch, StreamSendsStandardInputWhole)
{
    QByteArray input;
    for (int i = 0; input.size() < 300000; ++i) {
        input += QByteArray::number(i) + '\n';
    }
    const FetchRun run = runFetch({ "--stream", url("/echo") }, input);
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    const RecordedRequest request = onlyRequest();
    EXPECT_TRUE(request.chunked);
    EXPECT_TRUE(request.body == input);
    EXPECT_TRUE(run.out == input); // echoed back whole
}

TEST_F(TrelFetch, HeadersAndUserAgentAreSent)
{
    EXPECT_EQ(runFetch({ "-H", "X-Trel-Test: yes please", "--header", "Accept: text/plain", "-A", "agent/7",
                           url("/") })
                  .exitCode,
        0);
    EXPECT_EQ(onlyRequest().header("X-Trel-Test"), "yes please");
    EXPECT_EQ(onlyRequest().header("Accept"), "text/plain");
    EXPECT_EQ(onlyRequest().header("User-Agent"), "agent/7");
}

TEST_F(TrelFetch, CompressionIsAskedForOnlyWithCompressed)
{
    EXPECT_EQ(runFetch({ url("/") }).exitCode, 0);
    EXPECT_FALSE(onlyRequest().hasHeader("Accept-Encoding"));

    server().clear();
    const FetchRun compressed = runFetch({ "--compressed", url("/gzip") });
    EXPECT_EQ(compressed.exitCode, 0);
    EXPECT_TRUE(onlyRequest().hasHeader("Accept-Encoding"));
    EXPECT_EQ(compressed.out, QByteArray("hello gzip world").repeated(100)); // written decoded
}

TEST_F(TrelFetch, RedirectsAreFollowedOnlyWithLocation)
{
    const FetchRun stays = runFetch({ "--report=json", url("/redirect/3") });
    EXPECT_EQ(stays.exitCode, 0);
    ASSERT_EQ(stays.reports().size(), 1) << stays.err.constData();
    EXPECT_EQ(stays.reports()[0].value("code").toInt(), 302);
    EXPECT_EQ(server().requestCount(), 1);

    server().clear();
    const FetchRun follows = runFetch({ "-L", url("/redirect/3") });
    EXPECT_EQ(follows.exitCode, 0);
    EXPECT_EQ(follows.out, "done");
    EXPECT_EQ(server().requestCount(), 4);

    const FetchRun tooMany = runFetch({ "-L", "--max-redirs", "2", url("/redirect/3") });
    EXPECT_EQ(tooMany.exitCode, 47);
    EXPECT_TRUE(tooMany.out.isEmpty());
}

TEST_F(TrelFetch, Post302KeepsThePostAfterARedirect)
{
    EXPECT_EQ(runFetch({ "-L", "-d", "x", url("/redirect/1") }).exitCode, 0);
    ASSERT_EQ(server().requests().size(), 2);
    EXPECT_EQ(server().requests()[1].method, "GET");

    server().clear();
    EXPECT_EQ(runFetch({ "-L", "--post302", "-d", "x", url("/redirect/1") }).exitCode, 0);
    ASSERT_EQ(server().requests().size(), 2);
    EXPECT_EQ(server().requests()[1].method, "POST");
}

TEST_F(TrelFetch, MaxTimeTakesFractionsOfASecond)
{
    const FetchRun run = runFetch({ "--report=json", "-m", "0.25", url("/slow") });
    EXPECT_EQ(run.exitCode, 28);
    ASSERT_EQ(run.reports().size(), 1) << run.err.constData();
    EXPECT_EQ(run.reports()[0].value("status").toString(), "Timeout");
    EXPECT_LT(run.reports()[0].value("timings").toObject().value("total_ms").toDouble(), 3000);
    EXPECT_EQ(runFetch({ "-m", "10", url("/delayed") }).exitCode, 0);
}

// A listening socket whose backlog is full: the kernel no longer answers the
// handshake, so a connection attempt hangs until someone gives up.
class UnansweredPort
{
public:
    UnansweredPort()
    {
        listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        ::listen(listener, 0);
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        for (int& filler : fillers) { // fill the backlog
            filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            ::connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        }
    }
    ~UnansweredPort()
    {
        for (const int fd : fillers) {
            ::close(fd);
        }
        ::close(listener);
    }
    UnansweredPort(const UnansweredPort&) = delete;
    UnansweredPort& operator=(const UnansweredPort&) = delete;

    int listener = -1;
    int fillers[4] = { -1, -1, -1, -1 };
    quint16 port = 0;
};

TEST_F(TrelFetch, ConnectTimeoutGivesUpOnAnUnansweredServer)
{
    const UnansweredPort unanswered;
    const QString target = QString("http://127.0.0.1:%1/").arg(unanswered.port);
    const FetchRun run = runFetch({ "--connect-timeout", "0.5", target });
    EXPECT_EQ(run.exitCode, 28) << run.err.constData();
    EXPECT_TRUE(run.err.contains("Connection timed out")) << run.err.constData();
    // A server that answers slowly but at once is not a connection timeout.
    EXPECT_EQ(runFetch({ "--connect-timeout", "5", url("/delayed") }).exitCode, 0);
}

TEST_F(TrelFetch, SilentHidesErrorsUnlessShowError)
{
    const FetchRun loud = runFetch({ closedPortUrl() });
    EXPECT_TRUE(loud.err.contains("trel-fetch: (7) Failed to connect")) << loud.err.constData();
    const FetchRun silent = runFetch({ "-s", closedPortUrl() });
    EXPECT_EQ(silent.exitCode, 7);
    EXPECT_TRUE(silent.err.isEmpty()) << silent.err.constData();
    const FetchRun shown = runFetch({ "-sS", closedPortUrl() });
    EXPECT_EQ(shown.exitCode, 7);
    EXPECT_TRUE(shown.err.contains("(7)")) << shown.err.constData();
}

TEST_F(TrelFetch, FailSuppressesTheErrorBody)
{
    const FetchRun plain = runFetch({ url("/status/404") });
    EXPECT_EQ(plain.exitCode, 0);
    EXPECT_EQ(plain.out, "status 404");
    const FetchRun failing = runFetch({ "-f", url("/status/404") });
    EXPECT_EQ(failing.exitCode, 22);
    EXPECT_TRUE(failing.out.isEmpty()) << failing.out.constData();
    EXPECT_TRUE(failing.err.contains("returned error: 404")) << failing.err.constData();
}

TEST_F(TrelFetch, VerboseShowsTheExchangeAsItWasSent)
{
    const FetchRun run = runFetch({ "-v", "-H", "X-Shown: 1", "-H", "X-Shown: 2", url("/bytes/3?q=1") });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out, "abc");
    const QString err = QString::fromUtf8(run.err);
    EXPECT_TRUE(err.contains("> GET /bytes/3?q=1 HTTP/1.1\n")) << run.err.constData();
    EXPECT_TRUE(err.contains(QString("> Host: 127.0.0.1:%1\n").arg(server().port()))) << run.err.constData();
    EXPECT_TRUE(err.contains("> Accept: */*\n")) << run.err.constData();
    EXPECT_TRUE(err.contains("> X-Shown: 1\n> X-Shown: 2\n")) << run.err.constData();
    EXPECT_TRUE(err.contains("* Connected to 127.0.0.1")) << run.err.constData();
    EXPECT_TRUE(err.contains("< HTTP/1.1 200 OK\n")) << run.err.constData();
    EXPECT_TRUE(err.contains("< Content-Length: 3\n")) << run.err.constData();
    EXPECT_FALSE(err.contains("TRACE")) << "the library's log is not part of -v";
    const QList<QByteArray> sent = onlyRequest().raw.split('\n');
    EXPECT_EQ(sent.count("X-Shown: 1\r"), 1);
    EXPECT_EQ(sent.count("X-Shown: 2\r"), 1);
}

TEST_F(TrelFetch, VerboseShowsEachRedirectHop)
{
    const FetchRun run = runFetch({ "-v", "-L", url("/redirect/1") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    const QString err = QString::fromUtf8(run.err);
    const int first = err.indexOf("< HTTP/1.1 302");
    const int second = err.indexOf("> GET /redirect/0 HTTP/1.1");
    EXPECT_GE(first, 0) << run.err.constData();
    EXPECT_GT(second, first) << run.err.constData();
    EXPECT_GT(err.indexOf("< HTTP/1.1 200 OK"), second) << run.err.constData();
}

TEST_F(TrelFetch, VerboseShowsEveryValueOfARepeatedField)
{
    const FetchRun run = runFetch({ "-v", url("/cookies") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_TRUE(run.err.contains("< Set-Cookie: a=1\n< Set-Cookie: b=2\n")) << run.err.constData();
}

TEST_F(TrelFetch, TraceLibraryWritesTheLibraryLog)
{
    const FetchRun traced = runFetch({ "--trace-library", url("/") });
    EXPECT_EQ(traced.exitCode, 0);
    EXPECT_TRUE(traced.err.contains("TRACE Enter ")) << traced.err.constData();
    const FetchRun quiet = runFetch({ url("/") });
    EXPECT_FALSE(quiet.err.contains("TRACE")) << quiet.err.constData();
    EXPECT_FALSE(quiet.err.contains("log4cplus")) << quiet.err.constData();
}

TEST_F(TrelFetch, ParallelOnlyWithZAndBoundedByParallelMax)
{
    QStringList urls;
    for (int i = 0; i < 6; ++i) {
        urls << url("/delayed?i=" + QByteArray::number(i));
    }
    const auto connectionsUsed = [&] {
        QSet<int> connections;
        for (const RecordedRequest& request : server().requests()) {
            connections.insert(request.connectionId);
        }
        return connections.size();
    };
    EXPECT_EQ(runFetch(urls).exitCode, 0);
    EXPECT_EQ(server().requestCount(), 6);
    EXPECT_EQ(connectionsUsed(), 1); // one after the other, as curl does without -Z

    server().clear();
    EXPECT_EQ(runFetch(QStringList { "-Z" } + urls).exitCode, 0);
    EXPECT_EQ(connectionsUsed(), 6);

    server().clear();
    EXPECT_EQ(runFetch(QStringList { "-Z", "--parallel-max", "2" } + urls).exitCode, 0);
    EXPECT_EQ(server().requestCount(), 6);
    EXPECT_LE(connectionsUsed(), 2);
}

// Requests that are never answered stay in flight: the 51st may only start
// when one of the first 50 ends, which here only Ctrl-C does.
TEST_F(TrelFetch, ParallelDefaultsToFiftyAtOnce)
{
    QProcess process;
    QStringList arguments { "-Z", "-s" };
    for (int i = 0; i < 55; ++i) {
        arguments << url("/stall?fifty=" + QByteArray::number(i));
    }
    process.start(QStringLiteral(TREL_FETCH_PATH), arguments);
    ASSERT_TRUE(process.waitForStarted(10000));
    EXPECT_TRUE(server().waitForRequests(50, 20000)) << server().requestCount();
    EXPECT_FALSE(server().waitForRequests(51, 1000)) << server().requestCount();
    ::kill(static_cast<pid_t>(process.processId()), SIGINT);
    ASSERT_TRUE(process.waitForFinished(20000));
    EXPECT_EQ(process.exitCode(), 130);
    EXPECT_EQ(server().requestCount(), 50);
}

TEST_F(TrelFetch, VersionNamesEveryComponent)
{
    const FetchRun run = runFetch({ "-V" });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.startsWith("trel-fetch " TREL_HTTP_CLIENT_VERSION_STRING "\n"))
        << run.out.constData();
    EXPECT_TRUE(run.out.contains("libtrel_http_client " TREL_HTTP_CLIENT_VERSION_STRING))
        << run.out.constData();
    EXPECT_TRUE(run.out.contains("libcurl/")) << run.out.constData();
    EXPECT_TRUE(run.out.contains(QByteArray("Qt ") + qVersion())) << run.out.constData();
}

TEST_F(TrelFetch, HelpShowsOptionsExamplesAndExitCodes)
{
    const FetchRun run = runFetch({ "-h" });
    EXPECT_EQ(run.exitCode, 0);
    for (const char* text : { "Usage: trel-fetch", "-o, --output FILE", "--parallel-max N", "Examples:",
             "trel-fetch -T report.pdf", " 63  a body is larger than --max-filesize", "130  interrupted" }) {
        EXPECT_TRUE(run.out.contains(text)) << text << "\n" << run.out.constData();
    }
}

// The man page is built from the same table as --help: every option --help
// lists is in it, and nothing else.
TEST_F(TrelFetch, ManPageDescribesExactlyTheOptionsOfHelp)
{
    const QString page = QString::fromUtf8(readFile(QStringLiteral(TREL_FETCH_MAN_PAGE)));
    ASSERT_TRUE(page.startsWith(".TH TRELFETCH 1")) << page.left(200).toStdString();
    EXPECT_EQ(page, QString::fromUtf8(runFetch({ "--man" }).out)) << "the installed page is the built one";
    const QString help = QString::fromUtf8(runFetch({ "--help" }).out);
    const QRegularExpression helpOption(
        "^  (?:-[\\w#], |    )--([a-z0-9.-]+)", QRegularExpression::MultilineOption);
    const QRegularExpression manOption(
        "^(?:\\\\fB\\\\-[\\w#]\\\\fR, )?\\\\fB\\\\-\\\\-([a-z0-9.\\\\-]+)\\\\fR",
        QRegularExpression::MultilineOption);
    QStringList inHelp;
    for (auto it = helpOption.globalMatch(help); it.hasNext();) {
        inHelp << it.next().captured(1);
    }
    QStringList inMan;
    for (auto it = manOption.globalMatch(page); it.hasNext();) {
        inMan << it.next().captured(1).replace("\\-", "-");
    }
    EXPECT_GE(inHelp.size(), 40);
    EXPECT_EQ(inMan.join(' ').toStdString(), inHelp.join(' ').toStdString());
    EXPECT_TRUE(page.contains(".SH EXIT STATUS"));
    EXPECT_TRUE(page.contains(".SH EXAMPLES"));
}

// The README's exit-code table is the one --help prints.
TEST_F(TrelFetch, ReadmeExitCodeTableIsTheOneOfHelp)
{
    const QString help = QString::fromUtf8(runFetch({ "--help" }).out);
    const QRegularExpression helpRow(R"(^ +(\d+)  (.+)$)", QRegularExpression::MultilineOption);
    QStringList fromHelp;
    for (auto it = helpRow.globalMatch(help.mid(help.indexOf("Exit codes"))); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        fromHelp << match.captured(1) + " " + match.captured(2);
    }
    const QString readme = QString::fromUtf8(readFile(QStringLiteral(TREL_README)));
    const QString section = readme.mid(readme.indexOf("## trel-fetch"));
    const QRegularExpression readmeRow(R"(^\| (\d+) \| (.+) \|$)", QRegularExpression::MultilineOption);
    QStringList fromReadme;
    for (auto it = readmeRow.globalMatch(section.left(section.indexOf("\n## ", 3))); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        fromReadme << match.captured(1) + " " + QString(match.captured(2)).remove('`');
    }
    EXPECT_GE(fromHelp.size(), 14);
    EXPECT_EQ(fromReadme.join('\n').toStdString(), fromHelp.join('\n').toStdString());
}

// ---------------------------------------------------------------------------
// URL lists

TEST_F(TrelFetch, UrlsFromStandardInputStartAsTheyArrive)
{
    QProcess process;
    process.start(QStringLiteral(TREL_FETCH_PATH), { "-s", "-" });
    ASSERT_TRUE(process.waitForStarted(10000));
    process.write(url("/first").toUtf8() + "\n");
    ASSERT_TRUE(process.waitForBytesWritten(10000));
    // Standard input is still open: the first URL must be fetched anyway.
    EXPECT_TRUE(server().waitForRequests(1, 20000));
    process.write(url("/second").toUtf8() + "\n");
    ASSERT_TRUE(process.waitForBytesWritten(10000));
    EXPECT_TRUE(server().waitForRequests(2, 20000));
    process.closeWriteChannel();
    ASSERT_TRUE(process.waitForFinished(20000));
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_EQ(process.readAllStandardOutput(), "okok");
}

TEST_F(TrelFetch, ABadLineIsOneFailedEntryAndTheOthersRun)
{
    const QByteArray list = url("/one").toUtf8() + "\n\n# a comment\nnot a url\n" + url("/two").toUtf8()
        + "\nftp://127.0.0.1/x\n" + url("/three").toUtf8();
    const FetchRun run = runFetch({ "--report=json", "-" }, list);
    EXPECT_EQ(run.exitCode, 3) << run.err.constData();
    EXPECT_EQ(server().requestCount(), 3);
    const QList<QJsonObject> reports = run.reports();
    ASSERT_EQ(reports.size(), 5) << run.err.constData();
    // Standard error holds JSON Lines only: the results, then the summary.
    EXPECT_EQ(run.err.trimmed().split('\n').size(), 6) << run.err.constData();
    EXPECT_EQ(reports[1].value("index").toInt(), 1);
    EXPECT_EQ(reports[1].value("url").toString(), "not a url");
    EXPECT_EQ(reports[1].value("exit_code").toInt(), 3);
    EXPECT_TRUE(reports[1].value("reason").toString().contains("malformed URL")) << run.err.constData();
    EXPECT_EQ(reports[3].value("exit_code").toInt(), 3);
    for (const int ok : { 0, 2, 4 }) {
        EXPECT_EQ(reports[ok].value("exit_code").toInt(), 0);
        EXPECT_EQ(reports[ok].value("code").toInt(), 200);
    }
}

TEST_F(TrelFetch, UrlFileIsReadToo)
{
    QTemporaryDir dir;
    ASSERT_TRUE(
        writeFile(dir.filePath("urls.txt"), url("/bytes/2").toUtf8() + "\n" + url("/bytes/3").toUtf8()));
    const FetchRun run = runFetch({ "--url-file", dir.filePath("urls.txt"), url("/bytes/1") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_EQ(run.out, "aababc"); // command-line URLs first, then the list
}

TEST_F(TrelFetch, TenThousandUrlsFromStandardInput)
{
    QByteArray list;
    for (int i = 0; i < 10000; ++i) {
        list += url("/n?i=" + QByteArray::number(i)).toUtf8() + '\n';
    }
    const FetchRun run = runFetch({ "-Z", "--report", "-" }, list, 300000);
    EXPECT_EQ(run.exitCode, 0) << run.err.right(2000).constData();
    EXPECT_EQ(run.out, QByteArray("ok").repeated(10000));
    EXPECT_EQ(server().requestCount(), 10000);
    EXPECT_TRUE(run.err.contains("10000 requests, 0 failed")) << run.err.right(500).constData();
}

// ---------------------------------------------------------------------------
// --report

TEST_F(TrelFetch, TextReportHasOneLinePerResultAndASummary)
{
    const FetchRun run = runFetch({ "--report", "-f", url("/bytes/10"), url("/status/404") });
    EXPECT_EQ(run.exitCode, 22);
    const QString err = QString::fromUtf8(run.err);
    EXPECT_TRUE(
        QRegularExpression("^#1 OK 200 10B \\d+ms " + QRegularExpression::escape(url("/bytes/10")) + "$",
            QRegularExpression::MultilineOption)
            .match(err)
            .hasMatch())
        << run.err.constData();
    EXPECT_TRUE(err.contains("#2 OK 404 10B ")) << run.err.constData(); // received, though -f writes none
    EXPECT_TRUE(err.contains("[exit 22: The requested URL returned error: 404]")) << run.err.constData();
    EXPECT_TRUE(err.contains("trel-fetch: 2 requests, 1 failed, 20 bytes in ")) << run.err.constData();
    EXPECT_FALSE(err.contains("trel-fetch: (22)")) << "the report line already names the failure";
    EXPECT_EQ(run.out, patternBytes(10));
}

TEST_F(TrelFetch, JsonReportToAFileCarriesReasonHeadersIndexAndTimings)
{
    QTemporaryDir dir;
    const QString reportPath = dir.filePath("report.jsonl");
    const FetchRun run = runFetch(
        { "--report=json", "--report-file", reportPath, "-L", url("/redirect/2"), closedPortUrl() });
    EXPECT_EQ(run.exitCode, 7);
    EXPECT_EQ(run.out, "done");
    const QList<QByteArray> lines = readFile(reportPath).trimmed().split('\n');
    ASSERT_EQ(lines.size(), 3) << readFile(reportPath).constData();
    const QJsonObject redirected = QJsonDocument::fromJson(lines[0]).object();
    EXPECT_EQ(redirected.value("kind").toString(), "result");
    EXPECT_EQ(redirected.value("index").toInt(), 0);
    EXPECT_EQ(redirected.value("status").toString(), "OK");
    EXPECT_EQ(redirected.value("code").toInt(), 200);
    EXPECT_EQ(redirected.value("url").toString(), url("/redirect/2"));
    EXPECT_EQ(redirected.value("effective_url").toString(), url("/redirect/0"));
    EXPECT_EQ(redirected.value("bytes").toInt(), 4);
    EXPECT_EQ(redirected.value("headers").toObject().value("Content-Length").toString(), "4");
    EXPECT_GE(redirected.value("timings").toObject().value("total_ms").toDouble(), 0);
    EXPECT_GE(redirected.value("timings").toObject().value("first_byte_ms").toDouble(), 0);
    const QJsonObject refused = QJsonDocument::fromJson(lines[1]).object();
    EXPECT_EQ(refused.value("index").toInt(), 1);
    EXPECT_EQ(refused.value("status").toString(), "ConnectError");
    EXPECT_EQ(refused.value("exit_code").toInt(), 7);
    EXPECT_TRUE(refused.value("reason").toString().startsWith("Failed to connect")) << lines[1].constData();
    const QJsonObject summary = QJsonDocument::fromJson(lines[2]).object();
    EXPECT_EQ(summary.value("kind").toString(), "summary");
    EXPECT_EQ(summary.value("requests").toInt(), 2);
    EXPECT_EQ(summary.value("failed").toInt(), 1);
}

// ---------------------------------------------------------------------------
// The tool's own extras

TEST_F(TrelFetch, CancelAfterEndsARequest)
{
    const FetchRun run
        = runFetch({ "-Z", "--report=json", "--cancel-after", "200", url("/slow"), url("/a") });
    EXPECT_EQ(run.exitCode, 42) << run.err.constData();
    ASSERT_EQ(run.reports().size(), 2);
    for (const QJsonObject& report : run.reports()) {
        const bool slow = report.value("url").toString() == url("/slow");
        EXPECT_EQ(report.value("cancelled").toBool(), slow);
        EXPECT_EQ(report.value("exit_code").toInt(), slow ? 42 : 0);
    }
}

TEST_F(TrelFetch, LaterRoundsAreServedFromTheCache)
{
    const FetchRun run = runFetch({ "--report=json", "--cache-size", "100000", "--repeat", "3",
        url("/cacheable/1"), url("/cacheable/2") });
    EXPECT_EQ(run.exitCode, 0);
    ASSERT_EQ(run.reports().size(), 6);
    for (const QJsonObject& report : run.reports()) {
        EXPECT_EQ(report.value("cached").toBool(), report.value("round").toInt() > 1);
    }
    EXPECT_EQ(server().requestCount(), 2);
    EXPECT_EQ(run.out, ("cached body /cacheable/1cached body /cacheable/2" + QByteArray()).repeated(3));

    server().clear();
    EXPECT_EQ(runFetch({ "--repeat", "2", url("/cacheable/1") }).exitCode, 0);
    EXPECT_EQ(server().requestCount(), 2); // no cache without --cache-size
}

// ---------------------------------------------------------------------------
// nginx: large bodies in bounded memory, long lists

class TrelFetchNginx : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        nginx = std::make_unique<NginxServer>();
        NginxServer::Options options;
        options.workerConnections = 256; // a small server: a client must not open thousands of connections
        if (!nginx->start(options)) {
            startError = nginx->error();
        }
    }
    static void TearDownTestSuite() { nginx.reset(); }
    void SetUp() override { ASSERT_TRUE(startError.isEmpty()) << startError.toStdString(); }
    static QString url(const QByteArray& path) { return QString::fromLatin1(nginx->url(path)); }

    static std::unique_ptr<NginxServer> nginx;
    static QString startError;
};

std::unique_ptr<NginxServer> TrelFetchNginx::nginx;
QString TrelFetchNginx::startError;

constexpr qint64 kLargeBody = 256LL * 1024 * 1024;
constexpr long kPeakRssBoundKb = 48 * 1024;

// A sparse file: 256 MB served without 256 MB on disk or in the repository.
bool createSparseFile(const QString& path, qint64 size)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.resize(size);
}

TEST_F(TrelFetchNginx, A256MegabyteDownloadStaysUnder48MegabytesOfMemory)
{
    ASSERT_TRUE(createSparseFile(nginx->root() + "/files/large.bin", kLargeBody));
    QTemporaryDir dir;
    const QString saved = dir.filePath("large.bin");
    const trel::test::MeasuredRun toFile = trel::test::runMeasured(
        { "-s", "-o", saved, url("/files/large.bin") }, dir.filePath("out"), dir.filePath("err"));
    EXPECT_EQ(toFile.exitCode, 0) << readFile(dir.filePath("err")).constData();
    EXPECT_EQ(QFileInfo(saved).size(), kLargeBody);
    EXPECT_GT(toFile.peakRssKb, 0);
    EXPECT_LT(toFile.peakRssKb, kPeakRssBoundKb);
    std::printf("peak RSS of the 256 MB download to a file: %ld kB\n", toFile.peakRssKb);
    ASSERT_TRUE(QFile::remove(saved));

    const trel::test::MeasuredRun toStandardOutput = trel::test::runMeasured(
        { "--report=json", url("/files/large.bin") }, "/dev/null", dir.filePath("err"));
    EXPECT_EQ(toStandardOutput.exitCode, 0);
    EXPECT_TRUE(readFile(dir.filePath("err")).contains("\"bytes\":268435456"))
        << readFile(dir.filePath("err")).constData();
    EXPECT_LT(toStandardOutput.peakRssKb, kPeakRssBoundKb);
    std::printf("peak RSS of the 256 MB download to standard output: %ld kB\n", toStandardOutput.peakRssKb);
    QFile::remove(nginx->root() + "/files/large.bin");
}

TEST_F(TrelFetchNginx, ThreeThousandUrlsFromStandardInputAllSucceed)
{
    nginx->writeFile("files/item.txt", "item\n");
    QByteArray list;
    for (int i = 0; i < 3000; ++i) {
        list += url("/files/item.txt?n=" + QByteArray::number(i)).toUtf8() + '\n';
    }
    const FetchRun run = runFetch({ "-Z", "-f", "--report", "-" }, list, 300000);
    EXPECT_EQ(run.exitCode, 0) << run.err.right(2000).constData();
    EXPECT_EQ(run.out, QByteArray("item\n").repeated(3000));
    EXPECT_TRUE(run.err.contains("3000 requests, 0 failed")) << run.err.right(500).constData();
}

TEST_F(TrelFetchNginx, TlsSpokenToAPlainPortExitsWithTheTlsCode)
{
    const FetchRun run = runFetch({ "https://127.0.0.1:" + QString::number(nginx->port()) + "/" });
    EXPECT_EQ(run.exitCode, 35) << run.err.constData();
    EXPECT_TRUE(run.err.contains("trel-fetch: (35) ")) << run.err.constData();
}

TEST_F(TrelFetchNginx, RemoteNamesAndErrorsAgainstARealServer)
{
    nginx->writeFile("files/page.html", "<p>page</p>\n");
    QTemporaryDir dir;
    const FetchRun run = runFetch({ "-f", "--output-dir", dir.path(), "-O", url("/files/page.html"), "-O",
        url("/files/missing.html") });
    EXPECT_EQ(run.exitCode, 22) << run.err.constData();
    EXPECT_EQ(filesIn(dir.path()), QStringList { "page.html" });
    EXPECT_EQ(readFile(dir.filePath("page.html")), "<p>page</p>\n");
}

// ---------------------------------------------------------------------------
// nghttpd: HTTP/2, TLS and push

class TrelFetchHttp2 : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        nghttpd = std::make_unique<NghttpdServer>();
        NghttpdServer::Options options;
        options.pushes = QStringList { "/index.html=/style.css" };
        options.verbose = true;
        if (!nghttpd->start(options)) {
            startError = nghttpd->error();
        }
    }
    static void TearDownTestSuite() { nghttpd.reset(); }
    void SetUp() override { ASSERT_TRUE(startError.isEmpty()) << startError.toStdString(); }
    static QString url(const QByteArray& path) { return QString::fromLatin1(nghttpd->url(path)); }

    static std::unique_ptr<NghttpdServer> nghttpd;
    static QString startError;
};

std::unique_ptr<NghttpdServer> TrelFetchHttp2::nghttpd;
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

TEST_F(TrelFetchHttp2, ParallelRequestsShareOneConnectionAndWriteTheirBodies)
{
    nghttpd->writeFile("h2.txt", "over h2\n");
    QStringList urls;
    for (int i = 0; i < 10; ++i) {
        urls << url("/h2.txt?shared=" + QByteArray::number(i));
    }
    const FetchRun run = runFetch(QStringList { "--http2", "-k", "-Z" } + urls);
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_EQ(run.out, QByteArray("over h2\n").repeated(10));
    EXPECT_EQ(sessionsThatReceived(nghttpd->log(), "/h2.txt?shared=").size(), 1)
        << nghttpd->log().toStdString();
}

TEST_F(TrelFetchHttp2, CertificateIsVerifiedUnlessInsecure)
{
    const FetchRun verified = runFetch({ "--http2", url("/index.html") });
    EXPECT_EQ(verified.exitCode, 60) << verified.err.constData(); // curl's code for an unverified certificate
    EXPECT_TRUE(verified.err.contains("(60) SSL certificate problem")) << verified.err.constData();
    EXPECT_EQ(runFetch({ "--http2", "--insecure", url("/index.html") }).exitCode, 0);
}

TEST_F(TrelFetchHttp2, VerboseAndSavedFilesOverHttp2)
{
    nghttpd->writeFile("saved.txt", "saved over h2\n");
    QTemporaryDir dir;
    const FetchRun run
        = runFetch({ "--http2", "-k", "-v", "--output-dir", dir.path(), "-O", url("/saved.txt") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_EQ(readFile(dir.filePath("saved.txt")), "saved over h2\n");
    EXPECT_TRUE(run.err.contains("> GET /saved.txt HTTP/2\n")) << run.err.constData();
    EXPECT_TRUE(run.err.contains("< HTTP/2 200 \n"))
        << run.err.constData(); // libcurl writes the status line so
}

TEST_F(TrelFetchHttp2, PushedResponsesAreReported)
{
    const FetchRun run = runFetch({ "--http2", "-k", "--push", "--report=json", url("/index.html") });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    const QList<QJsonObject> reports = run.reports();
    ASSERT_EQ(reports.size(), 2) << run.err.constData();
    const QJsonObject pushed = reports[0].value("kind") == "push" ? reports[0] : reports[1];
    EXPECT_EQ(pushed.value("kind").toString(), "push");
    EXPECT_EQ(pushed.value("effective_url").toString(), url("/style.css"));
    EXPECT_EQ(pushed.value("bytes").toInt(), QByteArray("body{}").size());
    EXPECT_TRUE(run.err.contains("\"pushed\":1")) << run.err.constData();

    const FetchRun withoutPush = runFetch({ "--http2", "-k", "--report=json", url("/index.html") });
    EXPECT_EQ(withoutPush.reports().size(), 1) << withoutPush.err.constData();
}

} // namespace
