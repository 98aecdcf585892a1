/// \file
/// HttpClientMultipart: a multipart/form-data body of fields, bytes and files.
#pragma once

#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QList>
#include <QString>

/// The body of HttpClient::postMultipart(): parts sent in the order they were
/// added, as `multipart/form-data` with a boundary libcurl chooses.
///
/// A plain value, copied by the request call like HttpClientOptions. A file
/// part holds only its path: the file is opened and read while the request
/// sends it, never loaded whole, so a file of any size costs the same memory.
/// A file that cannot be opened then ends the request with
/// HttpClientStatus::Error and the reason in `X-TrelError`.
class TREL_HTTP_CLIENT_EXPORT HttpClientMultipart
{
public:
    /// Adds a plain field, sent as UTF-8 without a file name or a content type.
    /// \param name the part's field name.
    /// \param value the field's value.
    void addField(const QString& name, const QString& value);
    /// Adds a part of bytes, sent as they are.
    /// \param name the part's field name.
    /// \param data the part's content.
    /// \param fileName when not empty, the part is sent as a file of this name.
    /// \param contentType when not empty, the part's type.
    void addData(const QString& name, const QByteArray& data, const QString& fileName = QString(),
        const QString& contentType = QString());
    /// Adds a file, read from disk while it is sent.
    /// \param name the part's field name.
    /// \param path the file to send; opened when the request is made.
    /// \param fileName the name the server is told; empty means the last
    ///        segment of \p path.
    /// \param contentType the part's type; empty means
    ///        `application/octet-stream`.
    void addFile(const QString& name, const QString& path, const QString& fileName = QString(),
        const QString& contentType = QString());

    /// One part as it will be sent.
    struct Part
    {
        QString name; ///< The part's field name.
        QByteArray data; ///< The bytes of a field or data part.
        QString path; ///< The file a file part reads; empty for the others.
        QString fileName; ///< The file name sent; empty for none.
        QString contentType; ///< The part's type; empty for none.
    };
    /// The parts in the order they were added.
    QList<Part> parts() const;
    /// Whether no part has been added.
    bool isEmpty() const;

private:
    QList<Part> parts_;
};
