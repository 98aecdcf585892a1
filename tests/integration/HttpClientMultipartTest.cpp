// postMultipart: a small form of a field, bytes and a file arrives byte for
// byte as stated below; names and types given or defaulted; a file that cannot
// be opened ends the request as Error with its reason; a 200 MB file part goes
// through nginx read from disk, the client's memory bounded; the slot and
// context forms deliver too.
#include <trel/HttpClient.h>

#include "LocalServers.h"
#include "LoopbackServer.h"
#include "ProcessState.h"
#include "ResultCollector.h"
#include "ResultReceiver.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

#include <cstdio>
#include <vector>

namespace {

using trel::test::LoopbackServer;
using trel::test::RecordedRequest;

using Results = trel::test::ResultCollector;
// Generous: the 200 MB part runs slowly under the sanitizers.
constexpr int kResultWaitMs = 120000;

bool writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

QByteArray boundaryOf(const RecordedRequest& request)
{
    const QByteArray type = request.header("Content-Type");
    const int at = type.indexOf("boundary=");
    return at < 0 ? QByteArray() : type.mid(at + 9);
}

class Multipart : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(directory.isValid());
        ASSERT_TRUE(server.start());
    }
    QString pathOf(const QString& name) const { return directory.filePath(name); }

    QTemporaryDir directory;
    LoopbackServer server;
    HttpClient client;
    Results results;
};

TEST_F(Multipart, ASmallFormArrivesByteForByte)
{
    ASSERT_TRUE(writeFile(pathOf(QStringLiteral("report.csv")), "x,y\n1,2\n"));
    HttpClientMultipart form;
    form.addField(QStringLiteral("title"), QStringLiteral("Gr\u00fc\u00dfe"));
    form.addData(
        QStringLiteral("notes"), "a\r\nb", QStringLiteral("notes.txt"), QStringLiteral("text/plain"));
    form.addFile(QStringLiteral("report"), pathOf(QStringLiteral("report.csv")));
    client.postMultipart(
        TrelUrl::fromEncoded(server.url("/echo")), form, HttpClientOptions(), results.callback());
    ASSERT_TRUE(results.waitFor(1, kResultWaitMs));
    ASSERT_EQ(results.received[0].status, HttpClientStatus::OK);
    ASSERT_EQ(server.requestCount(), 1);
    const RecordedRequest request = server.requests().front();
    EXPECT_EQ(request.method, QByteArray("POST"));
    const QByteArray boundary = boundaryOf(request);
    ASSERT_FALSE(boundary.isEmpty()) << request.header("Content-Type").constData();
    EXPECT_TRUE(request.header("Content-Type").startsWith("multipart/form-data; boundary="));
    const QByteArray expected = "--" + boundary + "\r\n"
        + "Content-Disposition: form-data; name=\"title\"\r\n\r\n"
        + QByteArray("Gr\xc3\xbc\xc3\x9f"
                     "e")
        + "\r\n" + "--" + boundary + "\r\n"
        + "Content-Disposition: form-data; name=\"notes\"; filename=\"notes.txt\"\r\n"
        + "Content-Type: text/plain\r\n\r\n" + "a\r\nb\r\n" + "--" + boundary + "\r\n"
        + "Content-Disposition: form-data; name=\"report\"; filename=\"report.csv\"\r\n"
        + "Content-Type: application/octet-stream\r\n\r\n" + "x,y\n1,2\n\r\n" + "--" + boundary + "--\r\n";
    EXPECT_EQ(request.body, expected);
    EXPECT_FALSE(request.chunked); // every size is known: the length is announced
    EXPECT_EQ(request.header("Content-Length"), QByteArray::number(expected.size()));
}

TEST_F(Multipart, AFilePartTakesTheNameAndTypeGiven)
{
    ASSERT_TRUE(writeFile(pathOf(QStringLiteral("photo.bin")), "JPEG"));
    HttpClientMultipart form;
    form.addFile(QStringLiteral("upload"), pathOf(QStringLiteral("photo.bin")), QStringLiteral("holiday.jpg"),
        QStringLiteral("image/jpeg"));
    client.postMultipart(
        TrelUrl::fromEncoded(server.url("/echo")), form, HttpClientOptions(), results.callback());
    ASSERT_TRUE(results.waitFor(1, kResultWaitMs));
    ASSERT_EQ(results.received[0].status, HttpClientStatus::OK);
    const QList<trel::test::RecordedPart> parts = server.requests().front().parts;
    ASSERT_EQ(parts.size(), 1);
    EXPECT_EQ(parts[0].name, QByteArray("upload"));
    EXPECT_EQ(parts[0].filename, QByteArray("holiday.jpg"));
    EXPECT_EQ(parts[0].contentType, QByteArray("image/jpeg"));
    EXPECT_EQ(parts[0].data, QByteArray("JPEG"));
}

