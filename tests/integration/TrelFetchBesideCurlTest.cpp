// trel-fetch beside the curl tool: both are run with the same arguments on the
// same servers in the same test, each in a directory of its own, and what a
// user sees must be the same: standard output, the files written and the exit
// code, and for requests the bytes that reached the server (header lines in
// any order). Both use the same User-Agent (-A), the one field that differs
// by design.

#include "LocalServers.h"
#include "LoopbackServer.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <memory>

namespace {

using trel::test::LoopbackServer;
using trel::test::NginxServer;
using trel::test::RecordedRequest;
using trel::test::ScriptedResponse;

struct Seen
{
    int exitCode = -1;
    QByteArray out;
    QMap<QString, QByteArray> files; // name -> content, in the run's directory
};

std::ostream& operator<<(std::ostream& stream, const Seen& seen)
{
    stream << "exit " << seen.exitCode << ", stdout '" << seen.out.left(300).constData() << "', files:";
    for (auto it = seen.files.cbegin(); it != seen.files.cend(); ++it) {
        stream << " " << it.key().toStdString() << "='" << it.value().left(100).constData() << "'";
    }
    return stream;
}

// The Date a server stamps on each answer is the only part of a header block
// that two runs a moment apart may not share.
QByteArray withoutDates(QByteArray text)
{
    static const QRegularExpression date("(?im)^date: [^\\r\\n]*");
    return QString::fromLatin1(text).replace(date, "Date: (removed)").toLatin1();
}

bool operator==(const Seen& a, const Seen& b)
{
    return a.exitCode == b.exitCode && withoutDates(a.out) == withoutDates(b.out) && a.files == b.files;
}

// Runs `program` in `directory` (made fresh), with files prepared there first.
Seen runIn(const QString& program, const QStringList& arguments, const QString& directory,
    const QMap<QString, QByteArray>& prepared)
{
    QDir(directory).removeRecursively();
    QDir().mkpath(directory);
    for (auto it = prepared.cbegin(); it != prepared.cend(); ++it) {
        QFile file(directory + "/" + it.key());
        file.open(QIODevice::WriteOnly);
        file.write(it.value());
    }
    QProcess process;
    process.setWorkingDirectory(directory);
    process.start(program, arguments);
    Seen seen;
    if (!process.waitForStarted(10000) || !process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished(5000);
        return seen;
    }
    seen.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    seen.out = process.readAllStandardOutput();
    for (const QString& name : QDir(directory).entryList(QDir::Files | QDir::Hidden)) {
        QFile file(directory + "/" + name);
        file.open(QIODevice::ReadOnly);
        seen.files.insert(name, withoutDates(file.readAll()));
    }
    return seen;
}

// A request as received, its header lines sorted: libcurl places the fields
// an application adds after its own, in an order of the application's.
std::string comparable(const RecordedRequest& request)
{
    const int headEnd = request.raw.indexOf("\r\n\r\n");
    QList<QByteArray> lines = request.raw.left(headEnd).split('\n');
    for (QByteArray& line : lines) {
        line = line.trimmed();
    }
    const QByteArray requestLine = lines.takeFirst();
    std::sort(lines.begin(), lines.end());
    return (requestLine + '\n' + lines.join('\n') + "\n\n" + request.raw.mid(headEnd + 4)).toStdString();
}

ScriptedResponse routes(const RecordedRequest& request)
{
    const QByteArray path = request.target.split('?').first();
    if (path == "/empty") {
        return ScriptedResponse::withFault(ScriptedResponse::Fault::CloseWithoutResponse);
    }
    if (path == "/truncated") {
        ScriptedResponse response = ScriptedResponse::ok(QByteArray(1000, 't'));
        response.fault = ScriptedResponse::Fault::Truncate;
        response.truncateAt = 300;
        return response;
    }
    if (path == "/stall") {
        return ScriptedResponse::withFault(ScriptedResponse::Fault::Stall);
    }
    if (path == "/busy") {
        ScriptedResponse response = ScriptedResponse::ok("busy\n");
        response.status = 503;
        response.reason = "Service Unavailable";
        return response;
    }
    return LoopbackServer::defaultRoutes(request);
}

class TrelFetchBesideCurl : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        nginx = std::make_unique<NginxServer>();
        if (!nginx->start()) {
            startError = nginx->error();
            return;
        }
        for (const char* name : { "f1.txt", "f2.txt", "f3.txt", "a.txt", "b.txt", "f001.txt", "f002.txt" }) {
            nginx->writeFile(QString("files/") + name, QByteArray("body of ") + name + "\n");
        }
        nginx->writeFile("files/a b.txt", "spaced\n");
        nginx->writeFile("files/crlf.txt", "line one\r\nline two\r\n");
        loopback = std::make_unique<LoopbackServer>();
        if (!loopback->start()) {
            startError = "the loopback server did not start";
            return;
        }
        loopback->setHandler(routes);
    }
    static void TearDownTestSuite()
    {
        loopback.reset();
        nginx.reset();
    }
    void SetUp() override
    {
        ASSERT_TRUE(startError.isEmpty()) << startError.toStdString();
        ASSERT_TRUE(work.isValid());
    }

    static QString web(const QByteArray& path) { return QString::fromLatin1(nginx->url(path)); }
    static QString wire(const QByteArray& path) { return QString::fromLatin1(loopback->url(path)); }

    // One tool ("curl" or trel-fetch) with `arguments`, in a directory of its own.
    Seen run(
        const QString& program, const QStringList& arguments, const QMap<QString, QByteArray>& prepared = {})
    {
        const QString directory = work.filePath(program == "curl" ? "curl" : "trel");
        return runIn(program, QStringList { "-s", "-A", "probe" } + arguments, directory, prepared);
    }

    // Both tools with `arguments`; their runs, curl's first.
    std::pair<Seen, Seen> both(const QStringList& arguments, const QMap<QString, QByteArray>& prepared = {})
    {
        return { run("curl", arguments, prepared),
            run(QStringLiteral(TREL_FETCH_PATH), arguments, prepared) };
    }

    // The same outcome from both tools.
    void expectSame(const QStringList& arguments, const QMap<QString, QByteArray>& prepared = {})
    {
        const auto [curl, trel] = both(arguments, prepared);
        EXPECT_EQ(curl, trel) << arguments.join(' ').toStdString() << "\n  curl: " << curl
                              << "\n  trel: " << trel;
    }

    // The same outcome and the same request bytes at the loopback server.
    void expectSameRequest(const QStringList& arguments, const QMap<QString, QByteArray>& prepared = {})
    {
        loopback->clear();
        const Seen curl = run("curl", arguments, prepared);
        const QList<RecordedRequest> curlRequests = loopback->requests();
        loopback->clear();
        const Seen trel = run(QStringLiteral(TREL_FETCH_PATH), arguments, prepared);
        const QList<RecordedRequest> trelRequests = loopback->requests();
        const std::string what = arguments.join(' ').toStdString();
        EXPECT_EQ(curl, trel) << what << "\n  curl: " << curl << "\n  trel: " << trel;
        ASSERT_EQ(curlRequests.size(), trelRequests.size()) << what;
        for (int i = 0; i < curlRequests.size(); ++i) {
            EXPECT_EQ(comparable(curlRequests.at(i)), comparable(trelRequests.at(i))) << what;
        }
    }

    static std::unique_ptr<NginxServer> nginx;
    static std::unique_ptr<LoopbackServer> loopback;
    static QString startError;
    QTemporaryDir work;
};

