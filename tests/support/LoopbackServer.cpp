#include "LoopbackServer.h"

#include <QElapsedTimer>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace trel::test {

namespace {

const QByteArray kCrlf = "\r\n";

qint64 monotonicMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void setNonBlocking(int fd)
{
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

QByteArray gzip(const QByteArray& data)
{
    z_stream stream {};
    deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    QByteArray out(static_cast<int>(deflateBound(&stream, static_cast<uLong>(data.size()))) + 32, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.constData()));
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    deflate(&stream, Z_FINISH);
    out.resize(static_cast<int>(stream.total_out));
    deflateEnd(&stream);
    return out;
}

QByteArray patternBytes(int count)
{
    QByteArray bytes(count, '\0');
    for (int i = 0; i < count; ++i) {
        bytes[i] = static_cast<char>('a' + i % 26);
    }
    return bytes;
}

// The value of a `key="value"` (or key=value) parameter in a header value.
QByteArray parameter(const QByteArray& headerValue, const QByteArray& key)
{
    for (QByteArray piece : headerValue.split(';')) {
        piece = piece.trimmed();
        if (piece.startsWith(key + "=")) {
            QByteArray value = piece.mid(key.size() + 1);
            if (value.startsWith('"') && value.endsWith('"') && value.size() >= 2) {
                value = value.mid(1, value.size() - 2);
            }
            return value;
        }
    }
    return {};
}

QList<RecordedPart> parseMultipart(const QByteArray& body, const QByteArray& contentType)
{
    QList<RecordedPart> parts;
    const QByteArray boundary = parameter(contentType, "boundary");
    if (boundary.isEmpty()) {
        return parts;
    }
    const QByteArray delimiter = "--" + boundary;
    int position = body.indexOf(delimiter);
    while (position >= 0) {
        const int partStart = position + delimiter.size();
        if (body.mid(partStart, 2) == "--") {
            break; // closing delimiter
        }
        const int next = body.indexOf("\r\n" + delimiter, partStart);
        if (next < 0) {
            break;
        }
        const QByteArray part = body.mid(partStart + 2, next - partStart - 2);
        const int headerEnd = part.indexOf("\r\n\r\n");
        RecordedPart recordedPart;
        for (const QByteArray& line : part.left(headerEnd).split('\n')) {
            const int colon = line.indexOf(':');
            const QByteArray name = line.left(colon).trimmed().toLower();
            const QByteArray value = line.mid(colon + 1).trimmed();
            if (name == "content-disposition") {
                recordedPart.name = parameter(value, "name");
                recordedPart.filename = parameter(value, "filename");
            } else if (name == "content-type") {
                recordedPart.contentType = value;
            }
        }
        recordedPart.data = headerEnd < 0 ? QByteArray() : part.mid(headerEnd + 4);
        parts.append(recordedPart);
        position = next + 2;
    }
    return parts;
}

} // namespace

// ---------------------------------------------------------------------------

QByteArray RecordedRequest::header(const QByteArray& name) const
{
    QByteArray value;
    for (const auto& header : headers) {
        if (header.first.toLower() == name.toLower()) {
            value = header.second;
        }
    }
    return value;
}

bool RecordedRequest::hasHeader(const QByteArray& name) const
{
    for (const auto& header : headers) {
        if (header.first.toLower() == name.toLower()) {
            return true;
        }
    }
    return false;
}

ScriptedResponse& ScriptedResponse::addHeader(const QByteArray& name, const QByteArray& value)
{
    headers.append(qMakePair(name, value));
    return *this;
}

ScriptedResponse ScriptedResponse::ok(const QByteArray& body, const QByteArray& contentType)
{
    ScriptedResponse response;
    response.body = body;
    response.addHeader("Content-Type", contentType);
    return response;
}

ScriptedResponse ScriptedResponse::redirect(int status, const QByteArray& location)
{
    ScriptedResponse response;
    response.status = status;
    response.reason = "Redirect";
    response.addHeader("Location", location);
    response.body = "redirecting";
    return response;
}

ScriptedResponse ScriptedResponse::withFault(Fault fault)
{
    ScriptedResponse response;
    response.fault = fault;
    return response;
}

// ---------------------------------------------------------------------------
// One accepted connection: the bytes not yet parsed, what is still to be
// written, and the response waiting for its delay.

struct LoopbackServer::Connection
{
    int fd = -1;
    int id = 0;
    QByteArray in;
    QByteArray out;
    bool closeWhenWritten = false;
    bool closeNow = false; // a scripted fault: close without writing anything more
    bool stalled = false;
    bool continueSent = false;
    std::optional<QByteArray> delayed; // serialized response waiting for `sendAt`
    qint64 sendAt = 0;
    bool delayedCloses = false;
    QByteArray drip; // what is left of a response sent a byte at a time
    int dripMs = 0;
    qint64 nextDripAt = 0;
    bool dripCloses = false;
    std::optional<qint64> resetAt; // an abortive close, once what was written has been read
};

