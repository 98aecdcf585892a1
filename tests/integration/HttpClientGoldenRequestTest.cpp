// Whole requests, byte for byte: every request operation of HttpClient makes
// one call against the loopback server, and the exact bytes the server
// received (request line, every header line in order, the blank line, the body
// with its framing) are compared with a golden file under
// tests/integration/golden/ (TREL_GOLDEN_DIR). The calls use the callback
// forms; the slot and context forms build the same request.
//
// Writing a golden file: the file holds nothing but the request as it goes
// over the wire: every line ends with CRLF, the header block ends with an empty
// CRLF line, and the body follows exactly (chunk framing and multipart
// delimiters included), with no newline after it unless the request sends one.
// No comments: any byte in the file is a byte the request must carry. Only
// these placeholders stand for parts that differ from run to run; the test
// replaces them with this run's values before comparing:
//   {port}        the loopback server's ephemeral port, as in `Host: 127.0.0.1:{port}`.
//   {user-agent}  the library's default User-Agent value, `trel_http_client/` followed by
//                 TREL_HTTP_CLIENT_VERSION_STRING, so that a version bump leaves the files alone.
//   {boundary}    the multipart boundary libcurl draws at random; its value is taken from the
//                 request's `Content-Type: multipart/form-data; boundary=...` and must look like
//                 libcurl's (24 dashes and 22 letters or digits).
//   {temp-suffix} the six random characters of postFile()'s temporary file name
//                 `trel-http-fetcher.XXXXXX`; taken from the uploaded part's file name.
// Everything else is literal, including what libcurl itself decides: the
// files hold what libcurl 8.14 as the project installs it sends (its
// Accept-Encoding list names the decoders it was built with, and an HTTP/2
// client's Upgrade request carries its HTTP2-Settings), so a different libcurl
// build shows up here as a difference to look at, not as noise to hide.
// A golden text whose header block states a Content-Length must state the
// length of its own body: the test checks that first, so a hand-edited file
// cannot quietly disagree with itself.

#include <trel/HttpClient.h>
#include <trel/Version.h>

#include "LoopbackServer.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QRegularExpression>
#include <QSharedPointer>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace {

using trel::test::LoopbackServer;
using trel::test::RecordedRequest;

const QByteArray kDefaultUserAgent = "trel_http_client/" TREL_HTTP_CLIENT_VERSION_STRING;

QByteArray readGolden(const QString& name, bool* found)
{
    QFile file(QStringLiteral(TREL_GOLDEN_DIR "/") + name);
    *found = file.open(QIODevice::ReadOnly);
    return *found ? file.readAll() : QByteArray();
}

// One byte as it should appear in a diff: CR and LF spelled out (LF also
// breaks the line, so the texts stay readable), other control bytes in hex.
std::string visibleByte(char byte)
{
    switch (byte) {
    case '\r':
        return "\\r";
    case '\n':
        return "\\n\n";
    case '\\':
        return "\\\\";
    default:
        break;
    }
    const auto code = static_cast<unsigned char>(byte);
    if (code < 0x20 || code >= 0x7f) {
        static const char* const digits = "0123456789abcdef";
        return std::string("\\x") + digits[code >> 4] + digits[code & 0xf];
    }
    return std::string(1, byte);
}

std::string visible(const QByteArray& bytes)
{
    std::string text;
    for (const char byte : bytes) {
        text += visibleByte(byte);
    }
    return text;
}

// Lines keep their CRLF or LF so that a missing CR shows in the line that lacks it.
QList<QByteArray> linesOf(const QByteArray& bytes)
{
    QList<QByteArray> lines;
    int start = 0;
    while (start < bytes.size()) {
        const int newline = bytes.indexOf('\n', start);
        const int end = newline < 0 ? bytes.size() : newline + 1;
        lines << bytes.mid(start, end - start);
        start = end;
    }
    return lines;
}

// One line, its line break spelled out but not repeated.
std::string visibleLine(const QByteArray& line)
{
    std::string text = visible(line);
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

std::string firstDifference(const QByteArray& expected, const QByteArray& actual)
{
    const QList<QByteArray> want = linesOf(expected);
    const QList<QByteArray> got = linesOf(actual);
    for (int i = 0; i < std::max(want.size(), got.size()); ++i) {
        const QByteArray wanted = i < want.size() ? want[i] : QByteArray("<no line>");
        const QByteArray seen = i < got.size() ? got[i] : QByteArray("<no line>");
        if (wanted != seen) {
            return "first difference at line " + std::to_string(i + 1)
                + ":\n  expected: " + visibleLine(wanted) + "\n  actual:   " + visibleLine(seen) + "\n";
        }
    }
    return {};
}

::testing::AssertionResult sameBytes(const QByteArray& expected, const QByteArray& actual)
{
    if (expected == actual) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
        << "the request differs from its golden file (\\r and \\n are CR and LF)\n"
        << firstDifference(expected, actual) << "--- expected (" << expected.size() << " bytes) ---\n"
        << visible(expected) << "\n--- actual (" << actual.size() << " bytes) ---\n"
        << visible(actual) << "\n--- end ---";
}

QByteArray headerBlockOf(const QByteArray& request)
{
    const int end = request.indexOf("\r\n\r\n");
    return end < 0 ? request : request.left(end + 2);
}

QByteArray bodyOf(const QByteArray& request)
{
    const int end = request.indexOf("\r\n\r\n");
    return end < 0 ? QByteArray() : request.mid(end + 4);
}

// The value of the first header line of that name (any case) in a raw request.
QByteArray headerValue(const QByteArray& request, const QByteArray& name)
{
    for (const QByteArray& line : headerBlockOf(request).split('\n').mid(1)) {
        const int colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).toLower() == name.toLower()) {
            return line.mid(colon + 1).trimmed();
        }
    }
    return {};
}

