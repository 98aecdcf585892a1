/// \file
/// HttpClient, the asynchronous HTTP client; includes every value type it uses.
#pragma once

#include <trel/HttpClientCache.h>
#include <trel/HttpClientHeaders.h>
#include <trel/HttpClientMultipart.h>
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
#include <QPointer>
#include <QSet>
#include <QSharedPointer>
#include <QSocketNotifier>
#include <QString>
#include <QTimer>
#include <QWeakPointer>

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <vector>

/// An asynchronous HTTP client for the thread that owns it and runs its Qt event loop.
///
/// Create one client per event-loop thread. Every request operation (get(),
/// head(), post(), put(), delete_(), patch(), postForm(), postFile() and
/// postStream(), each in a slot form and a callback form) returns at once with
/// a request id, and the result arrives later, in a following turn of the event
/// loop. Underneath, libcurl's multi interface runs in socket mode on Qt socket
/// notifiers and one timer; the client starts no thread of its own.
///
/// **Ids.** A request id is opaque: keep it to compare it or to pass it to
/// cancel(), never dereference it. One client never issues the same id twice
/// while it lives (ids of two clients may coincide). A null id means one of two
/// things: the request was refused (called off the client's thread, the
/// receiver lacks the result slot, a request header is not allowed, libcurl
/// could not create a handle, or the body could not be prepared) and no result
/// follows, or a get() was answered from the cache and exactly one result follows.
///
/// **Exactly once.** Every request with a non-null id gets exactly one final
/// result: success and failure, cancel() (HttpClientStatus::Error, code -1) and
/// destruction of the client (Error, code -1) included. With
/// HttpClientOptions::setImmediateRead() on, HttpClientStatus::ImmediateRead
/// deliveries may come before it.
///
/// **Never early.** Results are always queued through the event loop, never
/// delivered inside a request operation, cancel(), the destructor or a libcurl
/// callback.
///
/// **Threads.** Everything of a client runs on the thread it belongs to
/// (QObject::thread()). The request operations, cancel(), setCacheSize(),
/// clearCache(), setPushProperties(), setMaxConnections() and
/// setMaxConnectionsPerHost() refuse a call made from any other thread: they return a null id, false or
/// nothing, write an ERROR log line, and no result follows. The destructor, too, must run on that thread. A
/// client moved with moveToThread() takes its timers along and works on its new thread. A slot result runs on
/// the receiver's thread (Qt's queued invocation); a callback runs on the client's thread, and is dropped if
/// the client is destroyed before it runs.
///
/// **Receivers.** The slot forms take a receiver and the bare name of a slot (or
/// Q_INVOKABLE method), such as `"onResult"`, with exactly these six parameters:
/// \code
/// void onResult(const TrelUrl& url, const HttpClientPrivate& context, int status, int code,
///               const QByteArray& body, const HttpClientHeaders& headers);
/// \endcode
/// `url`, `status`, `code`, `body` and `headers` are the fields of
/// HttpClientResult; `context` is HttpClientOptions::userData() of the request.
/// The slot is looked up when the request is made: the bare name, the full
/// signature and the `SLOT()` spelling all name it, and a receiver without such
/// a slot (or an empty or null name) refuses the request: null id, an ERROR log
/// line naming the receiver's class and the slot, nothing sent, no result.
/// A receiver is not owned but watched: one deleted before its result arrives
/// only loses that result (a DEBUG log line says so). Results for one receiver
/// arrive in the order they were queued. A null receiver loses the result; the
/// request is still made.
///
/// **Context objects.** Every callback form has an overload that takes a
/// `QObject* context` just before the callback, as Qt's own functor
/// connections do: when the context is destroyed before the result is
/// delivered, the callback is dropped (a DEBUG log line says so) and the
/// request goes on; a null context guards nothing. The context is checked on
/// the client's thread, so it should live there.
///
/// **Request headers.** A header of the options whose name is not an HTTP
/// token, or whose value carries CR, LF or NUL, would split into further fields
/// or a second request on the wire: such a request is refused at the call (null
/// id, an ERROR log line naming the header but not its value, nothing sent).
///
/// **Schemes.** Only `http` and `https` are spoken: a URL with any other
/// scheme, and a redirect to one, ends with HttpClientStatus::Error.
///
/// **Ownership.** A QObject like any other: \p parent of the constructor may
/// own it. The client owns its libcurl handles, notifiers, timers and the
/// response cache; it copies the options, URL and body of every request.
class TREL_HTTP_CLIENT_EXPORT HttpClient : public QObject
{
    Q_OBJECT

public:
    /// Which HTTP version a client asks for, fixed at construction.
    ///
    /// int-sized with a fixed type, so any value may be passed; only Http2 is
    /// special, every other value behaves as Http1.
    enum HttpVersion : int
    {
        /// Asks for no version: libcurl's default applies (HTTP/1.1 for `http`;
        /// for `https`, HTTP/2 when the server offers it in the TLS handshake,
        /// else HTTP/1.1). Server push is not accepted.
        Http1 = 0,
        /// Asks for HTTP/2 for every request and falls back to HTTP/1.1 where the
        /// server does not speak it; requests to one server share one
        /// multiplexed connection, and pushed responses are accepted (see
        /// setPushProperties()).
        Http2 = 1,
    };

    /// The request methods, in the order of the request operations.
    enum HttpMethod : int
    {
        Get = 0, ///< GET: get(); the only method served from and stored in the cache.
        Head = 1, ///< HEAD: head(); the header lines also arrive in the body.
        Post = 2, ///< POST: post(), postForm(), postFile() and postStream().
        Put = 3, ///< PUT: put().
        Delete = 4, ///< DELETE: delete_().
        Patch = 5, ///< PATCH: patch().
    };

