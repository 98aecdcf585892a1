#include <trel/HttpClientTransfer.h>

#include <trel/Version.h>

#include "Log.h"

#include <QDir>

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClientTransfer";
const log4cplus::Logger logger = trel::log::libraryLogger();

// HttpClient::HttpMethod values; the client's header is not needed here.
constexpr int kMethodHead = 1;
constexpr int kMethodPost = 2;
constexpr int kMethodPut = 3;
constexpr int kMethodDelete = 4;
constexpr int kMethodPatch = 5;
constexpr int kHttpVersion2 = 1;

const char* const kAllowedProtocols = "http,https";
const char* const kUserAgent = "trel_http_client/" TREL_HTTP_CLIENT_VERSION_STRING;

// libcurl's receive buffer. Large reads mean fewer write callbacks and fewer
// appends for big bodies; since libcurl 8.7 the buffer belongs to the multi
// handle, so small requests do not pay for its size.
constexpr long kReceiveBufferBytes = 512 * 1024;
// An immediate-read transfer hands over what one socket action received, and
// libcurl reads several buffers per action: with 512 KiB its pieces grew to
// megabytes, and trel-fetch's 256 MB download peaked at 42-54 MB RSS instead
// of 23-24 MB. A caller reading immediately wants bounded memory, so it gets
// 64 KiB (libcurl's default is 16 KiB).
constexpr long kImmediateReadBufferBytes = 64 * 1024;

// A byte body of a megabyte or more is sent through libcurl's largest upload
// buffer (2 MiB, libcurl's limit) instead of its 64 KiB default: far fewer
// writable-socket turns of the event loop. Smaller bodies keep the default,
// which libcurl allocates per transfer.
constexpr int kLargeUploadBytes = 1 << 20;
constexpr long kUploadBufferBytes = 2L << 20;

// Room reserved for the response's header lines at the first of them.
constexpr int kHeaderBlockBytes = 1024;

// Room reserved up front from Content-Length, at most: an announcement is only
// a server's word, so it buys a head start, not memory (3,000,000,000 announced
// and 3 bytes sent once cost a gigabyte). A larger body grows from there as its
// bytes arrive. 16 MiB holds the bodies of ordinary downloads (10 MiB, say)
// whole from the first byte.
constexpr std::int64_t kReservedHeadStart = std::int64_t(16) << 20;

// From this capacity on, a body's pages are prepared just ahead of the bytes to
// come: each fresh 4 KiB page otherwise costs a page fault, thousands for a body
// of megabytes. Whole 2 MiB pages ask for transparent huge pages, and the next
// kPreparedStep bytes are faulted in by one call instead of one fault each;
// nothing beyond what is about to be written is touched.
constexpr std::int64_t kPreparedBody = std::int64_t(4) << 20;
constexpr std::int64_t kPreparedStep = std::int64_t(2) << 20;
constexpr std::uintptr_t kHugePageSize = std::uintptr_t(2) << 20;
constexpr std::uintptr_t kPageSize = 4096;

// Gives advice for the pages of pageSize wholly inside [start, stop); a
// refusal (older kernels) changes nothing.
void adviseWholePages(std::uintptr_t start, std::uintptr_t stop, std::uintptr_t pageSize, int advice)
{
    const std::uintptr_t begin = (start + pageSize - 1) & ~(pageSize - 1);
    const std::uintptr_t end = stop & ~(pageSize - 1);
    if (end > begin) {
        ::madvise(reinterpret_cast<void*>(begin), end - begin, advice);
    }
}

void prepareBodyPages(const char* data, std::int64_t size)
{
    const auto start = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t stop = start + static_cast<std::uintptr_t>(size);
#ifdef MADV_HUGEPAGE
    adviseWholePages(start, stop, kHugePageSize, MADV_HUGEPAGE);
#endif
#ifdef MADV_POPULATE_WRITE
    adviseWholePages(start, stop, kPageSize, MADV_POPULATE_WRITE);
#endif
    (void)start;
    (void)stop;
}

