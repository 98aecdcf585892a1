/// \file
/// TrelUrl: the platform's URL value, from libtrel_api.so.
#pragma once

#include <trel/trel_api_export.h>

#include <QByteArray>
#include <QMetaType>
#include <QString>
#include <QUrl>

#include <ostream>

/// The platform's URL value (from libtrel_api.so): every request of HttpClient
/// is made for one, and every result slot gets it back (empty for a pushed
/// response). A plain value, wrapping a QUrl.
///
/// Keeps the query exactly as encoded by the caller: a "+" and a "%2B" stay
/// distinct through encodedQuery(), setEncodedQuery() and toEncoded(). The type
/// is registered with Qt's meta-type system as "TrelUrl" when libtrel_api.so
/// loads, so queued slot invocations can carry it before any client exists.
class TREL_API_EXPORT TrelUrl
{
public:
    /// An empty URL: isEmpty() is true.
    TrelUrl();
    /// Parses \p url as QUrl does in its tolerant mode (a space, say, is
    /// encoded rather than refused).
    explicit TrelUrl(const QString& url);
    /// A URL from its encoded form \p encoded, parsed in QUrl's tolerant mode.
    static TrelUrl fromEncoded(const QByteArray& encoded);

    /// Copies a URL.
    TrelUrl(const TrelUrl&) = default;
    /// Replaces this URL with a copy of another.
    TrelUrl& operator=(const TrelUrl&) = default;

    /// The whole URL, fully percent-encoded.
    QByteArray toEncoded() const;
    /// The query without its "?", as encoded.
    QByteArray encodedQuery() const;
    /// Replaces the query with \p query, taken as already encoded and kept as
    /// it is.
    void setEncodedQuery(const QByteArray& query);
    /// Scheme, host, port, path and query, encoded: everything but user info
    /// and fragment. The response cache's key.
    QByteArray cachePath() const;
    /// Whether the URL has no part at all (a default-constructed TrelUrl).
    bool isEmpty() const;
    /// The fully encoded form, as text.
    QString toString() const;

    /// Whether \p other is the same URL.
    bool operator==(const TrelUrl& other) const;
    /// Whether \p other is a different URL.
    bool operator!=(const TrelUrl& other) const { return !(*this == other); }

private:
    QUrl url;
};

/// Writes the encoded form of \p url (TrelUrl::toEncoded()) to \p out.
TREL_API_EXPORT std::ostream& operator<<(std::ostream& out, const TrelUrl& url);

Q_DECLARE_METATYPE(TrelUrl)
