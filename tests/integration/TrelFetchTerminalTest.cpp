// trel-fetch on a real terminal, driven through tmux: the progress line while
// a download runs, and what Ctrl-C leaves behind. Keys go in with send-keys,
// the screen comes back with capture-pane, and the assertions are on its text.

#include "LoopbackServer.h"
#include "TrelFetchSupport.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <functional>

namespace {

using trel::test::filesIn;
using trel::test::LoopbackServer;
using trel::test::RecordedRequest;
using trel::test::ScriptedResponse;
using trel::test::writeFile;

constexpr int kWaitMs = 30000;

// /drip sends its announced body one byte every few milliseconds, long enough
// to watch; /stall never answers.
ScriptedResponse routes(const RecordedRequest& request)
{
    const QByteArray path = request.target.split('?').first();
    if (path == "/drip") {
        ScriptedResponse response = ScriptedResponse::ok(QByteArray(1500, 'd'));
        response.dripMs = 4;
        return response;
    }
    if (path == "/stall") {
        return ScriptedResponse::withFault(ScriptedResponse::Fault::Stall);
    }
    return LoopbackServer::defaultRoutes(request);
}

// One tmux server of our own (its own socket name), killed at the end, with
// one window running an interactive shell that the test types into. The
// shell runs each command as a foreground job of its own, so Ctrl-C reaches
// only that command, and then prints its exit status.
class TmuxSession
{
public:
    TmuxSession()
        : socketName(QString("trel-fetch-test-%1-%2")
                         .arg(QCoreApplication::applicationPid())
                         .arg(QRandomGenerator::global()->generate()))
    {
        started = tmux({ "-f", "/dev/null", "new-session", "-d", "-s", "main", "-x", "160", "-y", "40",
                           "env PS1='$ ' sh -i" })
                      .has_value()
            && waitForScreen([](const QString& screen) { return screen.trimmed().endsWith(QChar('$')); });
    }
    ~TmuxSession() { tmux({ "kill-server" }); }
    TmuxSession(const TmuxSession&) = delete;
    TmuxSession& operator=(const TmuxSession&) = delete;

    bool isStarted() const { return started; }
    QString screen() { return QString::fromUtf8(tmux({ "capture-pane", "-p", "-t", "main" }).value_or("")); }
    void type(const QString& line)
    {
        tmux({ "send-keys", "-t", "main", "-l", line });
        sendKeys("Enter");
    }
    void sendKeys(const QString& keys) { tmux({ "send-keys", "-t", "main", keys }); }

    // Polls the screen until `condition` holds or the bounded wait ends.
    bool waitForScreen(const std::function<bool(const QString&)>& condition)
    {
        const QDeadlineTimer deadline(kWaitMs);
        while (!deadline.hasExpired()) {
            if (condition(screen())) {
                return true;
            }
            QThread::msleep(50);
        }
        return false;
    }
    // The exit status the shell printed after the command (see fetchCommand).
    std::optional<int> waitForExit()
    {
        static const QRegularExpression dead(R"(exit status (\d+))");
        std::optional<int> status;
        waitForScreen([&](const QString& screen) {
            const QRegularExpressionMatch match = dead.match(screen);
            if (match.hasMatch()) {
                status = match.captured(1).toInt();
            }
            return status.has_value();
        });
        return status;
    }

private:
    std::optional<QByteArray> tmux(const QStringList& arguments)
    {
        QProcess process;
        process.start("tmux", QStringList { "-L", socketName } + arguments);
        if (!process.waitForFinished(10000) || process.exitCode() != 0) {
            return std::nullopt;
        }
        return process.readAllStandardOutput();
    }

    const QString socketName;
    bool started = false;
};

QString shellQuoted(const QString& text)
{
    return "'" + QString(text).replace("'", "'\\''") + "'";
}

QString fetchCommand(const QString& temporaryDirectory, const QStringList& arguments)
{
    QStringList quoted;
    for (const QString& argument : arguments) {
        quoted << shellQuoted(argument);
    }
    return QString("env TMPDIR=%1 %2 %3; echo \"exit status $?\"")
        .arg(shellQuoted(temporaryDirectory), shellQuoted(TREL_FETCH_PATH), quoted.join(' '));
}

class TrelFetchTerminal : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start());
        server.setHandler(routes);
    }
    void TearDown() override { server.stop(); }
    QString url(const QByteArray& path) const { return QString::fromLatin1(server.url(path)); }

    LoopbackServer server;
};