// Content-Length from one header line, or -1 when the line is not a valid one.
std::int64_t contentLengthOf(const char* line, size_t size)
{
    static const char kName[] = "content-length:";
    constexpr size_t kNameSize = sizeof(kName) - 1;
    if (size <= kNameSize || qstrnicmp(line, kName, static_cast<uint>(kNameSize)) != 0) {
        return -1;
    }
    size_t i = kNameSize;
    while (i < size && (line[i] == ' ' || line[i] == '\t')) {
        ++i;
    }
    std::int64_t value = 0;
    size_t digits = 0;
    for (; i < size && line[i] >= '0' && line[i] <= '9'; ++i, ++digits) {
        if (value > (std::numeric_limits<std::int64_t>::max() - 9) / 10) {
            return -1;
        }
        value = value * 10 + (line[i] - '0');
    }
    return digits > 0 ? value : -1;
}

long postRedirectMask(const QSet<HttpClientOptions::HttpPostRedirFlags>& flags)
{
    long mask = 0;
    for (const HttpClientOptions::HttpPostRedirFlags flag : flags) {
        switch (flag) {
        case HttpClientOptions::PostRedir301:
            mask |= CURL_REDIR_POST_301;
            break;
        case HttpClientOptions::PostRedir302:
            mask |= CURL_REDIR_POST_302;
            break;
        case HttpClientOptions::PostRedir303:
            mask |= CURL_REDIR_POST_303;
            break;
        }
    }
    return mask;
}

// The one place where a libcurl result becomes a status.
HttpClientStatus statusFromCurlCode(CURLcode code)
{
    switch (code) {
    case CURLE_OK:
        return HttpClientStatus::OK;
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
        return HttpClientStatus::ResolveError;
    case CURLE_COULDNT_CONNECT:
        return HttpClientStatus::ConnectError;
    case CURLE_OPERATION_TIMEDOUT:
        return HttpClientStatus::Timeout;
    default:
        return HttpClientStatus::Error;
    }
}

QString temporaryFileTemplate()
{
    return QDir::tempPath() + QDir::separator() + QStringLiteral("trel-http-fetcher");
}

} // namespace

// ---------------------------------------------------------------------------
// File

HttpClientTransfer::File::File(const QByteArray& data)
    : file(temporaryFileTemplate())
{
    TREL_DEBUG("Using temp file: " << file.fileName());
    if (!file.open()) {
        TREL_ERROR("Failed to open temporary file for upload data!");
        return;
    }
    if (file.write(data) == data.size()) {
        valid = true;
        file.close(); // libcurl opens it again by path when it sends
        return;
    }
    TREL_ERROR("Error writing file: " << file.fileName());
}

QString HttpClientTransfer::File::fileName()
{
    return valid ? file.fileName() : QString();
}

// ---------------------------------------------------------------------------
// Construction

HttpClientTransfer::HttpClientTransfer(
    int httpVersion, const TrelUrl& url, int method, const HttpClientOptions& options, Completion callback)
    : HttpClientTransfer(httpVersion, url, method, options, std::move(callback), EasyHandle())
{ }

HttpClientTransfer::HttpClientTransfer(int httpVersion, const TrelUrl& url, int method,
    const HttpClientOptions& options, Completion callback, EasyHandle reused)
    : QObject(nullptr)
    , easy(std::move(reused))
    , url(url)
    , method(method)
    , options(options)
    , callback(std::move(callback))
{
    receiveBuffer.sizeLimit = options.readSizeLimit();
    receiveBuffer.reserveAnnounced = !options.immediateRead() && method != kMethodHead;
    receiveBuffer.limitPerDelivery = options.immediateRead();
    if (!easy) {
        easy.reset(curl_easy_init());
    }
    if (easy) {
        configure(httpVersion);
    }
}