std::unique_ptr<NginxServer> TrelFetchBesideCurl::nginx;
std::unique_ptr<LoopbackServer> TrelFetchBesideCurl::loopback;
QString TrelFetchBesideCurl::startError;

TEST_F(TrelFetchBesideCurl, OutputReplacesAnExistingFileAndNoClobberNumbers)
{
    expectSame({ "-o", "out.txt", web("/files/f1.txt") }, { { "out.txt", "old" } });
    expectSame({ "--no-clobber", "-o", "out.txt", web("/files/f1.txt") }, { { "out.txt", "old" } });
    expectSame({ "--no-clobber", "-o", "out.txt", web("/files/f1.txt") },
        { { "out.txt", "old" }, { "out.txt.1", "older" } });
}

TEST_F(TrelFetchBesideCurl, ErrorBodiesAreWrittenUnlessFail)
{
    expectSame({ "-o", "err.html", web("/files/missing") });
    expectSame({ web("/files/missing") });
    expectSame({ "-f", "-o", "err.html", web("/files/missing") });
    expectSame({ "--fail-with-body", web("/files/missing") });
}

TEST_F(TrelFetchBesideCurl, RemoteNamesStayEncodedAndSchemeDefaultsToHttp)
{
    expectSame({ "-O", web("/files/a%20b.txt?x=1") });
    expectSame({ "-O", web("/files/f1.txt") });
    expectSame({ web("/files/f2.txt").mid(7) }); // without "http://"
}

