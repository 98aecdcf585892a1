/// \file
/// HttpClientTransfer: one HTTP exchange on one libcurl easy handle, as HttpClient runs it.
#pragma once

#include <trel/HttpClientHeaders.h>
#include <trel/HttpClientMultipart.h>
#include <trel/HttpClientOptions.h>
#include <trel/HttpClientQueue.h>
#include <trel/HttpClientStatus.h>
#include <trel/TrelUrl.h>
#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QPair>
#include <QSharedPointer>
#include <QString>
#include <QTemporaryFile>
#include <QTimer>

#include <curl/curl.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>

/// One HTTP exchange: owns one curl easy handle configured from the request's
/// options, collects the response, and reports through its completion callback
/// exactly once per start (finish or cancel). Runs on the client's thread.
///
/// HttpClient creates one per request (and per HTTP/2 push), keeps it in its
/// table under the request id while it runs, and turns its report into the
/// request's result; applications use HttpClient instead. Order of use: create,
/// optionally setDataToUpload(), start(), then update() after every socket
/// action and finish() or cancel() once. With immediate read on, update()
/// reports HttpClientStatus::ImmediateRead any number of times before the final
/// report. The completion callback runs synchronously inside these calls (and
/// inside the destructor); the client queues what it delivers.
class TREL_HTTP_CLIENT_EXPORT HttpClientTransfer : public QObject
{
    Q_OBJECT

public:
    /// Receives each report: status, HTTP response code (0 when no response was
    /// obtained, -1 after cancel()), body and response header fields. Must not
    /// be empty (an empty one throws std::bad_function_call when called).
    using Completion = std::function<void(HttpClientStatus, long, QByteArray, HttpClientHeaders)>;

    /// A request body written to a temporary file; the file leaves the disk with
    /// the last reference to this object.
    ///
    /// Made by HttpClient::postFile() and shared with the transfer that sends
    /// it, so the file stays while libcurl may still read it.
    class TREL_HTTP_CLIENT_EXPORT File
    {
    public:
        /// Writes \p data to a new temporary file `trel-http-fetcher.XXXXXX` in
        /// the system's temporary directory and closes it (libcurl opens it again
        /// by path). A failure logs an ERROR line and leaves the object invalid.
        explicit File(const QByteArray& data);
        /// Not copyable.
        File(const File&) = delete;
        /// Not copyable.
        File& operator=(const File&) = delete;

        /// The file's full path while valid, otherwise empty.
        QString fileName();

    private:
        QTemporaryFile file;
        bool valid = false;
    };

    /// What libcurl's write and header callbacks fill; emptied by each
    /// ImmediateRead report.
    struct ReceiveBuffer
    {
        /// Response body bytes received, at most sizeLimit of them; with immediate
        /// read, those received since the last ImmediateRead report.
        QByteArray body;
        QByteArray headerBlock; ///< Raw header lines of every response received, status lines included.
        std::int64_t sizeLimit = 0; ///< Most body bytes kept; compared unsigned: negative means no limit.
        bool overLimit = false; ///< A write was trimmed at sizeLimit (the failure's reason says so).
        /// Content-Length of the response whose headers arrived last; -1 when it
        /// sent none. Each status line (redirects, interim 1xx) starts afresh.
        std::int64_t announcedLength = -1;
        /// Whether the first body bytes reserve room for the announced length:
        /// not for bodies handed over in pieces (immediate read) or HEAD, whose
        /// Content-Length describes a body that never comes.
        bool reserveAnnounced = true;
        /// Immediate read: sizeLimit bounds what is held between two reports, so
        /// a write that would pass it pauses reception until the held bytes are
        /// handed over, instead of ending the transfer.
        bool limitPerDelivery = false;
        /// Reception is paused until the held bytes are handed over.
        bool receptionPaused = false;
        /// Where the body's pages were last prepared for writing: its data then,
        /// and the offset up to which its pages are faulted in.
        const char* preparedData = nullptr;
        std::int64_t preparedEnd = 0; ///< Offset of the first page not prepared.
    };