HttpClientTransfer::HttpClientTransfer(
    int /*httpVersion*/, void* pushedEasy, void* multi, const HttpClientOptions& options, Completion callback)
    : QObject(nullptr)
    , easy(static_cast<CURL*>(pushedEasy))
    , method(0) // Get: a pushed stream never takes a body
    , options(options)
    , callback(std::move(callback))
    , activeMulti(static_cast<CURLM*>(multi)) // libcurl already added the pushed handle
{
    receiveBuffer.sizeLimit = options.readSizeLimit();
    receiveBuffer.reserveAnnounced = !options.immediateRead();
    receiveBuffer.limitPerDelivery = options.immediateRead();
    installReceiveCallbacks();
}

void HttpClientTransfer::configure(int httpVersion)
{
    CURL* const handle = easy.get();

    const QHash<QString, QString> requestHeaders = options.headers().headers();
    for (auto it = requestHeaders.cbegin(); it != requestHeaders.cend(); ++it) {
        const QByteArray line = (it.key() + QStringLiteral(": ") + it.value()).toUtf8();
        headerList.reset(curl_slist_append(headerList.release(), line.constData()));
    }
    if (headerList) {
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headerList.get());
    }
    // A User-Agent of the caller's own goes out through the header list instead.
    if (!options.headers().contains(QStringLiteral("user-agent"))) { // any case; lower makes no copy
        curl_easy_setopt(handle, CURLOPT_USERAGENT, kUserAgent);
    }
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText.data());

    if (!options.verifyPeer()) {
        // Widening authentication together with peer verification is intended.
        curl_easy_setopt(handle, CURLOPT_HTTPAUTH, CURLAUTH_ANY);
        curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
    }
    if (!options.isDisabledCompression()) {
        curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, ""); // every encoding libcurl has
    }
    if (httpVersion == kHttpVersion2) {
        curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2_0));
        curl_easy_setopt(handle, CURLOPT_PIPEWAIT, 1L);
    }

    if (!options.isDisabledCompression()) {
        curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, ""); // again; kept, it is harmless
    }

    curl_easy_setopt(handle, CURLOPT_URL, url.toEncoded().constData());
    // A URL or a redirect naming file:, ftp:, gopher: and the like must never
    // reach libcurl's other protocol handlers.
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, kAllowedProtocols);
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, kAllowedProtocols);
    installReceiveCallbacks();
    curl_easy_setopt(handle, CURLOPT_BUFFERSIZE,
        options.immediateRead() ? kImmediateReadBufferBytes : kReceiveBufferBytes);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);

    const int maxRedirects = options.maxRedirects();
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, maxRedirects != 0 ? 1L : 0L);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, maxRedirects >= 0 ? static_cast<long>(maxRedirects) : -1L);
    curl_easy_setopt(handle, CURLOPT_UNRESTRICTED_AUTH, options.redirectAuth() ? 1L : 0L);

    curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPIDLE, 60L);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPINTVL, 60L);

    if (options.timeoutMs() > 0) {
        curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(options.timeoutMs()));
    }

    switch (method) {
    case kMethodHead:
        curl_easy_setopt(handle, CURLOPT_HEADER, 1L); // header lines reach the body too
        curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
        break;
    case kMethodPost:
        curl_easy_setopt(handle, CURLOPT_POST, 1L);
        break;
    case kMethodPut:
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, "PUT");
        break;
    case kMethodDelete:
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, "DELETE");
        break;
    case kMethodPatch:
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, "PATCH");
        break;
    default:
        break; // Get: libcurl's default
    }

    const QSet<HttpClientOptions::HttpPostRedirFlags> postRedirect = options.postRedirectFlags();
    if (!postRedirect.isEmpty()) {
        curl_easy_setopt(handle, CURLOPT_POSTREDIR, postRedirectMask(postRedirect));
    }
}

void HttpClientTransfer::installReceiveCallbacks()
{
    CURL* const handle = easy.get();
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &HttpClientTransfer::curlWriteFunc);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &HttpClientTransfer::curlWriteHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &receiveBuffer);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &receiveBuffer);
}

HttpClientTransfer::~HttpClientTransfer()
{
    if (activeMulti) {
        cancel(); // an active transfer still reports to its caller
    }
    // Before the QObject base goes: no producer may post to this object later.
    endUploadStream();
    // The easy handle goes before the header list and the bodies it points at.
    easy.reset();
    headerList.reset();
}