TEST_F(Multipart, AFileThatCannotBeOpenedEndsTheRequestAsError)
{
    const QString missing = pathOf(QStringLiteral("missing.bin"));
    HttpClientMultipart form;
    form.addField(QStringLiteral("before"), QStringLiteral("1"));
    form.addFile(QStringLiteral("upload"), missing);
    const void* const id = client.postMultipart(
        TrelUrl::fromEncoded(server.url("/echo")), form, HttpClientOptions(), results.callback());
    EXPECT_NE(id, nullptr);
    ASSERT_TRUE(results.waitFor(1, kResultWaitMs));
    const HttpClientResult& result = results.received[0];
    EXPECT_EQ(result.status, HttpClientStatus::Error);
    EXPECT_EQ(result.headers.value(QStringLiteral("X-TrelErrorCode"), QString()), QStringLiteral("26"));
    EXPECT_TRUE(result.headers.value(QStringLiteral("X-TrelError"), QString()).contains(missing))
        << result.headers.value(QStringLiteral("X-TrelError"), QString()).toStdString();
    EXPECT_EQ(server.requestCount(), 0); // nothing was sent, not even the field before it
}

TEST_F(Multipart, TheSlotAndContextFormsDeliverToo)
{
    HttpClientMultipart form;
    form.addField(QStringLiteral("a"), QStringLiteral("1"));
    trel::test::ResultReceiver receiver;
    QObject context;
    client.postMultipart(
        TrelUrl::fromEncoded(server.url("/echo")), form, &receiver, "onResult", HttpClientOptions());
    client.postMultipart(
        TrelUrl::fromEncoded(server.url("/echo")), form, HttpClientOptions(), &context, results.callback());
    ASSERT_TRUE(
        trel::test::waitFor([&] { return receiver.count() == 1 && results.received.size() == 1; }, 60000));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
    ASSERT_EQ(server.requestCount(), 2);
    for (const RecordedRequest& request : server.requests()) {
        ASSERT_EQ(request.parts.size(), 1);
        EXPECT_EQ(request.parts[0].data, QByteArray("1"));
    }
}

TEST(MultipartThroughNginx, A200MBFilePartIsReadFromDiskWithMemoryBounded)
{
    constexpr qint64 kFileBytes = 200LL * 1024 * 1024;
    constexpr qint64 kGrowthBoundBytes = 64LL * 1024 * 1024; // a third of the file
    QTemporaryDir directory;
    ASSERT_TRUE(directory.isValid());
    QFile file(directory.filePath(QStringLiteral("large.bin")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_TRUE(file.resize(kFileBytes)); // sparse: no memory and little disk to make
    file.close();
    trel::test::NginxServer nginx;
    ASSERT_TRUE(nginx.start()) << nginx.error().toStdString();
    HttpClient client;
    Results results;
    HttpClientMultipart form;
    form.addField(QStringLiteral("kind"), QStringLiteral("backup"));
    form.addFile(QStringLiteral("archive"), file.fileName());
    trel::test::resetPeakResident();
    const qint64 before = trel::test::peakResidentBytes();
    client.postMultipart(
        TrelUrl::fromEncoded(nginx.url("/upload")), form, HttpClientOptions(), results.callback());
    ASSERT_TRUE(results.waitFor(1, kResultWaitMs));
    const qint64 growth = trel::test::peakResidentBytes() - before;
    const HttpClientResult& result = results.received[0];
    ASSERT_EQ(result.status, HttpClientStatus::OK)
        << result.headers.value(QStringLiteral("X-TrelError"), QString()).toStdString();
    EXPECT_EQ(result.code, 200);
    EXPECT_EQ(result.body, QByteArray("uploaded\n"));
    ASSERT_GE(before, 0);
    EXPECT_LT(growth, kGrowthBoundBytes) << "peak resident memory grew by " << growth << " bytes";
    std::printf(
        "peak resident growth sending a 200 MB file part: %lld bytes\n", static_cast<long long>(growth));
}

} // namespace