    /// Creates the easy handle for a request and configures it from \p options:
    /// request headers, TLS verification, compression, HTTP version, the URL,
    /// http/https only (redirects included), redirects, keep-alive, the timeout
    /// and the method. Not started; when libcurl cannot make a handle,
    /// handle() is null and the object must not be started.
    /// \param httpVersion HttpClient::HttpVersion as an int: 1 asks for HTTP/2.
    /// \param url the URL as sent on the wire, copied.
    /// \param method HttpClient::HttpMethod as an int.
    /// \param options the request's settings, copied.
    /// \param callback receives every report.
    HttpClientTransfer(int httpVersion, const TrelUrl& url, int method, const HttpClientOptions& options,
        Completion callback);

    /// Frees an easy handle; the one release path of a handle nobody else owns.
    struct EasyCleanup
    {
        /// Calls `curl_easy_cleanup` on \p easy.
        void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
    };
    /// Sole owner of one easy handle.
    using EasyHandle = std::unique_ptr<CURL, EasyCleanup>;

    /// As the constructor above, on \p reused: a handle given back by releaseHandle()
    /// of an earlier transfer (reset to libcurl's defaults), or null for a new one.
    HttpClientTransfer(int httpVersion, const TrelUrl& url, int method, const HttpClientOptions& options,
        Completion callback, EasyHandle reused);
    /// Adopts the easy handle of an HTTP/2 pushed stream, already part of `multi`.
    /// The transfer is active at once (never call start()), takes ownership of
    /// \p easy and uses only the read size limit and immediate read of \p options.
    /// \param httpVersion unused.
    /// \param easy the pushed stream's easy handle (a `CURL*`).
    /// \param multi the multi handle (a `CURLM*`) libcurl already added it to.
    /// \param options settings of pushed transfers (HttpClient::setPushProperties()).
    /// \param callback receives every report.
    HttpClientTransfer(
        int httpVersion, void* easy, void* multi, const HttpClientOptions& options, Completion callback);
    /// Cancels the transfer if still active (the callback then receives its
    /// Error/-1 report from here), detaches from the upload queue's watcher, and
    /// frees the easy handle.
    ~HttpClientTransfer() override;

    /// Not copyable.
    HttpClientTransfer(const HttpClientTransfer&) = delete;
    /// Not copyable.
    HttpClientTransfer& operator=(const HttpClientTransfer&) = delete;

    /// The easy handle (a `CURL*`), owned by the transfer; null when libcurl
    /// could not make one.
    void* handle();

    /// Gives up the easy handle of a transfer that is no longer active (finished
    /// or cancelled), reset to libcurl's defaults so that a later transfer can
    /// use it; null while the transfer is active. The handle keeps nothing of
    /// this request: no option, no callback, no pointer into this object.
    EasyHandle releaseHandle();

    /// Sends a copy of \p data as the request body, with its length. Call before start().
    /// \return false (an ERROR log line) for a GET or HEAD transfer.
    bool setDataToUpload(const QByteArray& data);
    /// Sends \p form as a `multipart/form-data` body, one part per (name,
    /// value) pair in order, UTF-8. Call before start().
    /// \return false (an ERROR log line) for a GET or HEAD transfer or when a
    ///         part cannot be built.
    bool setDataToUpload(const QList<QPair<QString, QString>>& form);
    /// Sends \p file as a `multipart/form-data` body with one part named
    /// `filename` of type `application/octet-stream`, and keeps a reference to
    /// it while the transfer lives. Call before start().
    /// \return false (an ERROR log line) for a GET or HEAD transfer, an invalid
    ///         file, or a part that cannot be built.
    bool setDataToUpload(const QSharedPointer<File>& file);
    /// Sends \p form as a `multipart/form-data` body, its parts in order; a
    /// file part's file is opened and read while it is sent. A file that cannot
    /// be opened now is noted: start() then ends the transfer at once with
    /// HttpClientStatus::Error, libcurl's read-error code (26) and the reason,
    /// without sending anything. Call before start().
    /// \return false (an ERROR log line) for a GET or HEAD transfer or when a
    ///         part cannot be built.
    bool setDataToUpload(const HttpClientMultipart& form);
    /// Streams the body from \p queue, with unknown length (chunked over
    /// HTTP/1.1), and sets this transfer as the queue's ready watcher so that a
    /// paused upload resumes on the client's thread. Keeps a reference to the
    /// queue while the transfer lives. Call before start().
    /// \return false (an ERROR log line) for a GET or HEAD transfer.
    bool setDataToUpload(const QSharedPointer<HttpClientQueue>& queue);