namespace {
// How long a connection that is to be reset gives the client to read what it
// was sent first, so that the reset comes mid-headers or mid-body as scripted.
constexpr qint64 kResetGraceMs = 100;

qint64 earliest(qint64 current, qint64 candidate)
{
    return current < 0 || candidate < current ? candidate : current;
}

void resetConnection(int fd)
{
    // Closing with a zero linger time sends a reset instead of a FIN.
    const linger abortive { 1, 0 };
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof(abortive));
}
} // namespace

LoopbackServer::LoopbackServer()
    : handler(&LoopbackServer::defaultRoutes)
{ }

LoopbackServer::~LoopbackServer()
{
    stop();
}

bool LoopbackServer::start()
{
    if (running) {
        return true;
    }
    listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    ::setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof(address);
    if (::bind(listenFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0
        || ::listen(listenFd, 512) != 0
        || ::getsockname(listenFd, reinterpret_cast<sockaddr*>(&address), &length) != 0
        || ::pipe2(wakeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
        ::close(listenFd);
        listenFd = -1;
        return false;
    }
    boundPort = ntohs(address.sin_port);
    setNonBlocking(listenFd);
    running = true;
    thread = std::thread([this] { run(); });
    return true;
}

void LoopbackServer::stop()
{
    if (!running) {
        return;
    }
    running = false;
    const char wake = 'x';
    [[maybe_unused]] const auto written = ::write(wakeFds[1], &wake, 1);
    thread.join();
    ::close(listenFd);
    ::close(wakeFds[0]);
    ::close(wakeFds[1]);
    listenFd = wakeFds[0] = wakeFds[1] = -1;
}

quint16 LoopbackServer::port() const
{
    return boundPort;
}

QByteArray LoopbackServer::url(const QByteArray& path) const
{
    return "http://127.0.0.1:" + QByteArray::number(boundPort) + path;
}

void LoopbackServer::setHandler(Handler newHandler)
{
    std::lock_guard<std::mutex> lock(mutex);
    handler = std::move(newHandler);
}

LoopbackServer::Handler LoopbackServer::currentHandler() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return handler;
}

QList<RecordedRequest> LoopbackServer::requests() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return received;
}

int LoopbackServer::requestCount() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return received.size();
}

int LoopbackServer::connectionCount() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return accepted;
}

bool LoopbackServer::waitForRequests(int count, int timeoutMs) const
{
    std::unique_lock<std::mutex> lock(mutex);
    return recorded.wait_for(
        lock, std::chrono::milliseconds(timeoutMs), [&] { return received.size() >= count; });
}

void LoopbackServer::clear()
{
    std::lock_guard<std::mutex> lock(mutex);
    received.clear();
}

void LoopbackServer::setRecording(bool keep)
{
    std::lock_guard<std::mutex> lock(mutex);
    recording = keep;
}

void LoopbackServer::record(const RecordedRequest& request)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!recording) {
            return;
        }
        received.append(request);
    }
    recorded.notify_all();
}

// ---------------------------------------------------------------------------
// The server thread

void LoopbackServer::run()
{
    std::map<int, std::unique_ptr<Connection>> connections;
    while (running) {
        std::vector<pollfd> fds { { wakeFds[0], POLLIN, 0 }, { listenFd, POLLIN, 0 } };
        qint64 nextSend = -1;
        for (const auto& [fd, connection] : connections) {
            short events = POLLIN;
            if (!connection->out.isEmpty()) {
                events |= POLLOUT;
            }
            fds.push_back({ fd, events, 0 });
            if (connection->delayed) {
                nextSend = earliest(nextSend, connection->sendAt);
            }
            if (!connection->drip.isEmpty()) {
                nextSend = earliest(nextSend, connection->nextDripAt);
            }
            if (connection->resetAt) {
                nextSend = earliest(nextSend, *connection->resetAt);
            }
        }
        const int timeout
            = nextSend < 0 ? 1000 : static_cast<int>(std::max<qint64>(0, nextSend - monotonicMs()));
        ::poll(fds.data(), fds.size(), timeout);
        if (!running) {
            break;
        }
        if (fds[1].revents & POLLIN) {
            for (int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); fd >= 0;
                 fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) {
                auto connection = std::make_unique<Connection>();
                connection->fd = fd;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    connection->id = ++accepted;
                }
                connections.emplace(fd, std::move(connection));
            }
        }
        for (size_t i = 2; i < fds.size(); ++i) {
            Connection& connection = *connections.at(fds[i].fd);
            bool open = true;
            if (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) {
                open = serviceRead(connection);
            }
            open = open && !connection.closeNow;
            if (open && connection.delayed && monotonicMs() >= connection.sendAt) {
                connection.out += *connection.delayed;
                connection.closeWhenWritten = connection.delayedCloses;
                connection.delayed.reset();
                processRequests(connection); // the next pipelined request, if any
            }
            if (open && !connection.drip.isEmpty() && monotonicMs() >= connection.nextDripAt) {
                connection.out += connection.drip.left(1);
                connection.drip.remove(0, 1);
                connection.nextDripAt = monotonicMs() + connection.dripMs;
                connection.closeWhenWritten = connection.drip.isEmpty() && connection.dripCloses;
            }
            if (open && !connection.out.isEmpty()) {
                open = serviceWrite(connection);
            }
            if (open && connection.resetAt && connection.out.isEmpty()
                && monotonicMs() >= *connection.resetAt) {
                resetConnection(connection.fd);
                open = false;
            }
            if (!open) {
                ::close(connection.fd);
                connections.erase(fds[i].fd);
            }
        }
    }
    for (const auto& entry : connections) {
        ::close(entry.first);
    }
}