void* HttpClientTransfer::handle()
{
    return easy.get();
}

HttpClientTransfer::EasyHandle HttpClientTransfer::releaseHandle()
{
    if (activeMulti || !easy) {
        return EasyHandle();
    }
    curl_easy_reset(easy.get());
    return std::move(easy);
}

// ---------------------------------------------------------------------------
// Request bodies

bool HttpClientTransfer::acceptsBody()
{
    if (method < kMethodPost) {
        TREL_ERROR("Transfer cannot contains data");
        return false;
    }
    return true;
}

QSharedPointer<curl_mime> HttpClientTransfer::newMime()
{
    curl_mime* const mime = curl_mime_init(easy.get());
    return mime ? QSharedPointer<curl_mime>(mime, curl_mime_free) : QSharedPointer<curl_mime>();
}

bool HttpClientTransfer::setDataToUpload(const QByteArray& data)
{
    TREL_ENTER("Data size: " << data.size());
    if (!acceptsBody()) {
        return false;
    }
    // libcurl reads this buffer until the transfer ends. A shared reference is
    // enough: the caller's later changes detach the caller's copy, never this
    // one. Bytes the array does not own (QByteArray::fromRawData) are copied,
    // since their owner may free them as soon as this call returns: such an
    // array has allocated nothing, so its capacity is below its size.
    uploadBytes = data;
    if (uploadBytes.capacity() < uploadBytes.size()) {
        uploadBytes.detach();
    }
    curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDS, uploadBytes.constData());
    curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(uploadBytes.size()));
    if (uploadBytes.size() >= kLargeUploadBytes) {
        curl_easy_setopt(easy.get(), CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferBytes);
    }
    return true;
}

bool HttpClientTransfer::setDataToUpload(const QList<QPair<QString, QString>>& form)
{
    TREL_ENTER("Form size: " << form.size());
    if (!acceptsBody()) {
        return false;
    }
    const QSharedPointer<curl_mime> mime = newMime();
    for (const auto& field : form) {
        const QByteArray name = field.first.toUtf8();
        const QByteArray value = field.second.toUtf8();
        curl_mimepart* const part = curl_mime_addpart(mime.data());
        if (curl_mime_name(part, name.constData()) != CURLE_OK) {
            TREL_ERROR("Failed to add a form key: " << field.first);
            return false;
        }
        if (curl_mime_data(part, value.constData(), CURL_ZERO_TERMINATED) != CURLE_OK) {
            TREL_ERROR("Failed to add a form value: " << field.second);
            return false;
        }
    }
    mimeBody = mime;
    curl_easy_setopt(easy.get(), CURLOPT_MIMEPOST, mimeBody.data());
    return true;
}

bool HttpClientTransfer::setDataToUpload(const QSharedPointer<File>& file)
{
    TREL_ENTER("File: " << file->fileName());
    if (!acceptsBody()) {
        return false;
    }
    const QString path = file->fileName();
    if (path.isEmpty()) {
        TREL_ERROR("Failed to send invalid file");
        return false;
    }
    uploadFile = file;
    const QSharedPointer<curl_mime> mime = newMime();
    curl_mimepart* const part = curl_mime_addpart(mime.data());
    if (curl_mime_filedata(part, path.toUtf8().constData()) != CURLE_OK) {
        TREL_ERROR("Failed to add a file data: " << file->fileName());
        return false;
    }
    if (curl_mime_name(part, "filename") != CURLE_OK) {
        TREL_ERROR("Failed to add filename part");
        return false;
    }
    if (curl_mime_type(part, "application/octet-stream") != CURLE_OK) {
        TREL_ERROR("Failed to add mimetype part");
        return false;
    }
    mimeBody = mime;
    curl_easy_setopt(easy.get(), CURLOPT_MIMEPOST, mimeBody.data());
    return true;
}