    /// Called after every socket action: with immediate-read on, hands what has
    /// arrived so far to the callback as `ImmediateRead` and empties the buffers.
    /// Does nothing otherwise, or when nothing has arrived since the last report.
    void update();
    /// Adds the easy handle to \p multi: the exchange begins as \p multi is
    /// driven. Starting an active transfer logs a FATAL line and does nothing.
    /// When libcurl refuses the handle, the transfer ends at once: it reports
    /// HttpClientStatus::Error, code 0, with libcurl's reason in `X-TrelError`
    /// and a libcurl code in `X-TrelErrorCode`, and stays inactive.
    void start(CURLM* multi);
    /// Whether the transfer is in a multi handle: started (or pushed) and not
    /// yet finished or cancelled.
    bool isActive() const;
    /// Ends the transfer with libcurl's CURLMSG_DONE \p message: removes the
    /// handle from the multi handle and reports the status the result code maps
    /// to, the response code, the body and the headers (with
    /// `X-TrelEfectiveUrl` when the status is `OK`). On an inactive transfer it
    /// logs an ERROR line and does nothing.
    void finish(CURLMsg* message);
    /// Stops an active transfer: removes the handle from the multi handle and
    /// reports HttpClientStatus::Error, code -1, empty body and headers. On an
    /// inactive transfer it logs an ERROR line and does nothing.
    void cancel();
    /// Ends a transfer that was never started because it waited for a
    /// connection longer than its timeout: reports HttpClientStatus::Timeout,
    /// code 0, no body, and the reason in `X-TrelError`. A started transfer is
    /// left alone (an ERROR log line says so).
    /// \param waitedMs how long it waited, for the reason's words.
    void timeOutUnstarted(std::int64_t waitedMs);
    /// Where the reports that must reach the caller ahead of the result go:
    /// the last progress report, and every piece of the request's trace
    /// (HttpClientOptions::setTraceCallback()). \p queue takes a report, made
    /// inside a libcurl callback or as the transfer ends, and runs it from the
    /// event loop, in order with the results it delivers (the client's
    /// delivery queue), so it never runs inside libcurl and outlives the
    /// transfer. Without one, no last progress report and no trace is made.
    /// \param queue takes each report; called on the client's thread.
    void setReportQueue(std::function<void(std::function<void()>)> queue);
    /// What runs when the request's inactivity limit
    /// (HttpClientOptions::setInactivityTimeoutMs()) runs out: \p expire,
    /// given how long nothing moved, ends the request through its owner, which
    /// calls timeOutInactive(). The watch
    /// starts when the transfer starts; without a handler there is none.
    void setInactivityHandler(std::function<void(qint64 idleMs)> expire);
    /// Ends an active transfer on which no body byte moved for \p idleMs
    /// milliseconds: removes the handle from the multi handle and reports
    /// HttpClientStatus::Timeout with what was received, libcurl's timeout code
    /// (28) in `X-TrelErrorCode` and the reason in `X-TrelError`. On an
    /// inactive transfer it logs an ERROR line and does nothing.
    void timeOutInactive(qint64 idleMs);
    /// The URL \p easy (a `CURL*`) ended at after redirects; empty when libcurl
    /// has none.
    QString getEffectiveUrl(void* easy);

    /// libcurl's header callback (CURLOPT_HEADERFUNCTION): appends the line to
    /// ReceiveBuffer::headerBlock of \p receiveBuffer.
    /// \return `size * count`: every byte taken.
    static size_t curlWriteHeader(void* data, size_t size, size_t count, void* receiveBuffer);
    /// libcurl's write callback (CURLOPT_WRITEFUNCTION): appends body bytes to
    /// the ReceiveBuffer \p receiveBuffer up to its size limit (an ERROR log line
    /// when it trims).
    /// \return the bytes taken; fewer than `size * count` when the limit is
    ///         reached, which makes libcurl end the transfer with an error.
    static size_t curlWriteFunc(void* data, size_t size, size_t count, void* receiveBuffer);
    /// libcurl's read callback for a streamed body (CURLOPT_READFUNCTION): takes
    /// what \p queue (an HttpClientQueue) holds with
    /// HttpClientQueue::readAvailable(), never blocking.
    /// \return the bytes copied into \p buffer; CURL_READFUNC_PAUSE when the
    ///         queue is open and empty (its watcher resumes the upload); 0 at
    ///         the end of the body, once the queue is closed and drained.
    static size_t streamReadCallback(void* buffer, size_t size, size_t count, void* queue);
    /// libcurl's progress callback (CURLOPT_XFERINFOFUNCTION), installed only
    /// for a request with a progress callback or an inactivity limit: keeps the
    /// numbers of the HttpClientTransfer \p transfer, notes when they last
    /// changed and schedules a report from the event loop.
    /// \return 0: the transfer goes on.
    static int curlProgress(
        void* transfer, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow);
    /// libcurl's debug callback (CURLOPT_DEBUGFUNCTION, with CURLOPT_VERBOSE),
    /// installed only for a request with a trace callback: queues informational
    /// text and header lines, in and out, for the trace callback (see
    /// setReportQueue()); body and TLS data are passed over. Runs on the
    /// client's thread inside libcurl, and never calls the caller from there.
    /// \param easy the easy handle (unused).
    /// \param type what \p data is.
    /// \param data the piece, not NUL-terminated.
    /// \param size the bytes of \p data.
    /// \param transfer the HttpClientTransfer.
    /// \return 0, as libcurl requires.
    static int curlDebug(CURL* easy, curl_infotype type, char* data, size_t size, void* transfer);

private:
    friend class HttpClientTransferTestAccess; // white-box checks of buffers and holders

