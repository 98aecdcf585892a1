#pragma once

#include <trel/trel_api_export.h>

#include <QByteArray>
#include <QMetaType>
#include <QString>
#include <QUrl>

#include <ostream>

// The platform's URL value. Keeps the query exactly as encoded by the caller:
// a "+" and a "%2B" stay distinct through encodedQuery/setEncodedQuery/toEncoded.
class TREL_API_EXPORT TrelUrl
{
public:
    TrelUrl();
    explicit TrelUrl(const QString& url);
    static TrelUrl fromEncoded(const QByteArray& encoded);

    TrelUrl(const TrelUrl&) = default;
    TrelUrl& operator=(const TrelUrl&) = default;

    QByteArray toEncoded() const;
    QByteArray encodedQuery() const;
    void setEncodedQuery(const QByteArray& query);
    // Scheme, host, port, path and query: everything but user info and fragment.
    QByteArray cachePath() const;
    bool isEmpty() const;
    QString toString() const;

    bool operator==(const TrelUrl& other) const;
    bool operator!=(const TrelUrl& other) const { return !(*this == other); }

private:
    QUrl url;
};

// Writes the encoded form.
TREL_API_EXPORT std::ostream& operator<<(std::ostream& out, const TrelUrl& url);

Q_DECLARE_METATYPE(TrelUrl)