    /// The outcome record of a request, as a callback receives it.
    using Result = HttpClientResult;
    /// Receives the result of a request made with a callback form. Runs on the
    /// client's thread, queued, once per delivery (see the class description); it
    /// is dropped if the client is destroyed before it runs. An empty callback
    /// loses the result. It may make new requests or cancel others.
    using Callback = std::function<void(const HttpClientResult&)>;

    /// Where a result goes: a receiver's slot invoked by name with six arguments
    /// (TrelUrl, HttpClientPrivate, int status, int code, QByteArray,
    /// HttpClientHeaders), or a callback run on the client's thread.
    ///
    /// The request operations build one from their arguments; applications have
    /// no need to.
    struct Reply
    {
        /// The receiver of the slot form. Not owned, but watched: a receiver
        /// deleted before its result arrives only loses that result.
        QPointer<QObject> receiver;
        /// The bare method name, used unchanged; empty for a callback. When
        /// slotMissing is set, the name as the caller spelled it.
        QByteArray slot;
        Callback callback; ///< The callback of the callback form; empty for a slot.
        bool toReceiver = false; ///< A receiver was given (it may be gone since).
        /// The receiver has no six-argument slot of that name: the request is refused.
        bool slotMissing = false;
        /// The context object of a callback: once it is destroyed, the callback
        /// is dropped instead of run. Watched only when hasContext is set.
        QPointer<QObject> context;
        bool hasContext = false; ///< A context object was given (it may be gone since).

        /// A destination that invokes \p slot (a bare method name, copied) on
        /// \p receiver, queued; a null \p receiver loses every result.
        static Reply toSlot(QObject* receiver, const char* slot);
        /// A destination that invokes the six-argument slot \p slot names on
        /// \p receiver, queued. \p slot may be the bare name (`"onResult"`), the
        /// full signature or the `SLOT()` spelling; it is looked up at once, and
        /// when a non-null \p receiver has no such slot, slotMissing is set.
        static Reply toResultSlot(QObject* receiver, const char* slot);
        /// A destination that runs \p callback on the client's thread, queued.
        static Reply toCallback(Callback callback);
        /// A destination that runs \p callback on the client's thread, queued,
        /// unless \p context (when not null) has been destroyed by then.
        static Reply toCallback(QObject* context, Callback callback);
    };

    /// Creates a client belonging to the calling thread, whose event loop must
    /// run for anything to happen.
    /// \param parent the QObject parent, which then owns the client.
    /// \param version HTTP/2 with multiplexing and server push (Http2), or
    ///        libcurl's default version (Http1).
    /// \param encodePlusSign true rewrites every "+" in a request URL's query as
    ///        "%2B" on the wire; results still carry the caller's URL.
    explicit HttpClient(QObject* parent = nullptr, HttpVersion version = Http1, bool encodePlusSign = false);
    /// Ends every live request, pushed ones included, as if cancelled: each
    /// gets its one result, HttpClientStatus::Error with code -1, queued. Slot
    /// receivers get it later from the event loop; callback results are dropped,
    /// since callbacks run on the client. Must run on the client's thread.
    ~HttpClient() override;

    /// Not copyable.
    HttpClient(const HttpClient&) = delete;
    /// Not copyable.
    HttpClient& operator=(const HttpClient&) = delete;