    struct SlistFree
    {
        void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    };

    static void reserveAnnounced(ReceiveBuffer& buffer);
    static void prepareAhead(ReceiveBuffer& buffer, std::int64_t sizeAfterWrite);
    bool acceptsBody();
    void resumeUpload();
    void endUploadStream();
    void resumeReception();
    void configure(int httpVersion);
    void configureTlsTrust();
    void installReceiveCallbacks();
    void installProgressCallback();
    void installTraceCallback();
    void configureRateLimits();
    void forgetParentCallbacks();
    void queueTrace(HttpClientOptions::TraceKind kind, const QByteArray& piece);
    bool addMimePart(curl_mime* mime, const HttpClientMultipart::Part& part);
    bool noteIfUnreadable(const QString& path);
    void noteProgress(qint64 received, qint64 receiveTotal, qint64 sent, qint64 sendTotal);
    void reportProgress();
    void reportFinalProgress();
    void startInactivityWatch();
    void stopInactivityWatch();
    void checkInactivity();
    void reportCompletion(
        HttpClientStatus status, long code, const QByteArray& body, const HttpClientHeaders& headers);
    void reportAddFailure(CURLMcode added);
    void reportUnreadableFile();
    void leaveMulti();
    long responseCode();
    HttpClientHeaders receivedHeaders(bool withEffectiveUrl);
    QSharedPointer<curl_mime> newMime();
    // Why libcurl ended the transfer with `result`, in words for the caller.
    QString failureReason(CURLcode result) const;
    int failureCode(CURLcode result) const;

    EasyHandle easy;
    std::unique_ptr<curl_slist, SlistFree> headerList;
    TrelUrl url;
    int method = 0;
    HttpClientOptions options;
    Completion callback;
    ReceiveBuffer receiveBuffer;
    QByteArray uploadBytes;
    QSharedPointer<File> uploadFile;
    QSharedPointer<curl_mime> mimeBody;
    QString unreadableFile; // why a multipart file part cannot be read, when it cannot
    QSharedPointer<HttpClientQueue> uploadStream;
    CURLM* activeMulti = nullptr;
    std::array<char, CURL_ERROR_SIZE> errorText {}; // libcurl's own words for a failure
    // Progress for the caller's progress callback, kept inside libcurl's calls
    // and reported from the event loop.
    struct Progress
    {
        qint64 received = 0;
        qint64 receiveTotal = -1;
        qint64 sent = 0;
        qint64 sendTotal = -1;
        bool unreported = false; // the numbers changed since the last report
        bool reportScheduled = false;
        QElapsedTimer sinceReport; // invalid until the first report
        QElapsedTimer sinceMoved; // restarted whenever a number changes
    };
    Progress progress;
    std::function<void(std::function<void()>)> reportQueue;
    // The caller's trace callback, shared by the pieces queued for it: each
    // piece may run after the transfer is gone. Null without one.
    std::shared_ptr<const HttpClientOptions::TraceCallback> traceReceiver;
    // Single shot, due when the limit could run out; made only for a request
    // with a limit, since a QObject per request is not free.
    std::unique_ptr<QTimer> inactivityTimer;
    std::function<void(qint64 idleMs)> inactivityExpired;
};