bool HttpClientTransfer::setDataToUpload(const QSharedPointer<HttpClientQueue>& queue)
{
    TREL_ENTER("Stream");
    if (!acceptsBody()) {
        return false;
    }
    if (uploadStream) {
        uploadStream->clearReadyWatcher(this);
    }
    uploadStream = queue;
    // Producers wake a paused upload through this object's event loop.
    uploadStream->setReadyWatcher(this, [this] { resumeUpload(); });
    curl_easy_setopt(easy.get(), CURLOPT_READFUNCTION, &HttpClientTransfer::streamReadCallback);
    curl_easy_setopt(easy.get(), CURLOPT_READDATA, uploadStream.data());
    // Unknown length: chunked over HTTP/1.1, plain DATA frames over HTTP/2, so
    // every byte pushed into the queue reaches the server.
    curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDSIZE, -1L);
    return true;
}

// Runs on the client's thread inside libcurl. Never waits for the producer:
// with nothing to send it pauses the upload, and the queue's watcher resumes it.
size_t HttpClientTransfer::streamReadCallback(void* buffer, size_t size, size_t count, void* queue)
{
    const size_t room = size * count;
    if (room == 0) {
        return 0;
    }
    const int got = static_cast<HttpClientQueue*>(queue)->readAvailable(
        static_cast<char*>(buffer), static_cast<int>(room));
    TREL_TRACE("Stream read size: " << got);
    if (got > 0) {
        return static_cast<size_t>(got);
    }
    if (got == 0) {
        return CURL_READFUNC_PAUSE;
    }
    TREL_DEBUG("End of stream reached");
    return 0;
}

// The request no longer reads its queue: producers must not wait for it, and
// learn it now rather than when the result is delivered. A queue read to its
// end is left as it is (HttpClientQueue::abandon() checks).
void HttpClientTransfer::endUploadStream()
{
    if (uploadStream) {
        uploadStream->clearReadyWatcher(this);
        uploadStream->abandon();
    }
}

// Queued from a producer's append, prepend or close; runs on the client's thread.
void HttpClientTransfer::resumeUpload()
{
    if (!activeMulti) {
        return; // finished or cancelled meanwhile
    }
    TREL_TRACE("Stream data ready, resuming [" << easy.get() << "]");
    curl_easy_pause(easy.get(), CURLPAUSE_CONT);
}

// ---------------------------------------------------------------------------
// Reception

size_t HttpClientTransfer::curlWriteHeader(void* data, size_t size, size_t count, void* receiveBuffer)
{
    const size_t n = size * count;
    auto* const buffer = static_cast<ReceiveBuffer*>(receiveBuffer);
    const char* const line = static_cast<const char*>(data);
    if (buffer->headerBlock.isEmpty()) {
        // One allocation for a usual header block instead of one per few lines.
        buffer->headerBlock.reserve(kHeaderBlockBytes);
    }
    buffer->headerBlock.append(line, static_cast<int>(n));
    if (n > 5 && std::memcmp(line, "HTTP/", 5) == 0) {
        buffer->announcedLength = -1; // a new response: what an earlier one announced is void
    } else {
        const std::int64_t length = contentLengthOf(line, n);
        if (length >= 0) {
            buffer->announcedLength = length;
        }
    }
    return n;
}

size_t HttpClientTransfer::curlWriteFunc(void* data, size_t size, size_t count, void* receiveBuffer)
{
    auto* const buffer = static_cast<ReceiveBuffer*>(receiveBuffer);
    std::uint64_t n = size * count;
    const std::int64_t current = buffer->body.size();
    if (current == 0 && buffer->reserveAnnounced && buffer->announcedLength > 0) {
        reserveAnnounced(*buffer);
    }
    // Unsigned on purpose: a negative limit never trims.
    const bool overLimit
        = static_cast<std::uint64_t>(current) + n > static_cast<std::uint64_t>(buffer->sizeLimit);
    if (overLimit && buffer->limitPerDelivery) {
        if (current > 0) {
            // libcurl keeps this chunk and offers it again once update() has
            // handed over what is held and resumed reception.
            buffer->receptionPaused = true;
            return CURL_WRITEFUNC_PAUSE;
        }
        // Nothing held: a chunk larger than the limit itself goes whole, since
        // pausing could never make room for it.
    } else if (overLimit) {
        const std::int64_t room = buffer->sizeLimit - current;
        TREL_ERROR("CURL data: not enough space in buffer, trimmed by "
            << (static_cast<std::int64_t>(n) - room) << " bytes!");
        n = static_cast<std::uint64_t>(room);
        buffer->overLimit = true;
    }
    prepareAhead(*buffer, current + static_cast<std::int64_t>(n));
    buffer->body.append(static_cast<const char*>(data), static_cast<int>(n));
    return static_cast<size_t>(n);
}

