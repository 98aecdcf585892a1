#pragma once

// A scriptable HTTP/1.1 server on 127.0.0.1 (ephemeral port) for exact wire
// checks and for faults real servers will not produce on demand. It runs on a
// thread of its own, so a test may block its client's thread (a producer
// waiting on a full upload queue, say) without stopping the server. Every complete request is recorded as
// received (raw bytes, decoded body, multipart parts) before it is answered.

#include <QByteArray>
#include <QList>
#include <QPair>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace trel::test {

struct RecordedPart
{
    QByteArray name;
    QByteArray filename;
    QByteArray contentType;
    QByteArray data;
};

struct RecordedRequest
{
    QByteArray raw; // request line, headers and body exactly as received (chunk framing included)
    QByteArray method; // "POST"
    QByteArray target; // "/echo?a=1"
    QByteArray version; // "HTTP/1.1"
    QList<QPair<QByteArray, QByteArray>> headers; // in order, names as sent
    QByteArray body; // the entity, chunk framing removed
    bool chunked = false;
    QList<RecordedPart> parts; // for multipart/form-data bodies
    int connectionId = 0; // 1, 2, 3... per accepted connection

    // Case-insensitive; the last one wins; empty when absent.
    QByteArray header(const QByteArray& name) const;
    bool hasHeader(const QByteArray& name) const;
};

struct ScriptedResponse
{
    enum class Fault
    {
        None,
        CloseWithoutResponse, // close the connection instead of answering
        ResetConnection, // abortive close: the client sees a reset
        Truncate, // announce the whole body, send `truncateAt` bytes, close
        Stall, // never answer; keep the connection open
        CutAfter, // send the first `cutAt` bytes of the response (head included), then close
        ResetAfter, // send the first `cutAt` bytes, let the client read them, then reset
        CloseSilently, // answer in full, then close without having said so
        StallAfter, // send the first `cutAt` bytes of the response, then nothing more; keep the connection
                    // open
    };

    int status = 200;
    QByteArray reason = "OK";
    QList<QPair<QByteArray, QByteArray>> headers; // sent as given
    QByteArray body;
    int delayMs = 0; // before anything is sent; other connections are served meanwhile
    bool chunked = false; // Transfer-Encoding: chunked, in pieces of `chunkSize`
    int chunkSize = 1024;
    Fault fault = Fault::None;
    int truncateAt = 0;
    bool closeAfter = false; // "Connection: close", then close
    int cutAt = 0; // for CutAfter, ResetAfter and StallAfter: bytes of the whole response
    QByteArray raw; // when not empty, sent as the whole response instead of one built from the fields
    int dripMs = 0; // when > 0, the head goes at once and the body one byte every dripMs milliseconds

    ScriptedResponse& addHeader(const QByteArray& name, const QByteArray& value);
    static ScriptedResponse ok(const QByteArray& body, const QByteArray& contentType = "text/plain");
    static ScriptedResponse redirect(int status, const QByteArray& location);
    // Nothing but the fault (a stall, a close before any byte, ...).
    static ScriptedResponse withFault(Fault fault);
};

class LoopbackServer
{
public:
    using Handler = std::function<ScriptedResponse(const RecordedRequest&)>;

    LoopbackServer();
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    bool start();
    void stop(); // idempotent: closes every socket and joins the thread

    quint16 port() const;
    QByteArray url(const QByteArray& path = "/") const;

    // Runs on the server thread for each complete request.
    void setHandler(Handler handler);

    // The routes served when no other handler is set:
    //   /echo            200, the request body; X-Method, X-Body-Length
    //   /status/<code>   that status, body "status <code>"
    //   /redirect/<n>    302 to /redirect/<n-1>; /redirect/0 answers "done"
    //   /bytes/<n>       n bytes of 'a'..'z' repeated
    //   /gzip            "hello gzip world" x100, gzip-encoded
    //   anything else    200 "ok"
    static ScriptedResponse defaultRoutes(const RecordedRequest& request);

    QList<RecordedRequest> requests() const;
    int requestCount() const;
    int connectionCount() const;
    bool waitForRequests(int count, int timeoutMs) const;
    void clear();
    // False: requests are still answered but no longer kept, so a long run's
    // memory stays flat (requests() then lists nothing new).
    void setRecording(bool keep);

private:
    struct Connection;
    void run();
    void acceptConnections();
    bool serviceRead(Connection& connection);
    bool serviceWrite(Connection& connection);
    void processRequests(Connection& connection);
    void respond(Connection& connection, const RecordedRequest& request);
    void record(const RecordedRequest& request);
    Handler currentHandler() const;

    int listenFd = -1;
    int wakeFds[2] = { -1, -1 };
    quint16 boundPort = 0;
    std::thread thread;
    std::atomic<bool> running { false }; // read by the server thread, cleared by stop()

    mutable std::mutex mutex;
    mutable std::condition_variable recorded;
    QList<RecordedRequest> received;
    bool recording = true;
    int accepted = 0;
    Handler handler;
};

} // namespace trel::test