    /// Starts a GET request; see the class description for ids and results.
    ///
    /// A fresh response in the cache (see setCacheSize()) answers it without a
    /// transfer: the id is then null and the stored result is still delivered,
    /// once, queued.
    /// \param url an `http` or `https` URL, copied.
    /// \param receiver receives the result through \p slot, on its own thread;
    ///        not owned, watched (see the class description).
    /// \param slot the bare name of the receiver's six-argument slot, such as "onResult".
    /// \param options the request's settings, copied.
    /// \return the request id; null when refused (no result follows) or when
    ///         answered from the cache (one result follows).
    void* get(const TrelUrl& url, QObject* receiver, const char* slot, const HttpClientOptions& options);
    /// Starts a GET request; see the class description for ids and results.
    ///
    /// A fresh response in the cache (see setCacheSize()) answers it without a
    /// transfer: the id is then null and the stored result is still delivered,
    /// once, queued.
    /// \param url an `http` or `https` URL, copied.
    /// \param options the request's settings, copied.
    /// \param callback receives the result on the client's thread.
    /// \return the request id; null when refused (no result follows) or when
    ///         answered from the cache (one result follows).
    void* get(const TrelUrl& url, const HttpClientOptions& options, Callback callback);
    /// The callback form of get() above, tied to \p context: the callback
    /// is dropped if \p context is destroyed before the result is delivered.
    /// \param url an `http` or `https` URL, copied.
    /// \param options the request's settings, copied.
    /// \param context guards the callback; not owned, watched; null guards nothing.
    /// \param callback receives the result on the client's thread.
    /// \return the request id, as the callback form above.
    void* get(const TrelUrl& url, const HttpClientOptions& options, QObject* context, Callback callback);
    /// Starts a HEAD request; see the class description for ids and results.
    ///
    /// The response's header lines arrive both in the result's headers and in its
    /// body (within HttpClientOptions::readSizeLimit()).
    /// \param url an `http` or `https` URL, copied.
    /// \param receiver receives the result through \p slot, on its own thread;
    ///        not owned, watched (see the class description).
    /// \param slot the bare name of the receiver's six-argument slot, such as "onResult".
    /// \param options the request's settings, copied.
    /// \return the request id; null when refused (no result follows).
    void* head(const TrelUrl& url, QObject* receiver, const char* slot, const HttpClientOptions& options);
    /// Starts a HEAD request; see the class description for ids and results.
    ///
    /// The response's header lines arrive both in the result's headers and in its
    /// body (within HttpClientOptions::readSizeLimit()).
    /// \param url an `http` or `https` URL, copied.
    /// \param options the request's settings, copied.
    /// \param callback receives the result on the client's thread.
    /// \return the request id; null when refused (no result follows).
    void* head(const TrelUrl& url, const HttpClientOptions& options, Callback callback);
    /// The callback form of head() above, tied to \p context: the callback
    /// is dropped if \p context is destroyed before the result is delivered.
    /// \param url an `http` or `https` URL, copied.
    /// \param options the request's settings, copied.
    /// \param context guards the callback; not owned, watched; null guards nothing.
    /// \param callback receives the result on the client's thread.
    /// \return the request id, as the callback form above.
    void* head(const TrelUrl& url, const HttpClientOptions& options, QObject* context, Callback callback);
    /// Starts a POST request with \p data as its body; see the class description
    /// for ids and results.
    /// \param url an `http` or `https` URL, copied.
    /// \param data the request body, copied; an empty body is still sent as one.
    /// \param receiver receives the result through \p slot, on its own thread;
    ///        not owned, watched (see the class description).
    /// \param slot the bare name of the receiver's six-argument slot, such as "onResult".
    /// \param options the request's settings, copied.
    /// \return the request id; null when refused (no result follows).
    void* post(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
        const HttpClientOptions& options);
    /// Starts a POST request with \p data as its body; see the class description
    /// for ids and results.
    /// \param url an `http` or `https` URL, copied.
    /// \param data the request body, copied; an empty body is still sent as one.
    /// \param options the request's settings, copied.
    /// \param callback receives the result on the client's thread.
    /// \return the request id; null when refused (no result follows).
    void* post(
        const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback);
    /// The callback form of post() above, tied to \p context: the callback
    /// is dropped if \p context is destroyed before the result is delivered.
    /// \param url an `http` or `https` URL, copied.
    /// \param data as in the callback form above.
    /// \param options the request's settings, copied.
    /// \param context guards the callback; not owned, watched; null guards nothing.
    /// \param callback receives the result on the client's thread.
    /// \return the request id, as the callback form above.
    void* post(const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, QObject* context,
        Callback callback);
    /// Starts a PUT request with \p data as its body; see the class description
    /// for ids and results.
    /// \param url an `http` or `https` URL, copied.
    /// \param data the request body, copied; an empty body is still sent as one.
    /// \param receiver receives the result through \p slot, on its own thread;
    ///        not owned, watched (see the class description).
    /// \param slot the bare name of the receiver's six-argument slot, such as "onResult".
    /// \param options the request's settings, copied.
    /// \return the request id; null when refused (no result follows).
    void* put(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
        const HttpClientOptions& options);
    /// Starts a PUT request with \p data as its body; see the class description
    /// for ids and results.
    /// \param url an `http` or `https` URL, copied.
    /// \param data the request body, copied; an empty body is still sent as one.
    /// \param options the request's settings, copied.
    /// \param callback receives the result on the client's thread.
    /// \return the request id; null when refused (no result follows).
    void* put(
        const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback);
    /// The callback form of put() above, tied to \p context: the callback
    /// is dropped if \p context is destroyed before the result is delivered.
    /// \param url an `http` or `https` URL, copied.
    /// \param data as in the callback form above.
    /// \param options the request's settings, copied.
    /// \param context guards the callback; not owned, watched; null guards nothing.
    /// \param callback receives the result on the client's thread.
    /// \return the request id, as the callback form above.
    void* put(const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, QObject* context,
        Callback callback);
    /// Starts a DELETE request with \p data as its body; see the class
    /// description for ids and results. (`delete` is a C++ keyword.)
    /// \param url an `http` or `https` URL, copied.
    /// \param data the request body, copied; an empty body is still sent as one.
    /// \param receiver receives the result through \p slot, on its own thread;
    ///        not owned, watched (see the class description).
    /// \param slot the bare name of the receiver's six-argument slot, such as "onResult".
    /// \param options the request's settings, copied.
    /// \return the request id; null when refused (no result follows).
    void* delete_(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
        const HttpClientOptions& options);
    /// Starts a DELETE request with \p data as its body; see the class
    /// description for ids and results. (`delete` is a C++ keyword.)
    /// \param url an `http` or `https` URL, copied.
    /// \param data the request body, copied; an empty body is still sent as one.
    /// \param options the request's settings, copied.
    /// \param callback receives the result on the client's thread.
    /// \return the request id; null when refused (no result follows).
    void* delete_(
        const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback);
    /// The callback form of delete_() above, tied to \p context: the callback
    /// is dropped if \p context is destroyed before the result is delivered.
    /// \param url an `http` or `https` URL, copied.
    /// \param data as in the callback form above.
    /// \param options the request's settings, copied.
    /// \param context guards the callback; not owned, watched; null guards nothing.
    /// \param callback receives the result on the client's thread.
    /// \return the request id, as the callback form above.
    void* delete_(const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options,
        QObject* context, Callback callback);
    /// Starts a PATCH request with \p data as its body; see the class description
    /// for ids and results.
    /// \param url an `http` or `https` URL, copied.
    /// \param data the request body, copied; an empty body is still sent as one.
    /// \param receiver receives the result through \p slot, on its own thread;
    ///        not owned, watched (see the class description).
    /// \param slot the bare name of the receiver's six-argument slot, such as "onResult".
    /// \param options the request's settings, copied.
    /// \return the request id; null when refused (no result follows).
    void* patch(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
        const HttpClientOptions& options);
    /// Starts a PATCH request with \p data as its body; see the class description
    /// for ids and results.
    /// \param url an `http` or `https` URL, copied.
    /// \param data the request body, copied; an empty body is still sent as one.
    /// \param options the request's settings, copied.
    /// \param callback receives the result on the client's thread.
    /// \return the request id; null when refused (no result follows).
    void* patch(
        const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback);
    /// The callback form of patch() above, tied to \p context: the callback
    /// is dropped if \p context is destroyed before the result is delivered.
    /// \param url an `http` or `https` URL, copied.
    /// \param data as in the callback form above.
    /// \param options the request's settings, copied.
    /// \param context guards the callback; not owned, watched; null guards nothing.
    /// \param callback receives the result on the client's thread.
    /// \return the request id, as the callback form above.
    void* patch(const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options,
        QObject* context, Callback callback);
    /// Starts a request with the method \p verb (any HTTP token: WebDAV's
    /// PROPFIND or MKCOL, say) and \p data as its body; see the class
    /// description for ids and results. The body is sent whole, as with put(),
    /// and the response is never cached; a redirect keeps the verb. `HEAD` is
    /// sent as head() sends it, without the body.
    /// \param verb the method, sent as given (case included); one that is not
    ///        an HTTP token (empty, or with a space, a control character or a
    ///        separator) is refused with an ERROR log line.
    /// \param url an `http` or `https` URL, copied.
    /// \param data the request body, copied; an empty body is still sent as one.
    /// \param receiver receives the result through \p slot, on its own thread;
    ///        not owned, watched (see the class description).
    /// \param slot the bare name of the receiver's six-argument slot, such as "onResult".
    /// \param options the request's settings, copied.
    /// \return the request id; null when refused (no result follows).
    void* sendCustomRequest(const QByteArray& verb, const TrelUrl& url, const QByteArray& data,
        QObject* receiver, const char* slot, const HttpClientOptions& options);
    /// The callback form of sendCustomRequest() above.
    /// \param verb as in the slot form above.
    /// \param url an `http` or `https` URL, copied.
    /// \param data the request body, copied; an empty body is still sent as one.
    /// \param options the request's settings, copied.
    /// \param callback receives the result on the client's thread.
    /// \return the request id; null when refused (no result follows).
    void* sendCustomRequest(const QByteArray& verb, const TrelUrl& url, const QByteArray& data,
        const HttpClientOptions& options, Callback callback);
    /// The callback form of sendCustomRequest() above, tied to \p context: the
    /// callback is dropped if \p context is destroyed before the result is delivered.
    /// \param verb as in the slot form above.
    /// \param url an `http` or `https` URL, copied.
    /// \param data as in the callback form above.
    /// \param options the request's settings, copied.
    /// \param context guards the callback; not owned, watched; null guards nothing.
    /// \param callback receives the result on the client's thread.
    /// \return the request id, as the callback form above.
    void* sendCustomRequest(const QByteArray& verb, const TrelUrl& url, const QByteArray& data,
        const HttpClientOptions& options, QObject* context, Callback callback);
    /// Starts a POST request whose body is streamed from \p queue; see the class
    /// description for ids and results.
    ///
    /// The body is sent with unknown length (chunked over HTTP/1.1). The queue
    /// is the only object the request shares with other threads: producers feed
    /// it from any thread, the client's own included, with
    /// HttpClientQueue::append() and HttpClientQueue::prepend(), and end the
    /// body with HttpClientQueue::close(). The client reads it on its own thread
    /// without ever blocking: while the queue is open and empty the upload
    /// pauses and the client goes on serving everything else, and the next
    /// append, prepend or close resumes it. The body ends when the queue is
    /// closed and drained. A producer that stalls is ended like any request: by
    /// the timeout (HttpClientStatus::Timeout), cancel() or destruction of the
    /// client. One queue serves one request. A capacity on the queue
    /// (HttpClientQueue::setCapacity()) bounds its memory; once the request
    /// ends before the body was read, the queue is abandoned and append()
    /// returns false.
    /// \param url an `http` or `https` URL, copied.
    /// \param queue the body's source; shared with the producers, kept until the request ends.
    /// \param receiver receives the result through \p slot, on its own thread;
    ///        not owned, watched (see the class description).
    /// \param slot the bare name of the receiver's six-argument slot, such as "onResult".
    /// \param options the request's settings, copied.
    /// \return the request id; null when refused (no result follows).
    void* postStream(const TrelUrl& url, QSharedPointer<HttpClientQueue> queue, QObject* receiver,
        const char* slot, const HttpClientOptions& options);
    /// Starts a POST request whose body is streamed from \p queue; see the class
    /// description for ids and results.
    ///
    /// The body is sent with unknown length (chunked over HTTP/1.1). The queue
    /// is the only object the request shares with other threads: producers feed
    /// it from any thread, the client's own included, with
    /// HttpClientQueue::append() and HttpClientQueue::prepend(), and end the
    /// body with HttpClientQueue::close(). The client reads it on its own thread
    /// without ever blocking: while the queue is open and empty the upload
    /// pauses and the client goes on serving everything else, and the next
    /// append, prepend or close resumes it. The body ends when the queue is
    /// closed and drained. A producer that stalls is ended like any request: by
    /// the timeout (HttpClientStatus::Timeout), cancel() or destruction of the
    /// client. One queue serves one request. A capacity on the queue
    /// (HttpClientQueue::setCapacity()) bounds its memory; once the request
    /// ends before the body was read, the queue is abandoned and append()
    /// returns false.
    /// \param url an `http` or `https` URL, copied.
    /// \param queue the body's source; shared with the producers, kept until the request ends.
    /// \param options the request's settings, copied.
    /// \param callback receives the result on the client's thread.
    /// \return the request id; null when refused (no result follows).
    void* postStream(const TrelUrl& url, QSharedPointer<HttpClientQueue> queue,
        const HttpClientOptions& options, Callback callback);
    /// The callback form of postStream() above, tied to \p context: the callback
    /// is dropped if \p context is destroyed before the result is delivered.
    /// \param url an `http` or `https` URL, copied.
    /// \param queue as in the callback form above.
    /// \param options the request's settings, copied.
    /// \param context guards the callback; not owned, watched; null guards nothing.
    /// \param callback receives the result on the client's thread.
    /// \return the request id, as the callback form above.
    void* postStream(const TrelUrl& url, QSharedPointer<HttpClientQueue> queue,
        const HttpClientOptions& options, QObject* context, Callback callback);
    /// Starts a PUT request whose body is streamed from \p queue: everything
    /// postStream() says holds, with PUT as the method.
    /// \param url an `http` or `https` URL, copied.
    /// \param queue the body's source; shared with the producers, kept until the request ends.
    /// \param receiver receives the result through \p slot, on its own thread;
    ///        not owned, watched (see the class description).
    /// \param slot the bare name of the receiver's six-argument slot, such as "onResult".
    /// \param options the request's settings, copied.
    /// \return the request id; null when refused (no result follows).
    void* putStream(const TrelUrl& url, const QSharedPointer<HttpClientQueue>& queue, QObject* receiver,
        const char* slot, const HttpClientOptions& options);
    /// The callback form of putStream() above.
    /// \param url an `http` or `https` URL, copied.
    /// \param queue the body's source; shared with the producers, kept until the request ends.
    /// \param options the request's settings, copied.
    /// \param callback receives the result on the client's thread.
    /// \return the request id; null when refused (no result follows).
    void* putStream(const TrelUrl& url, const QSharedPointer<HttpClientQueue>& queue,
        const HttpClientOptions& options, Callback callback);
    /// The callback form of putStream() above, tied to \p context: the callback
    /// is dropped if \p context is destroyed before the result is delivered.
    /// \param url an `http` or `https` URL, copied.
    /// \param queue as in the callback form above.
    /// \param options the request's settings, copied.
    /// \param context guards the callback; not owned, watched; null guards nothing.
    /// \param callback receives the result on the client's thread.
    /// \return the request id, as the callback form above.
    void* putStream(const TrelUrl& url, const QSharedPointer<HttpClientQueue>& queue,
        const HttpClientOptions& options, QObject* context, Callback callback);
    /// Starts a POST request whose body is a `multipart/form-data` form; see the
    /// class description for ids and results.
    /// \param url an `http` or `https` URL, copied.
    /// \param fields the form fields as (name, value) pairs, sent in order as
    ///        UTF-8; copied. A failure to build the form refuses the request.
    /// \param receiver receives the result through \p slot, on its own thread;
    ///        not owned, watched (see the class description).
    /// \param slot the bare name of the receiver's six-argument slot, such as "onResult".
    /// \param options the request's settings, copied.
    /// \return the request id; null when refused (no result follows).
    void* postForm(const TrelUrl& url, const QList<QPair<QString, QString>>& fields, QObject* receiver,
        const char* slot, const HttpClientOptions& options);
    /// Starts a POST request whose body is a `multipart/form-data` form; see the
    /// class description for ids and results.
    /// \param url an `http` or `https` URL, copied.
    /// \param fields the form fields as (name, value) pairs, sent in order as
    ///        UTF-8; copied. A failure to build the form refuses the request.
    /// \param options the request's settings, copied.
    /// \param callback receives the result on the client's thread.
    /// \return the request id; null when refused (no result follows).
    void* postForm(const TrelUrl& url, const QList<QPair<QString, QString>>& fields,
        const HttpClientOptions& options, Callback callback);
    /// The callback form of postForm() above, tied to \p context: the callback
    /// is dropped if \p context is destroyed before the result is delivered.
    /// \param url an `http` or `https` URL, copied.
    /// \param fields as in the callback form above.
    /// \param options the request's settings, copied.
    /// \param context guards the callback; not owned, watched; null guards nothing.
    /// \param callback receives the result on the client's thread.
    /// \return the request id, as the callback form above.
    void* postForm(const TrelUrl& url, const QList<QPair<QString, QString>>& fields,
        const HttpClientOptions& options, QObject* context, Callback callback);
    /// Starts a POST request that uploads \p data as a file; see the class
    /// description for ids and results.
    ///
    /// The data is written to a temporary file `trel-http-fetcher.XXXXXX` in the
    /// system's temporary directory, then sent as a `multipart/form-data` body
    /// with one part named `filename` of type `application/octet-stream`. The
    /// file is removed when the request ends. A file that cannot be written
    /// refuses the request.
    /// \param url an `http` or `https` URL, copied.
    /// \param data the file's content, copied to the temporary file.
    /// \param receiver receives the result through \p slot, on its own thread;
    ///        not owned, watched (see the class description).
    /// \param slot the bare name of the receiver's six-argument slot, such as "onResult".
    /// \param options the request's settings, copied.
    /// \return the request id; null when refused (no result follows).
    void* postFile(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
        const HttpClientOptions& options);
    /// Starts a POST request that uploads \p data as a file; see the class
    /// description for ids and results.
    ///
    /// The data is written to a temporary file `trel-http-fetcher.XXXXXX` in the
    /// system's temporary directory, then sent as a `multipart/form-data` body
    /// with one part named `filename` of type `application/octet-stream`. The
    /// file is removed when the request ends. A file that cannot be written
    /// refuses the request.
    /// \param url an `http` or `https` URL, copied.
    /// \param data the file's content, copied to the temporary file.
    /// \param options the request's settings, copied.
    /// \param callback receives the result on the client's thread.
    /// \return the request id; null when refused (no result follows).
    void* postFile(
        const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback);
    /// The callback form of postFile() above, tied to \p context: the callback
    /// is dropped if \p context is destroyed before the result is delivered.
    /// \param url an `http` or `https` URL, copied.
    /// \param data as in the callback form above.
    /// \param options the request's settings, copied.
    /// \param context guards the callback; not owned, watched; null guards nothing.
    /// \param callback receives the result on the client's thread.
    /// \return the request id, as the callback form above.
    void* postFile(const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options,
        QObject* context, Callback callback);
    /// Starts a POST request whose body is the `multipart/form-data` \p form:
    /// fields, bytes and files, each file read from disk while it is sent; see
    /// the class description for ids and results. A file that cannot be opened
    /// ends the request with HttpClientStatus::Error and the reason.
    /// \param url an `http` or `https` URL, copied.
    /// \param form the parts, copied (a file part by its path).
    /// \param receiver receives the result through \p slot, on its own thread;
    ///        not owned, watched (see the class description).
    /// \param slot the bare name of the receiver's six-argument slot, such as "onResult".
    /// \param options the request's settings, copied.
    /// \return the request id; null when refused (no result follows).
    void* postMultipart(const TrelUrl& url, const HttpClientMultipart& form, QObject* receiver,
        const char* slot, const HttpClientOptions& options);
    /// The callback form of postMultipart() above.
    /// \param url an `http` or `https` URL, copied.
    /// \param form as in the slot form above.
    /// \param options the request's settings, copied.
    /// \param callback receives the result on the client's thread.
    /// \return the request id; null when refused (no result follows).
    void* postMultipart(const TrelUrl& url, const HttpClientMultipart& form, const HttpClientOptions& options,
        Callback callback);
    /// The callback form of postMultipart() above, tied to \p context: the
    /// callback is dropped if \p context is destroyed before the result is
    /// delivered.
    /// \param url an `http` or `https` URL, copied.
    /// \param form as in the slot form above.
    /// \param options the request's settings, copied.
    /// \param context guards the callback; not owned, watched; null guards nothing.
    /// \param callback receives the result on the client's thread.
    /// \return the request id, as the callback form above.
    void* postMultipart(const TrelUrl& url, const HttpClientMultipart& form, const HttpClientOptions& options,
        QObject* context, Callback callback);

