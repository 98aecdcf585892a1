#pragma once

#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QHash>
#include <QMetaType>
#include <QString>

#include <initializer_list>
#include <ostream>
#include <utility>

// HTTP header fields. Names are matched without regard to case; each entry keeps
// the written form under which it was last stored. One value per name: storing
// a name again replaces both its written form and its value.
class TREL_HTTP_CLIENT_EXPORT HttpClientHeaders
{
public:
    struct Header
    {
        QString name;
        QString value;
    };

    HttpClientHeaders() = default;
    explicit HttpClientHeaders(const QHash<QString, QString>& headers);
    HttpClientHeaders(const std::initializer_list<std::pair<QString, QString>>& headers);
    // Parses a raw response header block up to its first NUL byte. Lines without
    // a colon after their first character (status lines, blank lines) are skipped.
    explicit HttpClientHeaders(const QByteArray& rawBlock);

    void insert(const QString& name, const QString& value);
    bool contains(const QString& name) const;
    QString value(const QString& name, const QString& defaultValue) const;
    // `exists` must not be null.
    QString value(const QString& name, bool* exists) const;
    QHash<QString, QString> headers() const;

    friend TREL_HTTP_CLIENT_EXPORT std::ostream& operator<<(
        std::ostream& out, const HttpClientHeaders& headers);

private:
    QHash<QString, Header> entries;
};

TREL_HTTP_CLIENT_EXPORT std::ostream& operator<<(std::ostream& out, const HttpClientHeaders& headers);

Q_DECLARE_METATYPE(HttpClientHeaders)