// False when the connection is to be closed.
bool LoopbackServer::serviceRead(Connection& connection)
{
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::recv(connection.fd, buffer, sizeof(buffer), 0);
        if (got > 0) {
            if (!connection.stalled) {
                connection.in.append(buffer, static_cast<int>(got));
            }
            continue;
        }
        if (got == 0) {
            return false; // the client closed
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            break;
        }
        return false;
    }
    processRequests(connection);
    return !connection.closeNow;
}

bool LoopbackServer::serviceWrite(Connection& connection)
{
    while (!connection.out.isEmpty()) {
        const ssize_t sent = ::send(connection.fd, connection.out.constData(),
            static_cast<size_t>(connection.out.size()), MSG_NOSIGNAL);
        if (sent > 0) {
            connection.out.remove(0, static_cast<int>(sent));
            continue;
        }
        if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return true;
        }
        return false;
    }
    return !connection.closeWhenWritten;
}

namespace {

// Where the chunked body starting at `from` ends; decodes it into `body`.
// Empty when the body has not fully arrived yet.
std::optional<int> decodeChunked(const QByteArray& in, int from, QByteArray& body)
{
    body.clear();
    int position = from;
    for (;;) {
        const int lineEnd = in.indexOf(kCrlf, position);
        if (lineEnd < 0) {
            return std::nullopt;
        }
        bool ok = false;
        const int size = in.mid(position, lineEnd - position).split(';').first().trimmed().toInt(&ok, 16);
        if (!ok) {
            return std::nullopt;
        }
        position = lineEnd + 2;
        if (size == 0) {
            // Optional trailers, then an empty line.
            for (;;) {
                const int trailerEnd = in.indexOf(kCrlf, position);
                if (trailerEnd < 0) {
                    return std::nullopt;
                }
                const bool last = trailerEnd == position;
                position = trailerEnd + 2;
                if (last) {
                    return position;
                }
            }
        }
        if (in.size() < position + size + 2) {
            return std::nullopt;
        }
        body.append(in.constData() + position, size);
        position += size + 2;
    }
}

} // namespace

void LoopbackServer::processRequests(Connection& connection)
{
    while (!connection.delayed && !connection.stalled && !connection.closeNow) {
        const int headerEnd = connection.in.indexOf("\r\n\r\n");
        if (headerEnd < 0) {
            return;
        }
        RecordedRequest request;
        request.connectionId = connection.id;
        const QList<QByteArray> lines = connection.in.left(headerEnd).split('\n');
        const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
        request.method = requestLine.value(0);
        request.target = requestLine.value(1);
        request.version = requestLine.value(2);
        for (int i = 1; i < lines.size(); ++i) {
            const int colon = lines[i].indexOf(':');
            if (colon > 0) {
                request.headers.append(qMakePair(lines[i].left(colon), lines[i].mid(colon + 1).trimmed()));
            }
        }
        const int bodyStart = headerEnd + 4;
        int requestEnd = bodyStart;
        request.chunked = request.header("Transfer-Encoding").toLower().contains("chunked");
        if (request.header("Expect").toLower() == "100-continue" && !connection.continueSent) {
            connection.continueSent = true;
            connection.out += "HTTP/1.1 100 Continue\r\n\r\n";
        }
        if (request.chunked) {
            const auto end = decodeChunked(connection.in, bodyStart, request.body);
            if (!end) {
                return;
            }
            requestEnd = *end;
        } else if (request.hasHeader("Content-Length")) {
            const int length = request.header("Content-Length").toInt();
            if (connection.in.size() < bodyStart + length) {
                return;
            }
            request.body = connection.in.mid(bodyStart, length);
            requestEnd = bodyStart + length;
        }
        request.raw = connection.in.left(requestEnd);
        connection.in.remove(0, requestEnd);
        connection.continueSent = false;
        if (request.header("Content-Type").startsWith("multipart/form-data")) {
            request.parts = parseMultipart(request.body, request.header("Content-Type"));
        }
        record(request);
        respond(connection, request);
    }
}

