#pragma once

// Runs one trel-fetch configuration on one HttpClient: takes URLs from the
// command line and from lists as they arrive, keeps one transfer (or, with -Z,
// up to --parallel-max) in flight, writes each body as it arrives, and reports
// every result. Lives on the thread that runs the event loop.

#include "BodySink.h"
#include "FetchConfig.h"
#include "LineReader.h"
#include "Outcome.h"
#include "Reporter.h"
#include "StdinStreamer.h"

#include <trel/HttpClient.h>

#include <QElapsedTimer>
#include <QFile>
#include <QObject>
#include <QTimer>
#include <QVector>

#include <map>
#include <memory>
#include <optional>

namespace trelfetch {

class Fetcher : public QObject
{
    Q_OBJECT

public:
    Fetcher(const FetchConfig& config, Reporter& reporter, QObject* parent = nullptr);
    ~Fetcher() override;

    // Starts the command line's URLs and the list readers; finished() follows
    // once every URL has its result.
    void start();
    // Ctrl-C: cancels everything, removes partial files, and finishes at once.
    void interrupt();
    // The exit code of the first failure in input order; 0 when none failed.
    int exitCode() const;

signals:
    void finished();

private slots:
    // Pushed responses arrive here by name; see HttpClient::setPushProperties.
    void onPushed(const TrelUrl& url, const HttpClientPrivate& context, int status, int code,
        const QByteArray& body, const HttpClientHeaders& headers);

private:
    struct Job
    {
        QString text; // the URL as given
        std::optional<OutputTarget> output; // the -o/-O of a command-line URL
    };

    // One request of one round, from its start until its final result.
    struct Transfer
    {
        int job = 0;
        int round = 1;
        QString url;
        TrelUrl requestUrl; // as sent; -v shows it once the response tells the protocol
        void* id = nullptr;
        QElapsedTimer clock;
        std::int64_t firstByteMs = -1;
        std::int64_t received = 0;
        std::int64_t expected = -1; // Content-Length, when announced
        std::int64_t moved = 0; // -#: sent and received, from the library's progress reports
        std::int64_t toMove = -1; // -#: both lengths together; -1 while one is unknown
        bool responseSeen = false;
        bool dropBody = false; // -f and an HTTP error: the body goes nowhere
        bool cached = false;
        bool cancelled = false; // by --cancel-after
        int code = -1;
        HttpClientHeaders headers;
        std::unique_ptr<BodySink> sink; // null: the body goes nowhere
        std::unique_ptr<StdinStreamer> upload; // -T FILE: this request's reader of the file
        std::optional<Outcome> localFailure; // decided by the tool, not the library
        int attempt = 0; // --retry: 0 for the first
        std::int64_t resumeFrom = 0; // -C: the bytes asked for begin here
        qint64 firstAttemptMs = 0; // wall clock at the first attempt
        std::int64_t sent = 0; // request body bytes, from the library's progress reports
        QByteArray headerLines; // the latest response's header lines, as received
        int responses = 0; // final (not 1xx) responses seen: one more than the redirects
        QString httpVersion = "0"; // of the latest response: "1.1", "2"
    };

    void startListReader();
    void addJob(const QString& text, std::optional<OutputTarget> output);
    void onListLine(const QString& line);
    void onListEnd(const QString& error);
    void launchMore();
    void launch(int jobIndex, int attempt = 0, qint64 firstAttemptMs = -1);
    QString requestUrlText(const Job& job) const;
    void* sendWithoutBody(
        const QByteArray& verb, const TrelUrl& url, HttpClientOptions options, HttpClient::Callback callback);
    HttpClientOptions optionsFor(int token);
    void* sendByMethod(const TrelUrl& url, const HttpClientOptions& options, HttpClient::Callback callback);
    HttpClientOptions asFileUpload(HttpClientOptions options) const;
    HttpClientOptions::TraceCallback traceOf(int token);
    void onTrace(Transfer& transfer, HttpClientOptions::TraceKind kind, const QByteArray& data);
    void onHeaderLine(Transfer& transfer, const QByteArray& line);
    bool tracesExchange() const;
    bool retryLater(Transfer& transfer, const HttpClientResult& result, const Outcome& outcome);
    void writeOut(const Transfer& transfer, const HttpClientResult& result, const Outcome& outcome);
    std::unique_ptr<BodySink> sinkFor(const Job& job, Outcome& failure, std::int64_t& resumeFrom) const;
    std::unique_ptr<StdinStreamer> openUpload(Outcome& failure) const;
    void* send(const TrelUrl& url, int token, HttpClient::Callback callback);
    HttpClientOptions::ProgressCallback progressOf(int token);
    void* sendStreamed(const TrelUrl& url, const QSharedPointer<HttpClientQueue>& queue,
        const HttpClientOptions& options, HttpClient::Callback callback);
    void loadCookies();
    void saveCookies();
    void failLater(int token, const Outcome& failure);
    void onResult(int token, const HttpClientResult& result);
    void receive(Transfer& transfer, const HttpClientResult& result);
    void mergeHeaders(Transfer& transfer, const HttpClientResult& result);
    void noteResponse(Transfer& transfer);
    void abort(Transfer& transfer, const Outcome& failure);
    void complete(int token, const HttpClientResult& result);
    Outcome finalOutcome(Transfer& transfer, const HttpClientResult& result);
    QString settleBody(Transfer& transfer, const HttpClientResult& result, Outcome& outcome);
    // -f without --fail-with-body: an HTTP error's body goes nowhere.
    bool failsWithoutBody(int code) const;
    static int responseCode(const Transfer& transfer, const HttpClientResult& result);
    static ResultRecord recordOf(const Transfer& transfer, const HttpClientResult& result,
        const Outcome& outcome, const QString& savedTo);
    void tally(const ResultRecord& record);
    void finishIfDone();
    void finish(bool interrupted);
    void showProgress();

    const FetchConfig config;
    Reporter& reporter;
    // Declared before the client so that it outlives the client's stream transfer.
    std::unique_ptr<StdinStreamer> streamer;
    HttpClient client;
    QVector<Job> jobs; // in input order
    std::map<int, Transfer> transfers; // in flight, by token
    std::unique_ptr<QFile> listFile;
    std::unique_ptr<LineReader> listReader;
    bool listOpen = false;
    QElapsedTimer wallClock;
    QTimer progressTimer;
    QTimer pushQuietTimer; // after the last request, waits for straggling pushes
    Totals totals;
    std::int64_t bytesEver = 0;
    int round = 1;
    int nextJob = 0;
    int nextToken = 0;
    bool finishing = false;
    int pendingRetries = 0; // --retry: attempts waiting for their delay
    std::unique_ptr<BodySink> headerDump; // -D FILE
    // (round, input index) of the first failure, and its exit code.
    std::optional<std::pair<std::pair<int, int>, int>> firstFailure;
};

} // namespace trelfetch