TEST_F(TrelFetchBesideCurl, UrlGlobbingExpandsRangesAndSets)
{
    expectSame({ web("/files/f[1-3].txt") });
    expectSame({ web("/files/f[1-3].txt"), "-o", "got#1.txt" });
    expectSame({ web("/files/{a,b}.txt"), "-o", "#1-copy" });
    expectSame({ web("/files/f[001-002].txt") });
    expectSame({ "-g", web("/files/f[1-3].txt") });
    expectSame({ web("/files/f[3-1].txt") }); // a bad range
}

TEST_F(TrelFetchBesideCurl, HeadersAsTheServerSentThem)
{
    expectSame({ "-i", web("/files/f1.txt") });
    expectSame({ "-I", web("/files/f1.txt") });
    expectSame({ "-D", "headers.txt", "-o", "body.txt", web("/files/f1.txt") });
    expectSame({ "-i", "-L", wire("/redirect/2") });
}

TEST_F(TrelFetchBesideCurl, WriteOutVariables)
{
    const QString format = "%{http_code} %{size_download} %{content_type} %{num_redirects} %{http_version} "
                           "%header{content-length} %{exitcode} %{url_effective}\\n";
    expectSame({ "-o", "/dev/null", "-w", format, web("/files/f1.txt") });
    expectSame({ "-o", "/dev/null", "-w", format, web("/files/missing") });
    expectSame({ "-L", "-o", "/dev/null", "-w", format, wire("/redirect/2") });
    expectSame({ "-o", "/dev/null", "-w", "%{stderr}to stderr%{stdout}%{http_code}", web("/files/f1.txt") });
    expectSame({ "-o", "/dev/null", "-w", "@format.txt", web("/files/f1.txt") },
        { { "format.txt", "[%{http_code}]" } });
}

TEST_F(TrelFetchBesideCurl, ExitCodesAreCurls)
{
    expectSame({ wire("/empty") }); // 52
    expectSame({ wire("/truncated") }); // 18
    expectSame({ "-m", "0.5", wire("/stall") }); // 28
    expectSame({ "http://127.0.0.1:1/" }); // 7
    expectSame({ "-d", "@missing.txt", wire("/echo") }); // 26
}

TEST_F(TrelFetchBesideCurl, DataOptionsSendTheSameBytes)
{
    const QMap<QString, QByteArray> files { { "crlf.txt", "one\r\ntwo\r\n" }, { "plain.txt", "a b&c" } };
    expectSameRequest({ "-d", "@crlf.txt", wire("/echo") }, files);
    expectSameRequest({ "--data-binary", "@crlf.txt", wire("/echo") }, files);
    expectSameRequest({ "--data-raw", "@crlf.txt", wire("/echo") }, files);
    expectSameRequest(
        { "-d", "a=1", "--data-urlencode", "b=x y&z", "--data-urlencode", "=only", "--data-urlencode",
            "@plain.txt", "--data-urlencode", "f@plain.txt", wire("/echo") },
        files);
    expectSameRequest({ "-G", "-d", "a=1", "-d", "b=2", wire("/echo") });
    expectSameRequest({ "--json", "{\"a\":1}", wire("/echo") });
}

TEST_F(TrelFetchBesideCurl, MethodsHeadersAndCredentialsSendTheSameBytes)
{
    expectSameRequest({ "-X", "DELETE", wire("/echo") });
    expectSameRequest({ "-X", "delete", wire("/echo") });
    expectSameRequest({ "-X", "POST", wire("/echo") });
    expectSameRequest({ "-X", "PUT", "-d", "x", wire("/echo") });
    expectSameRequest({ "-H", "X-A: 1", "-H", "X-A: 2", "-H", "Accept:", wire("/echo") });
    expectSameRequest(
        { "-u", "user:secret", "-e", "http://127.0.0.1/referring-page", "-r", "0-9", wire("/echo") });
    expectSameRequest({ "-T", "plain.txt", wire("/upload/") }, { { "plain.txt", "uploaded bytes" } });
}