TEST_F(TrelFetchTerminal, ProgressShowsBytesRatePercentAndEtaThenCtrlCCleansUp)
{
    QTemporaryDir output;
    QTemporaryDir temporary;
    TmuxSession tmux;
    ASSERT_TRUE(tmux.isStarted()) << tmux.screen().toStdString();
    tmux.type(fetchCommand(temporary.path(), { "-o", output.filePath("drip.bin"), url("/drip") }));

    const QRegularExpression progress(
        R"((\d+(\.\d)? (B|KiB)) received, 1 in flight, 0 done, [\d.]+ (B|KiB)/s, (\d+)% ETA \d+:\d\d)");
    ASSERT_TRUE(tmux.waitForScreen([&](const QString& screen) { return progress.match(screen).hasMatch(); }))
        << tmux.screen().toStdString();
    // While the body arrives, it is never under its final name.
    EXPECT_FALSE(QFile::exists(output.filePath("drip.bin")));

    tmux.sendKeys("C-c");
    const std::optional<int> status = tmux.waitForExit();
    ASSERT_TRUE(status.has_value()) << tmux.screen().toStdString();
    EXPECT_EQ(*status, 130);
    const QString screen = tmux.screen();
    // The progress line was finished: the summary starts a line of its own and
    // counts the cancelled download as failed, with the bytes it had received.
    EXPECT_TRUE(QRegularExpression(
        R"(ETA \d+:\d\d(\^C)?\s*\ntrel-fetch: 1 request, 1 failed, [1-9]\d* bytes in [\d.]+ s, interrupted)")
                    .match(screen)
                    .hasMatch())
        << screen.toStdString();
    EXPECT_TRUE(filesIn(output.path()).isEmpty()) << filesIn(output.path()).join(' ').toStdString();
    EXPECT_TRUE(filesIn(temporary.path()).isEmpty()) << filesIn(temporary.path()).join(' ').toStdString();
}

TEST_F(TrelFetchTerminal, CtrlCDuringAFileUploadStopsItWithoutATemporaryFile)
{
    QTemporaryDir temporary;
    QTemporaryDir input;
    ASSERT_TRUE(writeFile(input.filePath("upload.bin"), QByteArray(100000, 'u')));
    TmuxSession tmux;
    ASSERT_TRUE(tmux.isStarted()) << tmux.screen().toStdString();
    tmux.type(
        fetchCommand(temporary.path(), { "-F", "file=@" + input.filePath("upload.bin"), url("/stall") }));
    ASSERT_TRUE(server.waitForRequests(1, kWaitMs)) << tmux.screen().toStdString();
    // The file part is read from where it is: no copy in the temporary directory.
    EXPECT_TRUE(filesIn(temporary.path()).isEmpty()) << filesIn(temporary.path()).join(' ').toStdString();

    tmux.sendKeys("C-c");
    const std::optional<int> status = tmux.waitForExit();
    ASSERT_TRUE(status.has_value()) << tmux.screen().toStdString();
    EXPECT_EQ(*status, 130);
    EXPECT_TRUE(tmux.screen().contains("trel-fetch: 1 request, 1 failed, 0 bytes in "))
        << tmux.screen().toStdString();
    EXPECT_TRUE(filesIn(temporary.path()).isEmpty()) << filesIn(temporary.path()).join(' ').toStdString();
}

TEST_F(TrelFetchTerminal, ProgressCountsFinishedTransfersAndEndsWithASummary)
{
    QTemporaryDir output;
    QTemporaryDir temporary;
    TmuxSession tmux;
    ASSERT_TRUE(tmux.isStarted()) << tmux.screen().toStdString();
    tmux.type(fetchCommand(
        temporary.path(), { "--output-dir", output.path(), "-O", url("/bytes/5000"), "-O", url("/drip") }));
    EXPECT_TRUE(tmux.waitForScreen([](const QString& screen) {
        return screen.contains(" received, 1 in flight, 1 done, ");
    })) << tmux.screen().toStdString();
    const std::optional<int> status = tmux.waitForExit();
    ASSERT_TRUE(status.has_value()) << tmux.screen().toStdString();
    EXPECT_EQ(*status, 0);
    const QString screen = tmux.screen();
    EXPECT_TRUE(QRegularExpression(R"(1 done, .*\ntrel-fetch: 2 requests, 0 failed, 6500 bytes in )")
                    .match(screen)
                    .hasMatch())
        << screen.toStdString();
    EXPECT_EQ(filesIn(output.path()), (QStringList { "5000", "drip" }));
}

TEST_F(TrelFetchTerminal, ProgressBarFillsFromTheLibrarysReports)
{
    QTemporaryDir output;
    QTemporaryDir temporary;
    TmuxSession tmux;
    ASSERT_TRUE(tmux.isStarted()) << tmux.screen().toStdString();
    tmux.type(fetchCommand(temporary.path(), { "-#", "-o", output.filePath("drip.bin"), url("/drip") }));
    // Part of the 1500 bytes in: some '#' and a share below 100%.
    const QRegularExpression partway(R"(#+ +\d{1,2}\.\d%)");
    EXPECT_TRUE(tmux.waitForScreen([&partway](const QString& screen) {
        return partway.match(screen).hasMatch();
    })) << tmux.screen().toStdString();
    const std::optional<int> status = tmux.waitForExit();
    ASSERT_TRUE(status.has_value()) << tmux.screen().toStdString();
    EXPECT_EQ(*status, 0);
    EXPECT_TRUE(tmux.screen().contains("trel-fetch: 1 request, 0 failed, 1500 bytes in "))
        << tmux.screen().toStdString();
}

} // namespace