    /// Cancels the live request with this id.
    ///
    /// The request stops at once and its result, HttpClientStatus::Error with
    /// code -1 and an empty body, is queued like any other: the request still
    /// gets exactly one result, never inside this call. Pushed responses have
    /// ids of their own but these are not handed out, so they cannot be cancelled.
    /// \param id a request id returned by this client.
    /// \return true when a live request had this id; false for a finished,
    ///         unknown, stale or null id, which touches nothing, and when
    ///         called off the client's thread.
    bool cancel(void* id);

    /// The most connections the client keeps open at once, to all servers
    /// together (libcurl's CURLMOPT_MAX_TOTAL_CONNECTIONS). Requests beyond it
    /// wait in libcurl's queue for a connection to come free; a waiting
    /// request's timeout still runs. The default leaves the process room under
    /// its descriptor limit: half the soft RLIMIT_NOFILE at construction, at
    /// least 256 and at most 1024. Refused off the client's thread.
    /// \param connections the limit; 0 or less means no limit.
    void setMaxConnections(int connections);
    /// The most connections the client keeps open at once to one host
    /// (libcurl's CURLMOPT_MAX_HOST_CONNECTIONS); requests beyond it wait as
    /// with setMaxConnections(). No limit by default. Refused off the client's
    /// thread.
    /// \param connections the limit; 0 or less means no limit.
    void setMaxConnectionsPerHost(int connections);