// Multipart boundaries are random, so the parts are compared, not the bytes.
TEST_F(TrelFetchBesideCurl, FormPartsAreTheSame)
{
    const QStringList arguments { "-F", "field=plain value", "-F", "doc=@notes.txt", "-F", "pic=@image.png",
        "-F", "raw=@data.bin;filename=renamed.bin;type=application/x-test", "-F", "inline=<notes.txt", "-F",
        "typed=value;type=text/x-typed", wire("/echo") };
    const QMap<QString, QByteArray> files { { "notes.txt", "some notes\n" },
        { "image.png", "not really a png" }, { "data.bin", QByteArray("\0\1\2", 3) } };
    loopback->clear();
    const Seen curl = run("curl", arguments, files);
    ASSERT_EQ(loopback->requestCount(), 1);
    const QList<trel::test::RecordedPart> curlParts = loopback->requests().first().parts;
    loopback->clear();
    const Seen trel = run(QStringLiteral(TREL_FETCH_PATH), arguments, files);
    ASSERT_EQ(loopback->requestCount(), 1);
    const QList<trel::test::RecordedPart> trelParts = loopback->requests().first().parts;
    EXPECT_EQ(curl.exitCode, trel.exitCode);
    ASSERT_EQ(curlParts.size(), 6);
    ASSERT_EQ(trelParts.size(), curlParts.size());
    for (int i = 0; i < curlParts.size(); ++i) {
        EXPECT_EQ(curlParts.at(i).name, trelParts.at(i).name) << i;
        EXPECT_EQ(curlParts.at(i).filename, trelParts.at(i).filename) << i;
        EXPECT_EQ(curlParts.at(i).contentType, trelParts.at(i).contentType)
            << curlParts.at(i).name.constData();
        EXPECT_EQ(curlParts.at(i).data, trelParts.at(i).data) << i;
    }
}

TEST_F(TrelFetchBesideCurl, ContinueAtResumesAPartialFile)
{
    expectSame({ "-C", "-", "-o", "part.txt", web("/files/f1.txt") }, { { "part.txt", "body " } });
    expectSame({ "-C", "3", "-o", "part.txt", web("/files/f1.txt") }, { { "part.txt", "xyz" } });
    expectSame({ "-C", "-", "-o", "new.txt", web("/files/f1.txt") }); // nothing to resume yet
    // The loopback server ignores Range: the whole body again is no resumption.
    expectSame({ "-C", "-", "-o", "part.txt", wire("/bytes/20") }, { { "part.txt", "abcde" } });
}

TEST_F(TrelFetchBesideCurl, RetryRepeatsATransientFailure)
{
    loopback->clear();
    const auto [curl, trel] = both({ "--retry", "1", "--retry-delay", "0", wire("/busy") });
    EXPECT_EQ(curl, trel) << "curl: " << curl << "\ntrel: " << trel;
    EXPECT_EQ(loopback->requestCount(), 4); // each tool: the first attempt and one retry
}

TEST_F(TrelFetchBesideCurl, ConfigFileOptions)
{
    const QByteArray config = "# a comment\nurl = \"" + web("/files/f1.txt").toUtf8()
        + "\"\noutput = \"from config.txt\"\n"
          "--write-out \"%{http_code}\\n\"\nlocation\n";
    expectSame({ "-K", "opts.cfg" }, { { "opts.cfg", config } });
}

TEST_F(TrelFetchBesideCurl, ZeroMeansNoLimitAndSizesTakeSuffixes)
{
    expectSame({ "-m", "0", "--connect-timeout", "0", web("/files/f1.txt") });
    expectSame({ "--max-filesize", "1k", web("/files/f1.txt") });
    expectSame({ "--limit-rate", "100k", web("/files/f1.txt") });
    expectSame({ "--http1.1", "-q", "--basic", "-o", "-", web("/files/f1.txt") });
}

} // namespace
