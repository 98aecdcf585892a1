// One cached response and its freshness: the lifetime from Cache-Control max-age
// or Expires, and whether a response may be stored at all.

#include <trel/HttpClientCache.h>

#include <QDateTime>
#include <QLocale>
#include <QStringList>

#include <cstdint>

namespace {

const QString kExpires = QStringLiteral("Expires");
const QString kCacheControl = QStringLiteral("Cache-Control");
const std::int64_t kDefaultLifetimeMs = 60000;

std::int64_t now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

// An "Expires" date in the one format servers are expected to send; anything
// else counts as the epoch.
std::int64_t parseExpires(const QString& value)
{
    QDateTime time = QLocale(QLocale::C, QLocale::AnyCountry)
                         .toDateTime(value, QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'"));
    time.setTimeSpec(Qt::UTC); // relabels the parsed fields as UTC, no conversion
    return time.isValid() ? time.toMSecsSinceEpoch() : 0;
}

QStringList cacheControlDirectives(const QString& value)
{
    QStringList directives = value.split(QLatin1Char(','), Qt::KeepEmptyParts, Qt::CaseSensitive);
    for (QString& directive : directives) {
        directive = directive.trimmed();
    }
    return directives;
}

bool isPublicOrPrivate(const QString& directive)
{
    return directive == QLatin1String("public") || directive == QLatin1String("private");
}

bool isMaxAge(const QString& directive)
{
    return directive.startsWith(QLatin1String("max-age"), Qt::CaseSensitive);
}

bool isNoCache(const QString& directive)
{
    return directive == QLatin1String("no-cache");
}

// Seconds times 1000 in 32-bit arithmetic: values above 2147483 s wrap, and the
// wrapped lifetime is what the cache has always used.
std::int64_t maxAgeLifetimeMs(QString directive)
{
    directive.remove(QLatin1Char(' '));
    const std::int32_t seconds = directive.mid(8).toInt(nullptr, 10);
    const std::int32_t product = static_cast<std::int32_t>(static_cast<std::uint32_t>(seconds) * 1000u);
    return static_cast<std::int64_t>(product);
}

} // namespace

HttpClientCacheEntry::HttpClientCacheEntry() = default;

HttpClientCacheEntry::HttpClientCacheEntry(
    HttpClientStatus status, int code, const HttpClientHeaders& headers, const QByteArray& body)
    : status(status)
    , code(code)
    , headers(headers)
    , body(body)
{
    bool present = false;
    const QString expires = headers.value(kExpires, &present);
    if (present) {
        expiry = parseExpires(expires);
    }
    const QString cacheControl = headers.value(kCacheControl, &present);
    if (!present) {
        return;
    }
    // Every directive applies in order; a later one overrides an earlier one.
    for (const QString& directive : cacheControlDirectives(cacheControl)) {
        if (isPublicOrPrivate(directive)) {
            if (expiry == 0) {
                expiry = now() + kDefaultLifetimeMs;
            }
        } else if (isMaxAge(directive)) {
            expiry = now() + maxAgeLifetimeMs(directive);
        } else if (isNoCache(directive)) {
            expiry = 0;
        }
    }
}

bool HttpClientCacheEntry::isFresh() const
{
    return expiry > now();
}

bool HttpClientCacheEntry::shouldCache(const HttpClientHeaders& headers)
{
    bool present = false;
    const QString expires = headers.value(kExpires, &present);
    if (present) {
        return now() < parseExpires(expires); // "Expires" decides alone
    }
    const QString cacheControl = headers.value(kCacheControl, &present);
    if (!present) {
        return false;
    }
    // The first recognised directive decides.
    for (const QString& directive : cacheControlDirectives(cacheControl)) {
        if (isPublicOrPrivate(directive) || isMaxAge(directive)) {
            return true;
        }
        if (isNoCache(directive)) {
            return false;
        }
    }
    return false;
}
