// Request bodies: bytes, forms and files as MIME parts, and streams read from an
// upload queue without ever waiting for its producer.

#include <trel/HttpClient.h>
#include <trel/HttpClientTransfer.h>

#include "Log.h"

#include <QDir>
#include <QFile>

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClientTransfer";
const log4cplus::Logger logger = trel::log::libraryLogger();

// A byte body of a megabyte or more is sent through libcurl's largest upload
// buffer (2 MiB, libcurl's limit) instead of its 64 KiB default: far fewer
// writable-socket turns of the event loop. Smaller bodies keep the default,
// which libcurl allocates per transfer.
constexpr int kLargeUploadBytes = 1 << 20;
constexpr long kUploadBufferBytes = 2L << 20;

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
// Request bodies

bool HttpClientTransfer::acceptsBody()
{
    if (method < HttpClient::Post) {
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

bool HttpClientTransfer::setDataToUpload(const HttpClientMultipart& form)
{
    TREL_ENTER("Multipart parts: " << form.parts().size());
    if (!acceptsBody()) {
        return false;
    }
    const QSharedPointer<curl_mime> mime = newMime();
    if (!mime) {
        TREL_ERROR("Failed to create a multipart body");
        return false;
    }
    for (const HttpClientMultipart::Part& part : form.parts()) {
        if (!addMimePart(mime.data(), part)) {
            return false;
        }
    }
    mimeBody = mime;
    curl_easy_setopt(easy.get(), CURLOPT_MIMEPOST, mimeBody.data());
    return true;
}

// An empty file name or type leaves the part without one (null for libcurl).
bool HttpClientTransfer::addMimePart(curl_mime* mime, const HttpClientMultipart::Part& part)
{
    curl_mimepart* const mimePart = curl_mime_addpart(mime);
    const QByteArray name = part.name.toUtf8();
    const QByteArray fileName = part.fileName.toUtf8();
    const QByteArray type = part.contentType.toUtf8();
    bool built = mimePart && curl_mime_name(mimePart, name.constData()) == CURLE_OK;
    if (built && part.path.isEmpty()) {
        built = curl_mime_data(mimePart, part.data.constData(), static_cast<size_t>(part.data.size()))
            == CURLE_OK;
    } else if (built && !noteIfUnreadable(part.path)) {
        // libcurl opens the file when it sends it and reads it in pieces.
        built = curl_mime_filedata(mimePart, QFile::encodeName(part.path).constData()) == CURLE_OK;
    }
    built = built
        && curl_mime_filename(mimePart, fileName.isEmpty() ? nullptr : fileName.constData()) == CURLE_OK;
    built = built && curl_mime_type(mimePart, type.isEmpty() ? nullptr : type.constData()) == CURLE_OK;
    if (!built) {
        TREL_ERROR("Failed to build the multipart part: " << part.name);
    }
    return built;
}

// True when the file cannot be opened for reading; the first such file gives
// the request's failure.
bool HttpClientTransfer::noteIfUnreadable(const QString& path)
{
    QFile file(path);
    if (file.open(QIODevice::ReadOnly)) {
        return false;
    }
    if (unreadableFile.isEmpty()) {
        unreadableFile = QStringLiteral("cannot open the file of a multipart part, %1: %2")
                             .arg(path, file.errorString());
    }
    TREL_ERROR("Multipart file cannot be opened: " << path << ": " << file.errorString());
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
    // libcurl sends a body read through the callback only for what it calls a
    // POST; a PUT keeps its own name on the request line (CURLOPT_CUSTOMREQUEST).
    curl_easy_setopt(easy.get(), CURLOPT_POST, 1L);
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