    /// Sends every later request of this client through the proxy \p url:
    /// `http://`, `https://`, `socks5://` or `socks5h://` with a host and a
    /// port (and user info when the proxy asks for credentials). An empty
    /// string sends them directly, even when the environment names a proxy. A
    /// client that never calls this follows libcurl's environment rule
    /// (`http_proxy`, `https_proxy`, `no_proxy`). Requests already made keep
    /// their route; a proxy that cannot be reached ends a request with
    /// HttpClientStatus::ConnectError. Refused off the client's thread.
    /// \param url the proxy's URL, or empty for none.
    void setProxy(const QString& url);

    /// Turns this client's cookie engine on or off (off initially).
    ///
    /// On, the cookies that responses set are kept and sent with the client's
    /// later requests that match them, by libcurl's rules for domain, path,
    /// expiry and `Secure`; all the client's transfers share one jar, and no
    /// other client sees it. Off, nothing is sent or kept, and the jar stays as
    /// it is for a later turn on. While the engine is on and its jar may hold a
    /// cookie, a GET is neither answered from the response cache nor stored in
    /// it, and a response that sets a cookie is never stored. Applies to
    /// requests made after the call. Refused off the client's thread.
    /// \param enabled whether later requests use the jar.
    void setCookiesEnabled(bool enabled);
    /// The jar's cookies in the Netscape cookie-file format (as curl's
    /// `--cookie-jar` writes it), for setCookies() in a later session; the
    /// header line alone when the jar is empty. Empty off the client's thread.
    /// \return one line per cookie after a header line.
    QByteArray cookies() const;
    /// Adds cookies to the jar, as a session saved with cookies() left them:
    /// lines in the Netscape cookie-file format, or `Set-Cookie:` header lines.
    /// Comment and blank lines are skipped; a cookie replaces one of the same
    /// name, domain and path. Does not turn the engine on. Refused off the
    /// client's thread.
    /// \param netscapeCookies the lines, UTF-8 or ASCII.
    void setCookies(const QByteArray& netscapeCookies);

