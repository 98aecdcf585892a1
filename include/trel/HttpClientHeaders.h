/// \file
/// HttpClientHeaders: the header fields of a request or a response.
#pragma once

#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QHash>
#include <QMetaType>
#include <QString>

#include <initializer_list>
#include <ostream>
#include <utility>

/// HTTP header fields: the extra fields of a request (HttpClientOptions::setHeaders())
/// and the fields of a response (HttpClientResult::headers).
///
/// Names are matched without regard to case; each entry keeps the written form
/// under which it was last stored. One value per name: storing a name again
/// replaces both its written form and its value. A plain value, copied freely,
/// declared to Qt's meta-type system; not synchronised, like any Qt value.
class TREL_HTTP_CLIENT_EXPORT HttpClientHeaders
{
public:
    /// One stored field: the name as last written, and its value.
    struct Header
    {
        QString name; ///< The name in the form it was last stored under.
        QString value; ///< The field's value, without surrounding white space when parsed.
    };

    /// No fields.
    HttpClientHeaders() = default;
    /// Stores every name and value of \p headers; of two names that differ only
    /// in case, one is kept (which one is unspecified).
    explicit HttpClientHeaders(const QHash<QString, QString>& headers);
    /// Stores the pairs in order, so a later pair replaces an earlier one of the
    /// same name: `HttpClientHeaders{{"Accept", "text/plain"}, {"X-Trace", "1"}}`.
    HttpClientHeaders(const std::initializer_list<std::pair<QString, QString>>& headers);
    /// Parses a raw response header block up to its first NUL byte, one field
    /// per line, the value trimmed. Lines without a colon after their first
    /// character (status lines, blank lines) are skipped; a later line replaces
    /// an earlier one of the same name, so the fields of the last of several
    /// responses (redirects) win.
    explicit HttpClientHeaders(const QByteArray& rawBlock);

    /// Stores \p value under \p name, replacing any field whose name matches
    /// without regard to case; the entry takes \p name's written form.
    void insert(const QString& name, const QString& value);
    /// Whether a field named \p name (any case) is stored.
    bool contains(const QString& name) const;
    /// The value stored under \p name (any case), or \p defaultValue when
    /// there is none.
    QString value(const QString& name, const QString& defaultValue) const;
    /// The value stored under \p name (any case), or an empty string when there
    /// is none; \p exists receives whether the field is stored. \p exists must
    /// not be null.
    QString value(const QString& name, bool* exists) const;
    /// Every field, keyed by its written name, in no particular order.
    QHash<QString, QString> headers() const;

    /// Writes the fields as `Name: value` separated by ", ", in no particular
    /// order, for log lines; returns \p out.
    friend TREL_HTTP_CLIENT_EXPORT std::ostream& operator<<(
        std::ostream& out, const HttpClientHeaders& headers);

private:
    void insertAsciiLine(const char* line, int length);

    QHash<QString, Header> entries;
};

/// Writes the fields of \p headers as `Name: value` separated by ", ", in no
/// particular order, for log lines; returns \p out.
TREL_HTTP_CLIENT_EXPORT std::ostream& operator<<(std::ostream& out, const HttpClientHeaders& headers);

Q_DECLARE_METATYPE(HttpClientHeaders)