// A golden text must agree with itself: its Content-Length, when it states
// one, is the length of its body.
::testing::AssertionResult consistentLength(const QByteArray& golden)
{
    const QByteArray stated = headerValue(golden, "Content-Length");
    if (stated.isEmpty() || stated.toInt() == bodyOf(golden).size()) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "the golden text states Content-Length " << stated.constData()
                                         << " but carries a body of " << bodyOf(golden).size() << " bytes";
}

// The values this run's request carries for the placeholders, each checked
// for the form it must have; an empty value means the request lacks it.
QByteArray boundaryOf(const RecordedRequest& request)
{
    static const QRegularExpression form(
        QStringLiteral("^multipart/form-data; boundary=(-{24}[0-9A-Za-z]{22})$"));
    const QRegularExpressionMatch match = form.match(QString::fromLatin1(request.header("Content-Type")));
    return match.hasMatch() ? match.captured(1).toLatin1() : QByteArray();
}

QByteArray temporarySuffixOf(const RecordedRequest& request)
{
    static const QRegularExpression form(QStringLiteral("^trel-http-fetcher\\.([0-9A-Za-z]{6})$"));
    if (request.parts.size() != 1) {
        return {};
    }
    const QRegularExpressionMatch match = form.match(QString::fromLatin1(request.parts[0].filename));
    return match.hasMatch() ? match.captured(1).toLatin1() : QByteArray();
}

// Replaces a placeholder the golden text uses; fails when the request has no
// value of the right form for it.
::testing::AssertionResult substitute(
    QByteArray& golden, const QByteArray& placeholder, const QByteArray& value)
{
    if (!golden.contains(placeholder)) {
        return ::testing::AssertionSuccess();
    }
    if (value.isEmpty()) {
        return ::testing::AssertionFailure()
            << "the golden file uses " << placeholder.constData()
            << " but the request carries no value of the expected form for it:\n"
            << visible(headerBlockOf(golden));
    }
    golden.replace(placeholder, value);
    return ::testing::AssertionSuccess();
}

// Collects the result of the one request a test makes.
struct Results
{
    HttpClient::Callback callback()
    {
        return [this](const HttpClientResult& result) { received.push_back(result); };
    }
    std::vector<HttpClientResult> received;
};

class HttpClientGoldenRequest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start());
        options.setTimeoutMs(10000); // a request that hangs still ends, and the test with it
    }

    TrelUrl url(const QByteArray& path) const { return TrelUrl::fromEncoded(server.url(path)); }

    // Makes the one call, waits for its result and compares the one recorded
    // request with the golden file.
    void expectRequestMatches(const QString& goldenName, const std::function<void*()>& call)
    {
        ASSERT_NE(call(), nullptr) << "the request was refused";
        ASSERT_TRUE(trel::test::waitFor([&] { return !results.received.empty(); }));
        EXPECT_EQ(results.received[0].status, HttpClientStatus::OK) << results.received[0].code;
        const QList<RecordedRequest> requests = server.requests();
        ASSERT_EQ(requests.size(), 1);
        expectMatchesGolden(goldenName, requests[0]);
    }

    void expectMatchesGolden(const QString& goldenName, const RecordedRequest& request) const
    {
        bool found = false;
        QByteArray golden = readGolden(goldenName, &found);
        ASSERT_TRUE(found) << "missing golden file " << TREL_GOLDEN_DIR "/" << goldenName.toStdString()
                           << "; the request sent was:\n"
                           << visible(request.raw);
        ASSERT_TRUE(substitute(golden, "{port}", QByteArray::number(server.port())));
        ASSERT_TRUE(substitute(golden, "{user-agent}", kDefaultUserAgent));
        ASSERT_TRUE(substitute(golden, "{boundary}", boundaryOf(request)));
        ASSERT_TRUE(substitute(golden, "{temp-suffix}", temporarySuffixOf(request)));
        EXPECT_TRUE(consistentLength(golden)) << goldenName.toStdString();
        EXPECT_TRUE(sameBytes(golden, request.raw)) << goldenName.toStdString();
    }

    LoopbackServer server;
    HttpClient client { nullptr, HttpClient::Http1, false };
    HttpClientOptions options;
    Results results;
};

// ---------------------------------------------------------------------------
// The methods