// Faults in the pages the next writes land on, a step at a time, once the body
// is large enough for page faults to matter. A body that moved (it outgrew its
// capacity) is prepared afresh from its end.
void HttpClientTransfer::prepareAhead(ReceiveBuffer& buffer, std::int64_t sizeAfterWrite)
{
    const std::int64_t capacity = buffer.body.capacity();
    if (capacity < kPreparedBody) {
        return;
    }
    const char* const data = buffer.body.constData();
    if (data != buffer.preparedData) {
        buffer.preparedData = data;
        buffer.preparedEnd = buffer.body.size();
    }
    if (sizeAfterWrite <= buffer.preparedEnd || buffer.preparedEnd >= capacity) {
        return;
    }
    const std::int64_t end = std::min(capacity, sizeAfterWrite + kPreparedStep);
    prepareBodyPages(data + buffer.preparedEnd, end - buffer.preparedEnd);
    buffer.preparedEnd = end;
}

// The announced body up to the head start, never beyond the size limit: no
// copies while an ordinary body grows. Once per response; a larger or
// compressed body grows past it as bytes arrive. Reserving touches no page:
// prepareAhead() faults them in as the writes reach them.
void HttpClientTransfer::reserveAnnounced(ReceiveBuffer& buffer)
{
    std::int64_t room = std::min(buffer.announcedLength, kReservedHeadStart);
    if (buffer.sizeLimit >= 0) {
        room = std::min(room, buffer.sizeLimit);
    }
    buffer.announcedLength = -1;
    if (room > buffer.body.capacity()) {
        buffer.body.reserve(static_cast<int>(room));
    }
}

long HttpClientTransfer::responseCode()
{
    long code = -1;
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &code);
    return code;
}

HttpClientHeaders HttpClientTransfer::receivedHeaders(bool withEffectiveUrl)
{
    HttpClientHeaders headers(receiveBuffer.headerBlock);
    // The X-Trel names are the library's word to its caller: a server must not
    // be able to forge an error, an effective URL or anything added later.
    static const QString libraryPrefix = QStringLiteral("x-trel");
    headers.removeNamesStartingWith(libraryPrefix);
    if (withEffectiveUrl) {
        const QString effectiveUrl = getEffectiveUrl(easy.get());
        if (!effectiveUrl.isEmpty()) {
            static const QString name = QString::fromLatin1(HttpClientHeaders::EffectiveUrlField);
            headers.insert(name, effectiveUrl);
        }
    }
    return headers;
}

void HttpClientTransfer::update()
{
    if (!options.immediateRead()) {
        return;
    }
    if (receiveBuffer.body.isEmpty() && receiveBuffer.headerBlock.isEmpty()) {
        return;
    }
    const HttpClientHeaders headers = receivedHeaders(true);
    const long code = responseCode();
    reportCompletion(HttpClientStatus::ImmediateRead, code, receiveBuffer.body, headers);
    receiveBuffer.body.clear();
    receiveBuffer.headerBlock.clear();
    resumeReception();
}

// Runs on the client's thread after a socket action, never inside libcurl. The
// paused chunk may come back inside curl_easy_pause; libcurl also schedules the
// transfer at once, so the next socket action serves it.
void HttpClientTransfer::resumeReception()
{
    if (!receiveBuffer.receptionPaused || !activeMulti) {
        return;
    }
    receiveBuffer.receptionPaused = false;
    TREL_TRACE("Held bytes handed over, resuming reception [" << easy.get() << "]");
    curl_easy_pause(easy.get(), CURLPAUSE_CONT);
}

