#pragma once

// Runs one trel-fetch configuration on one HttpClient: keeps at most `parallel`
// requests in flight, runs the URL list once per round (rounds one after the
// other, so later rounds can be served from the cache), cancels requests that
// overstay --cancel-after, saves bodies, and tells the printer about every
// delivery. Lives on the thread that runs the event loop.

#include "FetchConfig.h"
#include "ResultPrinter.h"
#include "StdinStreamer.h"

#include <trel/HttpClient.h>

#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QObject>
#include <QTimer>

#include <memory>
#include <unordered_map>

namespace trelfetch {

class Fetcher : public QObject
{
    Q_OBJECT

public:
    Fetcher(const FetchConfig& config, ResultPrinter& printer, QObject* parent = nullptr);
    ~Fetcher() override;

    // Starts the first round; finished() follows once every request has its result.
    void start();
    // 0 when every request ended OK below 400, else the failures, at most 100.
    int exitCode() const;

signals:
    void finished();

private slots:
    // Pushed responses arrive here by name; see HttpClient::setPushProperties.
    void onPushed(const TrelUrl& url, const HttpClientPrivate& context, int status, int code,
        const QByteArray& body, const HttpClientHeaders& headers);
    void finishNow();

private:
    // One request of one round, from its start until its final result.
    struct Running
    {
        int index = 0; // position in the URL list
        void* id = nullptr;
        QElapsedTimer clock;
        std::int64_t bytes = 0;
        bool cached = false;
        bool cancelled = false;
        std::unique_ptr<QFile> output;
    };

    void startRound();
    void launchMore();
    void launch(int index);
    void* send(const TrelUrl& url, HttpClient::Callback callback);
    void onResult(int token, const HttpClientResult& result);
    void cancelIfRunning(int token);
    void completeRequest(int token, const HttpClientResult& result);
    QString save(Running& running, const QString& name, const QByteArray& body);
    QString effectiveUrl(const HttpClientResult& result) const;
    void showProgress();

    const FetchConfig config;
    ResultPrinter& printer;
    // Declared before the client so that it outlives the client's stream transfer.
    std::unique_ptr<StdinStreamer> streamer;
    HttpClient client;
    std::unordered_map<int, Running> running; // by token
    QHash<void*, int> tokensById; // live transfers' ids to their requests
    QElapsedTimer wallClock;
    QTimer progressTimer;
    QTimer pushQuietTimer; // after the last request, waits for straggling pushes
    Totals totals;
    int round = 0;
    int nextIndex = 0;
    int nextToken = 0;
    int completedInRound = 0;
    const QStringList outputNames; // file names for --output, by URL position
    std::int64_t requestsElapsedUs = 0; // until the last requested result
};

} // namespace trelfetch
