#pragma once

#include <trel/HttpClientCache.h>
#include <trel/HttpClientHeaders.h>
#include <trel/HttpClientOptions.h>
#include <trel/HttpClientPrivate.h>
#include <trel/HttpClientQueue.h>
#include <trel/HttpClientStatus.h>
#include <trel/HttpClientTransfer.h>
#include <trel/TrelUrl.h>
#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPair>
#include <QSet>
#include <QSharedPointer>
#include <QSocketNotifier>
#include <QString>
#include <QTimer>
#include <QWeakPointer>

#include <curl/curl.h>

#include <cstddef>
#include <functional>
#include <vector>

// An asynchronous HTTP client for the thread that owns it and runs its Qt event
// loop. Every request call returns at once with an id (the transfer's curl easy
// handle, null when no transfer runs) and exactly one result arrives later, in
// a following turn of the event loop, through a queued slot or a callback.
// Everything here, libcurl's callbacks included, runs on the owning thread.
class TREL_HTTP_CLIENT_EXPORT HttpClient : public QObject
{
    Q_OBJECT

public:
    // int-sized with a fixed type, so any value may be passed; only Http2 is special.
    enum HttpVersion : int
    {
        Http1 = 0,
        Http2 = 1,
    };

    enum HttpMethod : int
    {
        Get = 0,
        Head = 1,
        Post = 2,
        Put = 3,
        Delete = 4,
        Patch = 5,
    };

    using Result = HttpClientResult;
    using Callback = std::function<void(const HttpClientResult&)>;

    // Where a result goes: a receiver's slot invoked by name with six arguments
    // (TrelUrl, HttpClientPrivate, int status, int code, QByteArray, HttpClientHeaders),
    // or a callback run on the client's thread.
    struct Reply
    {
        QObject* receiver = nullptr; // not owned, not watched
        QByteArray slot; // the bare method name, used unchanged
        Callback callback;
    };

    explicit HttpClient(QObject* parent = nullptr, HttpVersion version = Http1, bool encodePlusSign = false);
    ~HttpClient() override;

    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    void* get(const TrelUrl& url, QObject* receiver, const char* slot, const HttpClientOptions& options);
    void* get(const TrelUrl& url, const HttpClientOptions& options, Callback callback);
    void* head(const TrelUrl& url, QObject* receiver, const char* slot, const HttpClientOptions& options);
    void* head(const TrelUrl& url, const HttpClientOptions& options, Callback callback);
    void* post(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
        const HttpClientOptions& options);
    void* post(
        const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback);
    void* put(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
        const HttpClientOptions& options);
    void* put(
        const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback);
    void* delete_(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
        const HttpClientOptions& options);
    void* delete_(
        const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback);
    void* patch(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
        const HttpClientOptions& options);
    void* patch(
        const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback);
    // The queue is read on this client's thread and blocks it while open and
    // empty: feed it from another thread and close it at the end.
    void* postStream(const TrelUrl& url, QSharedPointer<HttpClientQueue> queue, QObject* receiver,
        const char* slot, const HttpClientOptions& options);
    void* postStream(const TrelUrl& url, QSharedPointer<HttpClientQueue> queue,
        const HttpClientOptions& options, Callback callback);
    void* postForm(const TrelUrl& url, const QList<QPair<QString, QString>>& fields, QObject* receiver,
        const char* slot, const HttpClientOptions& options);
    void* postForm(const TrelUrl& url, const QList<QPair<QString, QString>>& fields,
        const HttpClientOptions& options, Callback callback);
    void* postFile(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
        const HttpClientOptions& options);
    void* postFile(
        const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback);

    // True when a live transfer had this id; its caller then gets Error/-1.
    bool cancel(void* id);

    void setCacheSize(size_t size);
    void clearCache();
    // Where HTTP/2 pushed responses go, and the options their transfers use.
    void setPushProperties(QObject* receiver, const char* slot, const HttpClientOptions& options);

    // "OK", "ResolveError", ... for 0..5; "Invalid status N" for anything else.
    static QString toString(HttpClientStatus status);

    // libcurl callbacks; each receives the client as its user pointer.
    static int handleSocket(CURL* easy, curl_socket_t s, int what, void* userp, void* socketp);
    static int startTimeout(CURLM* multi, long timeout_ms, void* userp);
    static int serverPushCallback(
        CURL* parent, CURL* easy, size_t num_headers, curl_pushheaders* headers, void* userp);

private slots:
    void on_timer_timeout();
    void on_readNotifier_activated(int socket);
    void on_writeNotifier_activated(int socket);
    void on_writeNotifiersBlocked_timeout();
    void on_transfer_socketData(int socket, int flags);
    void on_notifyCaller_sync(const HttpClient::Result& result, HttpClient::Callback callback);

private:
    friend class HttpClientTestAccess; // white-box checks of the engine's tables and timers

    template <typename T>
    void* send(const TrelUrl& url, HttpMethod method, const T& body, const HttpClientOptions& options,
        const Reply& reply, const char* signature);
    QSharedPointer<HttpClientTransfer> createTransfer(
        TrelUrl url, HttpMethod method, const HttpClientOptions& options, const Reply& reply);
    void notifyCaller(const Reply& reply, const HttpClientResult& result, const HttpClientPrivate& context);
    // Every connection goes through here: a connection Qt refuses (unknown
    // signal or slot, unregistered queued argument type) is a contract violation.
    void connectVerified(
        const QObject* sender, const char* signal, const char* method, Qt::ConnectionType type);
    void listenSocket(curl_socket_t socket, bool in, bool out);
    void removeSocket(curl_socket_t socket);
    QSharedPointer<QSocketNotifier> makeNotifier(curl_socket_t socket, QSocketNotifier::Type type);
    void blockWriteNotifier(int socket);
    void harvestFinishedTransfers();

    CURLM* multi = nullptr;
    QTimer timer;
    HttpVersion httpVersion;
    bool encodePlusSign;
    QObject* pushReceiver = nullptr;
    QByteArray pushSlot;
    HttpClientOptions pushOptions;
    QHash<int, QSharedPointer<QSocketNotifier>> readNotifiers;
    QHash<int, QSharedPointer<QSocketNotifier>> writeNotifiers;
    QSet<int> blockedWriteSockets;
    // Sockets whose latest request from libcurl includes the write direction;
    // their write notifiers are not throttled.
    QSet<int> writeWantedSockets;
    QTimer writeNotifiersBlocked;
    QHash<void*, QSharedPointer<HttpClientTransfer>> transfers;
    // The live transfers with immediate read on, in the order they started: the
    // only ones the sweep after a socket action visits. Weak, so a transfer that
    // leaves `transfers` is gone from here too; the sweep drops expired entries.
    std::vector<QWeakPointer<HttpClientTransfer>> immediateReadTransfers;
    HttpClientCache cache;
};

Q_DECLARE_METATYPE(HttpClient::Callback)