// ---------------------------------------------------------------------------
// Completion

void HttpClientTransfer::start(CURLM* multi)
{
    if (activeMulti) {
        TREL_FATAL("Transfer is already active");
        return;
    }
    activeMulti = multi;
    curl_multi_add_handle(multi, easy.get());
}

QString HttpClientTransfer::getEffectiveUrl(void* handle)
{
    const char* text = nullptr;
    curl_easy_getinfo(static_cast<CURL*>(handle), CURLINFO_EFFECTIVE_URL, &text);
    return text ? QString::fromUtf8(text) : QString();
}

void HttpClientTransfer::finish(CURLMsg* message)
{
    if (!activeMulti) {
        TREL_ERROR("Transfer already finished");
        return;
    }
    const long code = responseCode();
    const CURLcode result = message->data.result;
    TREL_TRACE("Transfer [" << easy.get() << "] " << trel::log::RedactedUrl { url }
                            << ", done: " << static_cast<int>(result) << ", code: " << code);
    TREL_TRACE("Output   [" << easy.get() << "] " << receiveBuffer.body.size() << " bytes");
    const HttpClientStatus status = statusFromCurlCode(result);
    HttpClientHeaders headers = receivedHeaders(status == HttpClientStatus::OK);
    if (status != HttpClientStatus::OK) {
        headers.insert(QString::fromLatin1(HttpClientHeaders::ErrorField), failureReason(result));
        headers.insert(
            QString::fromLatin1(HttpClientHeaders::ErrorCodeField), QString::number(failureCode(result)));
    }
    curl_multi_remove_handle(activeMulti, easy.get());
    activeMulti = nullptr;
    endUploadStream();
    reportCompletion(status, code, receiveBuffer.body, headers);
}

// libcurl's code for the failure; a body cut at the read-size limit, which
// libcurl sees as a short write (23), is the file-size failure it is (63).
int HttpClientTransfer::failureCode(CURLcode result) const
{
    if (result == CURLE_WRITE_ERROR && receiveBuffer.overLimit) {
        return static_cast<int>(CURLE_FILESIZE_EXCEEDED);
    }
    return static_cast<int>(result);
}

QString HttpClientTransfer::failureReason(CURLcode result) const
{
    if (result == CURLE_WRITE_ERROR && receiveBuffer.overLimit) {
        return QStringLiteral("response body larger than the read-size limit of %1 bytes")
            .arg(receiveBuffer.sizeLimit);
    }
    if (errorText.front() != '\0') {
        return QString::fromUtf8(errorText.data());
    }
    return QString::fromUtf8(curl_easy_strerror(result));
}

void HttpClientTransfer::cancel()
{
    if (!activeMulti) {
        TREL_ERROR("Transfer already finished");
        return;
    }
    curl_multi_remove_handle(activeMulti, easy.get());
    activeMulti = nullptr;
    endUploadStream();
    reportCompletion(HttpClientStatus::Error, -1, QByteArray(), HttpClientHeaders());
}

void HttpClientTransfer::timeOutUnstarted(std::int64_t waitedMs)
{
    if (activeMulti) {
        TREL_ERROR("Transfer is already active");
        return;
    }
    HttpClientHeaders headers;
    headers.insert(QString::fromLatin1(HttpClientHeaders::ErrorField),
        QStringLiteral("Operation timed out after %1 milliseconds waiting for a connection").arg(waitedMs));
    headers.insert(QString::fromLatin1(HttpClientHeaders::ErrorCodeField),
        QString::number(static_cast<int>(CURLE_OPERATION_TIMEDOUT)));
    reportCompletion(HttpClientStatus::Timeout, 0, QByteArray(), headers);
}

void HttpClientTransfer::reportCompletion(
    HttpClientStatus status, long code, const QByteArray& body, const HttpClientHeaders& headers)
{
    callback(status, code, body, headers); // an empty callback throws std::bad_function_call
}
