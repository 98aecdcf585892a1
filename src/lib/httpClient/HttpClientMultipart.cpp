// The multipart form a caller builds: parts kept in order, a file part as its
// path only.

#include <trel/HttpClientMultipart.h>

#include <QFileInfo>

namespace {
const char* const kDefaultFileType = "application/octet-stream";
} // namespace

void HttpClientMultipart::addField(const QString& name, const QString& value)
{
    parts_.append(Part { name, value.toUtf8(), QString(), QString(), QString() });
}

void HttpClientMultipart::addData(
    const QString& name, const QByteArray& data, const QString& fileName, const QString& contentType)
{
    parts_.append(Part { name, data, QString(), fileName, contentType });
}

void HttpClientMultipart::addFile(
    const QString& name, const QString& path, const QString& fileName, const QString& contentType)
{
    parts_.append(Part { name, QByteArray(), path, fileName.isEmpty() ? QFileInfo(path).fileName() : fileName,
        contentType.isEmpty() ? QString::fromLatin1(kDefaultFileType) : contentType });
}

QList<HttpClientMultipart::Part> HttpClientMultipart::parts() const
{
    return parts_;
}

bool HttpClientMultipart::isEmpty() const
{
    return parts_.isEmpty();
}
