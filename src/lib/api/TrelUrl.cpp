// Stand-in for the platform's URL type: encoded forms, the query and the cache key.

#include <trel/TrelUrl.h>

namespace {

// Registered when the library loads so that queued slot invocations can name
// the type "TrelUrl" before any client exists.
const int trelUrlMetaTypeId = qRegisterMetaType<TrelUrl>("TrelUrl");

} // namespace

TrelUrl::TrelUrl() = default;

TrelUrl::TrelUrl(const QString& text)
    : url(text, QUrl::TolerantMode)
{ }

TrelUrl TrelUrl::fromEncoded(const QByteArray& encoded)
{
    TrelUrl result;
    result.url = QUrl::fromEncoded(encoded, QUrl::TolerantMode);
    return result;
}

QByteArray TrelUrl::toEncoded() const
{
    return url.toEncoded(QUrl::FullyEncoded);
}

QByteArray TrelUrl::encodedQuery() const
{
    return url.query(QUrl::FullyEncoded).toLatin1();
}

void TrelUrl::setEncodedQuery(const QByteArray& query)
{
    url.setQuery(QString::fromLatin1(query), QUrl::StrictMode);
}

QByteArray TrelUrl::cachePath() const
{
    return url.adjusted(QUrl::RemoveUserInfo | QUrl::RemoveFragment).toEncoded(QUrl::FullyEncoded);
}

bool TrelUrl::isEmpty() const
{
    return url.isEmpty();
}

QString TrelUrl::toString() const
{
    return url.toString(QUrl::FullyEncoded);
}

bool TrelUrl::operator==(const TrelUrl& other) const
{
    return url == other.url;
}

std::ostream& operator<<(std::ostream& out, const TrelUrl& url)
{
    const QByteArray encoded = url.toEncoded();
    return out.write(encoded.constData(), encoded.size());
}