    /// Sets the response cache's budget of body bytes; 0 (the initial state)
    /// turns the cache off and drops what it holds.
    ///
    /// The cache keeps GET responses in memory, least recently used out first,
    /// keyed by the URL without user info and fragment. A response is stored
    /// when its request carried no `Authorization` or `Cookie` header, it has
    /// no `Vary` field other than `Vary: Accept-Encoding`, and its headers allow
    /// it: an `Expires` date in the future (which alone decides when present),
    /// or a `Cache-Control` whose first recognised directive is `public`,
    /// `private` or `max-age` (not `no-cache`). It stays fresh until that date,
    /// for `max-age` seconds, or for 60 seconds after `public`/`private` (see
    /// HttpClientCacheEntry). A get() whose URL has a fresh entry, and that
    /// carries no `Authorization` or `Cookie` header, is answered from it: null
    /// id, and the stored status, code, body and headers delivered once, queued.
    /// A body larger than the whole budget is still stored, pushing out every
    /// other entry.
    /// \param size the budget in bytes; values above INT_MAX are not supported.
    void setCacheSize(size_t size);
    /// Drops every stored response; the budget stays as it is.
    void clearCache();
    /// Where HTTP/2 pushed responses go, and the options their transfers use.
    ///
    /// Only an Http2 client accepts pushes; it accepts every one. Each pushed
    /// response is a request of its own with one result, delivered to the
    /// receiver and slot set when the push arrived, with an empty URL (the
    /// pushed URL is in the `X-TrelEfectiveUrl` header of an `OK` result).
    /// Until this is called, or with a null \p receiver, pushed responses are
    /// received and their results dropped.
    /// \param receiver receives pushed results through \p slot; not owned, watched.
    /// \param slot the bare name of the receiver's six-argument slot.
    /// \param options the settings of pushed transfers (read size limit,
    ///        immediate read, caller context), copied.
    void setPushProperties(QObject* receiver, const char* slot, const HttpClientOptions& options);