TEST_F(HttpClientGoldenRequest, Get)
{
    expectRequestMatches(
        "get.http", [&] { return client.get(url("/golden/get?q=1"), options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, Head)
{
    expectRequestMatches(
        "head.http", [&] { return client.head(url("/golden/head"), options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, PostWithAByteBody)
{
    // Bytes a text body would not have: NUL, CR LF, and a non-ASCII byte.
    const QByteArray body("post body\0with\r\nbinary \xff bytes", 30);
    expectRequestMatches(
        "post.http", [&] { return client.post(url("/golden/post"), body, options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, PostWithAnEmptyBody)
{
    expectRequestMatches("post-empty.http",
        [&] { return client.post(url("/golden/post-empty"), QByteArray(), options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, Put)
{
    expectRequestMatches(
        "put.http", [&] { return client.put(url("/golden/put"), "put body", options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, Delete)
{
    expectRequestMatches("delete.http",
        [&] { return client.delete_(url("/golden/delete"), "delete body", options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, Patch)
{
    expectRequestMatches("patch.http",
        [&] { return client.patch(url("/golden/patch"), "patch body", options, results.callback()); });
}

// ---------------------------------------------------------------------------
// Forms, files and streamed bodies

TEST_F(HttpClientGoldenRequest, PostFormIsMultipartWithFieldsInOrder)
{
    const QList<QPair<QString, QString>> fields
        = { { "first", "1" }, { "second", "two words" }, { "third", QString::fromUtf8("tr\u00e9s") } };
    expectRequestMatches("post-form.http",
        [&] { return client.postForm(url("/golden/post-form"), fields, options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, PostFileIsOneMultipartFilePart)
{
    const QByteArray content("file content\r\n\x01\x02\xff", 17);
    expectRequestMatches("post-file.http",
        [&] { return client.postFile(url("/golden/post-file"), content, options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, PostStreamIsChunked)
{
    // Filled and closed before the call, so that how libcurl frames the chunks
    // does not depend on when a producer thread gets to run.
    auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
    for (const QByteArray& chunk :
        { QByteArray("first chunk;"), QByteArray(), QByteArray("second\r\nchunk") }) {
        ASSERT_TRUE(queue->append(chunk));
    }
    queue->close();
    expectRequestMatches("post-stream.http",
        [&] { return client.postStream(url("/golden/post-stream"), queue, options, results.callback()); });
}

// ---------------------------------------------------------------------------
// Request headers and options

TEST_F(HttpClientGoldenRequest, ExtraRequestHeader)
{
    // One field only: several fields go out in QHash order, which changes from
    // one process to the next, so no file could state their order.
    options.setHeaders(HttpClientHeaders { { "X-Golden-Trace", "abc 123" } });
    expectRequestMatches("get-extra-header.http",
        [&] { return client.get(url("/golden/extra"), options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, AHeaderAppendedTwiceGoesOutAsTwoLinesInOrder)
{
    HttpClientHeaders headers;
    headers.append("X-Golden-Multi", "first");
    headers.append("X-Golden-Multi", "second");
    options.setHeaders(headers);
    expectRequestMatches("get-appended-twice.http",
        [&] { return client.get(url("/golden/get-appended-twice"), options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, AnInsertAfterAppendsSendsOneLine)
{
    HttpClientHeaders headers;
    headers.append("X-Golden-Multi", "first");
    headers.append("X-Golden-Multi", "second");
    headers.insert("X-Golden-Multi", "third");
    options.setHeaders(headers);
    expectRequestMatches("get-insert-after-append.http",
        [&] { return client.get(url("/golden/get-insert-after-append"), options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, AHeaderInsertedTwiceSendsOnlyTheLastValue)
{
    HttpClientHeaders headers;
    headers.insert("X-Golden-Multi", "first");
    headers.insert("X-Golden-Multi", "second");
    options.setHeaders(headers);
    expectRequestMatches("get-inserted-twice.http",
        [&] { return client.get(url("/golden/get-inserted-twice"), options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, ExtraHeaderReplacesTheOneLibcurlSends)
{
    options.setHeaders(HttpClientHeaders { { "Accept", "text/plain" } });
    expectRequestMatches(
        "get-accept.http", [&] { return client.get(url("/golden/accept"), options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, CallersUserAgentReplacesTheDefault)
{
    options.setHeaders(HttpClientHeaders { { "User-Agent", "golden-app/2.1" } });
    expectRequestMatches("get-user-agent.http",
        [&] { return client.get(url("/golden/user-agent"), options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, DisabledCompressionAsksForNoEncoding)
{
    options.disableCompression(true);
    expectRequestMatches("get-no-compression.http",
        [&] { return client.get(url("/golden/no-compression"), options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, EncodedPlusSignInTheQuery)
{
    HttpClient encoding(nullptr, HttpClient::Http1, true);
    expectRequestMatches("get-plus-sign.http",
        [&] { return encoding.get(url("/golden/plus?a=1+2&b=+"), options, results.callback()); });
}

TEST_F(HttpClientGoldenRequest, Http2ClientAsksToUpgradeAPlainConnection)
{
    HttpClient http2(nullptr, HttpClient::Http2, false);
    expectRequestMatches("get-http2-upgrade.http",
        [&] { return http2.get(url("/golden/http2"), options, results.callback()); });
}

} // namespace
