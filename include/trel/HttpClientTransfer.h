#pragma once

#include <trel/HttpClientHeaders.h>
#include <trel/HttpClientOptions.h>
#include <trel/HttpClientQueue.h>
#include <trel/HttpClientStatus.h>
#include <trel/TrelUrl.h>
#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPair>
#include <QSharedPointer>
#include <QString>
#include <QTemporaryFile>

#include <curl/curl.h>

#include <cstdint>
#include <functional>
#include <memory>

// One HTTP exchange: owns one curl easy handle configured from the request's
// options, collects the response, and reports through its completion callback
// exactly once per start (finish or cancel). Runs on the client's thread.
class TREL_HTTP_CLIENT_EXPORT HttpClientTransfer : public QObject
{
    Q_OBJECT

public:
    using Completion = std::function<void(HttpClientStatus, long, QByteArray, HttpClientHeaders)>;

    // A request body written to a temporary file; the file leaves the disk with
    // the last reference to this object.
    class TREL_HTTP_CLIENT_EXPORT File
    {
    public:
        explicit File(const QByteArray& data);
        File(const File&) = delete;
        File& operator=(const File&) = delete;

        // The file's full path while valid, otherwise empty.
        QString fileName();

    private:
        QTemporaryFile file;
        bool valid = false;
    };

    // What libcurl's write and header callbacks fill.
    struct ReceiveBuffer
    {
        QByteArray body;
        QByteArray headerBlock;
        std::int64_t sizeLimit = 0; // compared unsigned: negative means no limit
        // Content-Length of the response whose headers arrived last; -1 when it
        // sent none. Each status line (redirects, interim 1xx) starts afresh.
        std::int64_t announcedLength = -1;
        // Whether the first body bytes reserve room for the announced length:
        // not for bodies handed over in pieces (immediate read) or HEAD, whose
        // Content-Length describes a body that never comes.
        bool reserveAnnounced = true;
    };

    HttpClientTransfer(int httpVersion, const TrelUrl& url, int method, const HttpClientOptions& options,
        Completion callback);
    // Adopts the easy handle of an HTTP/2 pushed stream, already part of `multi`.
    HttpClientTransfer(
        int httpVersion, void* easy, void* multi, const HttpClientOptions& options, Completion callback);
    ~HttpClientTransfer() override;

    HttpClientTransfer(const HttpClientTransfer&) = delete;
    HttpClientTransfer& operator=(const HttpClientTransfer&) = delete;

    // The easy handle; null when libcurl could not make one.
    void* handle();

    bool setDataToUpload(const QByteArray& data);
    bool setDataToUpload(const QList<QPair<QString, QString>>& form);
    bool setDataToUpload(const QSharedPointer<File>& file);
    bool setDataToUpload(const QSharedPointer<HttpClientQueue>& queue);

    // Called after every socket action: with immediate-read on, hands what has
    // arrived so far to the callback as `ImmediateRead` and empties the buffers.
    void update();
    void start(CURLM* multi);
    void finish(CURLMsg* message);
    void cancel();
    QString getEffectiveUrl(void* easy);

    static size_t curlWriteHeader(void* data, size_t size, size_t count, void* receiveBuffer);
    static size_t curlWriteFunc(void* data, size_t size, size_t count, void* receiveBuffer);
    static size_t streamReadCallback(void* buffer, size_t size, size_t count, void* queue);

private:
    friend class HttpClientTransferTestAccess; // white-box checks of buffers and holders

    struct EasyCleanup
    {
        void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
    };
    struct SlistFree
    {
        void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    };

    static void reserveAnnounced(ReceiveBuffer& buffer);
    bool acceptsBody();
    void configure(int httpVersion);
    void installReceiveCallbacks();
    void reportCompletion(
        HttpClientStatus status, long code, const QByteArray& body, const HttpClientHeaders& headers);
    long responseCode();
    HttpClientHeaders receivedHeaders(bool withEffectiveUrl);
    QSharedPointer<curl_mime> newMime();

    std::unique_ptr<CURL, EasyCleanup> easy;
    std::unique_ptr<curl_slist, SlistFree> headerList;
    TrelUrl url;
    int method = 0;
    HttpClientOptions options;
    Completion callback;
    ReceiveBuffer receiveBuffer;
    QByteArray uploadBytes;
    QSharedPointer<File> uploadFile;
    QSharedPointer<curl_mime> mimeBody;
    QSharedPointer<HttpClientQueue> uploadStream;
    CURLM* activeMulti = nullptr;
};