    /// The name of a status: "OK", "ResolveError", "ConnectError", "Timeout",
    /// "Error" or "ImmediateRead" for 0..5; "Invalid status N" for any other
    /// value N. Safe on any thread.
    static QString toString(HttpClientStatus status);

    /// libcurl's socket callback (CURLMOPT_SOCKETFUNCTION): starts or stops
    /// watching \p s with Qt socket notifiers as \p what asks. Public only so
    /// that libcurl can be given its address; not for applications. Runs inside
    /// libcurl calls on the client's thread.
    /// \param easy the easy handle concerned (unused).
    /// \param s the socket.
    /// \param what CURL_POLL_IN, CURL_POLL_OUT, CURL_POLL_INOUT or CURL_POLL_REMOVE.
    /// \param userp the HttpClient.
    /// \param socketp libcurl's per-socket pointer (unused).
    /// \return 0, always.
    static int handleSocket(CURL* easy, curl_socket_t s, int what, void* userp, void* socketp);
    /// libcurl's timer callback (CURLMOPT_TIMERFUNCTION): starts the client's
    /// one timer, whose expiry is served from a later turn of the event loop
    /// (even for 0 ms), or stops it. Public only so that libcurl can be given
    /// its address; not for applications. Runs inside libcurl calls on the
    /// client's thread.
    /// \param multi the multi handle (unused).
    /// \param timeout_ms milliseconds until libcurl wants to be called; -1 stops the timer.
    /// \param userp the HttpClient.
    /// \return 0, always.
    static int startTimeout(CURLM* multi, long timeout_ms, void* userp);
    /// libcurl's server push callback (CURLMOPT_PUSHFUNCTION, Http2 clients
    /// only): accepts every push and makes it a request with an id of its own,
    /// answered as setPushProperties() says at this moment. Public only so that
    /// libcurl can be given its address; not for applications. Runs inside
    /// libcurl calls on the client's thread.
    /// \param parent the easy handle of the request the push belongs to (unused).
    /// \param easy the pushed stream's new easy handle, then owned by the client.
    /// \param num_headers the number of pushed request headers (unused).
    /// \param headers the pushed request headers (unused).
    /// \param userp the HttpClient.
    /// \return CURL_PUSH_OK, always.
    static int serverPushCallback(
        CURL* parent, CURL* easy, size_t num_headers, curl_pushheaders* headers, void* userp);

private Q_SLOTS:
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
        const Reply& reply, const char* signature, const QByteArray& verb = QByteArray());
    void* sendCustom(const QByteArray& verb, const TrelUrl& url, const QByteArray& body,
        const HttpClientOptions& options, const Reply& reply, const char* signature);
    QSharedPointer<HttpClientTransfer> createTransfer(
        TrelUrl url, HttpMethod method, const HttpClientOptions& options, const Reply& reply);
    void notifyCaller(const Reply& reply, const HttpClientResult& result, const HttpClientPrivate& context);
    void queueCallback(const HttpClientResult& result, const Reply& reply);
    void queueReport(std::function<void()> report);
    void endInactive(void* id, qint64 idleMs);
    CURLSH* ensureCookieShare();
    void applyCookieEngine(CURL* handle);
    bool cookieJarInUse() const;
    void refuseMissingSlot(const Reply& reply) const;
    bool requestHeadersAllowed(const HttpClientOptions& options) const;
    // Admission: at most connectionLimit transfers of requests are in libcurl at
    // once; the others wait here (see HttpClientAdmission.cpp).
    struct WaitingTransfer
    {
        std::int64_t enqueuedMs = 0;
        int timeoutMs = 0;
        std::multimap<std::int64_t, void*>::iterator deadline;
    };
    void admitOrWait(void* id, HttpClientTransfer& transfer, int timeoutMs);
    bool hasRoomForAnother() const;
    void admit(void* id, HttpClientTransfer& transfer);
    void releaseAdmission(void* id);
    void admitWaiting();
    void startAfterWaiting(void* id);
    WaitingTransfer stopWaiting(void* id);
    void expireWaiting();
    void armWaitingExpiry();
    void endRequest(void* id, HttpClientTransfer& transfer);
    void postCallbackDelivery();
    void deliverQueuedCallbacks();
    // Every connection goes through here: a connection Qt refuses (unknown
    // signal or slot, unregistered queued argument type) is a contract violation.
    void connectVerified(
        const QObject* sender, const char* signal, const char* method, Qt::ConnectionType type);
    void listenSocket(curl_socket_t socket, bool in, bool out);
    void removeSocket(curl_socket_t socket);
    QSharedPointer<QSocketNotifier> makeNotifier(curl_socket_t socket, QSocketNotifier::Type type);
    void blockWriteNotifier(int socket);
    void harvestFinishedTransfers();
    void* registerTransfer(const QSharedPointer<HttpClientTransfer>& transfer, bool immediateRead);
    QSharedPointer<HttpClientTransfer> takeTransfer(void* id);
    void recycleHandle(HttpClientTransfer& transfer);
    // Logs and answers false when called off the client's thread.
    bool onOwnThread(const char* operation) const;

    CURLM* multi = nullptr;
    QTimer timer;
    HttpVersion httpVersion;
    bool encodePlusSign;
    // Set by setProxy(): every later transfer gets proxyUrl (empty: none). Unset,
    // libcurl reads the environment.
    bool proxyChosen = false;
    QByteArray proxyUrl;
    // The cookie jar: one libcurl share handle per client, made when first
    // needed. Declared before every holder of easy handles, so it is freed
    // after all of them have left it.
    struct CookieShareFree
    {
        void operator()(CURLSH* share) const;
    };
    std::unique_ptr<CURLSH, CookieShareFree> cookieShare;
    bool cookiesEnabled = false;
    bool cookieJarMayHoldCookies = false; // set by setCookies() or any Set-Cookie seen
    QPointer<QObject> pushReceiver; // watched like any receiver
    QByteArray pushSlot;
    HttpClientOptions pushOptions;
    QHash<int, QSharedPointer<QSocketNotifier>> readNotifiers;
    QHash<int, QSharedPointer<QSocketNotifier>> writeNotifiers;
    QSet<int> blockedWriteSockets;
    // Sockets whose latest request from libcurl includes the write direction;
    // their write notifiers are not throttled.
    QSet<int> writeWantedSockets;
    QTimer writeNotifiersBlocked;
    // Keyed by request id; pushed transfers get ids of their own.
    QHash<void*, QSharedPointer<HttpClientTransfer>> transfers;
    QHash<void*, void*> idsByHandle; // curl easy handle -> request id, for harvesting
    quintptr lastRequestId = 0;
    // The live transfers with immediate read on, in the order they started: the
    // only ones the sweep after a socket action visits. Weak, so a transfer that
    // leaves `transfers` is gone from here too; the sweep drops expired entries.
    std::vector<QWeakPointer<HttpClientTransfer>> immediateReadTransfers;
    HttpClientCache cache;
    // Easy handles of ended transfers, reset, for the next requests: making and
    // freeing a handle per request cost more than resetting one.
    std::vector<HttpClientTransfer::EasyHandle> spareHandles;
    // Results waiting for their callbacks, in the order they were reported. One
    // posted event delivers all of them, so a socket action that finishes many
    // transfers wakes the event loop once, not once per result.
    struct QueuedCallback
    {
        HttpClientResult result;
        Callback callback;
        QPointer<QObject> context;
        bool hasContext;
    };
    std::deque<QueuedCallback> queuedCallbacks;
    bool callbackDeliveryPosted = false;
    // Requests waiting for a place in libcurl, in the order they were made;
    // an id no longer in `waiting` (cancelled, expired) is skipped.
    QHash<void*, WaitingTransfer> waiting;
    std::deque<void*> waitingOrder;
    std::multimap<std::int64_t, void*> waitingDeadlines; // only of requests with a timeout
    QTimer waitingExpiry; // the earliest deadline
    QSet<void*> admittedIds; // requests in libcurl; pushed streams are not counted
    long connectionLimit; // 0: none
};

Q_DECLARE_METATYPE(HttpClient::Callback)