void LoopbackServer::respond(Connection& connection, const RecordedRequest& request)
{
    const ScriptedResponse response = currentHandler()(request);
    using Fault = ScriptedResponse::Fault;
    switch (response.fault) {
    case Fault::CloseWithoutResponse:
        connection.closeNow = true;
        return;
    case Fault::ResetConnection:
        resetConnection(connection.fd);
        connection.closeNow = true;
        return;
    case Fault::Stall:
        connection.stalled = true;
        return;
    default:
        break;
    }

    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' + response.reason + "\r\n";
    bool hasLength = false;
    for (const auto& header : response.headers) {
        head += header.first + ": " + header.second + "\r\n";
        hasLength = hasLength || header.first.toLower() == "content-length";
    }
    const bool closes = response.closeAfter || response.fault == Fault::Truncate;
    if (response.chunked) {
        head += "Transfer-Encoding: chunked\r\n";
    } else if (!hasLength) {
        head += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
    }
    if (response.closeAfter) {
        head += "Connection: close\r\n";
    }
    head += "\r\n";

    QByteArray payload;
    if (request.method != "HEAD") {
        if (response.fault == Fault::Truncate) {
            payload = response.body.left(response.truncateAt);
        } else if (response.chunked) {
            const int step = std::max(1, response.chunkSize);
            for (int at = 0; at < response.body.size(); at += step) {
                const QByteArray piece = response.body.mid(at, step);
                payload += QByteArray::number(piece.size(), 16) + "\r\n" + piece + "\r\n";
            }
            payload += "0\r\n\r\n";
        } else {
            payload = response.body;
        }
    }
    QByteArray wire = response.raw.isEmpty() ? head + payload : response.raw;
    if (response.fault == Fault::CutAfter || response.fault == Fault::ResetAfter
        || response.fault == Fault::StallAfter) {
        wire = wire.left(response.cutAt);
    }
    if (response.fault == Fault::StallAfter) {
        connection.out += wire;
        connection.stalled = true; // nothing more is read or answered here
        return;
    }
    if (response.fault == Fault::ResetAfter) {
        connection.out += wire;
        connection.resetAt = monotonicMs() + kResetGraceMs;
        return;
    }
    const bool ends = closes || response.fault == Fault::CutAfter || response.fault == Fault::CloseSilently;
    if (response.dripMs > 0) {
        // The head goes at once and the body drips; a raw reply drips whole.
        const int headSize = response.raw.isEmpty() ? std::min(head.size(), wire.size()) : 0;
        connection.out += wire.left(headSize);
        connection.drip = wire.mid(headSize);
        connection.dripMs = response.dripMs;
        connection.nextDripAt = monotonicMs() + response.delayMs;
        connection.dripCloses = ends;
        return;
    }
    if (response.delayMs > 0) {
        connection.delayed = wire;
        connection.sendAt = monotonicMs() + response.delayMs;
        connection.delayedCloses = ends;
        return;
    }
    connection.out += wire;
    connection.closeWhenWritten = ends;
}

ScriptedResponse LoopbackServer::defaultRoutes(const RecordedRequest& request)
{
    const QByteArray path = request.target.split('?').first();
    if (path == "/echo") {
        ScriptedResponse response = ScriptedResponse::ok(request.body, "application/octet-stream");
        response.addHeader("X-Method", request.method);
        response.addHeader("X-Body-Length", QByteArray::number(request.body.size()));
        return response;
    }
    if (path.startsWith("/status/")) {
        const QByteArray code = path.mid(8);
        ScriptedResponse response = ScriptedResponse::ok("status " + code);
        response.status = code.toInt();
        response.reason = "Scripted";
        return response;
    }
    if (path.startsWith("/redirect/")) {
        const int left = path.mid(10).toInt();
        if (left <= 0) {
            return ScriptedResponse::ok("done");
        }
        return ScriptedResponse::redirect(302, "/redirect/" + QByteArray::number(left - 1));
    }
    if (path.startsWith("/bytes/")) {
        return ScriptedResponse::ok(patternBytes(path.mid(7).toInt()), "application/octet-stream");
    }
    if (path == "/gzip") {
        ScriptedResponse response = ScriptedResponse::ok(gzip(QByteArray("hello gzip world").repeated(100)));
        response.addHeader("Content-Encoding", "gzip");
        return response;
    }
    return ScriptedResponse::ok("ok");
}

} // namespace trel::test
