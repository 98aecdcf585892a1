// The client's small LRU response cache: fresh GET results served again,
// storable ones kept, the oldest evicted beyond the size.

#include <trel/HttpClientCache.h>

#include "Log.h"

#include <QStringList>

#include <algorithm>
#include <memory>

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClientCache";
const log4cplus::Logger logger = trel::log::libraryLogger();

// A response that varies with request headers other than Accept-Encoding could
// be served to a request it was not made for, since the key is the URL alone.
// libcurl decodes every encoding it asks for, so Accept-Encoding never matters.
// Every Vary line counts, not only the last.
bool variesBeyondEncoding(const HttpClientHeaders& headers)
{
    for (const QString& vary : headers.values(QStringLiteral("vary"))) {
        const QStringList fields = vary.split(QLatin1Char(','), Qt::SkipEmptyParts);
        for (const QString& field : fields) {
            if (field.trimmed().compare(QLatin1String("Accept-Encoding"), Qt::CaseInsensitive) != 0) {
                return true;
            }
        }
    }
    return false;
}

// "no-store" forbids keeping the response at all, whatever lifetime the other
// directives give it, in any line of Cache-Control and in any case.
bool forbidsStoring(const HttpClientHeaders& headers)
{
    for (const QString& cacheControl : headers.values(QStringLiteral("cache-control"))) {
        const QStringList directives = cacheControl.split(QLatin1Char(','), Qt::SkipEmptyParts);
        for (const QString& directive : directives) {
            const QString name = directive.section(QLatin1Char('='), 0, 0).trimmed();
            if (name.compare(QLatin1String("no-store"), Qt::CaseInsensitive) == 0) {
                return true;
            }
        }
    }
    return false;
}
} // namespace

HttpClientCache::HttpClientCache()
{
    entries.setMaxCost(0);
}

const HttpClientCacheEntry* HttpClientCache::retrieve(const TrelUrl& url)
{
    if (entries.isEmpty()) {
        return nullptr; // every GET asks: no key is built while nothing is stored
    }
    const QByteArray key = url.cachePath();
    const HttpClientCacheEntry* entry = entries.object(key); // marks it most recently used
    if (!entry) {
        return nullptr;
    }
    if (!entry->isFresh()) {
        TREL_DEBUG("Cache entry expired " << trel::log::RedactedUrl { url });
        entries.remove(key);
        return nullptr;
    }
    TREL_DEBUG("Request found in cache " << trel::log::RedactedUrl { url });
    return entry;
}

bool HttpClientCache::tryCache(const TrelUrl& url, HttpClientStatus status, int code,
    const HttpClientHeaders& headers, const QByteArray& body)
{
    TREL_ENTER("Url: " << trel::log::RedactedUrl { url } << " status: " << status << " code: " << code
                       << " header: " << trel::log::RedactedHeaders { headers });
    if (entries.maxCost() == 0 || variesBeyondEncoding(headers) || forbidsStoring(headers)
        || !HttpClientCacheEntry::shouldCache(headers)) {
        return false;
    }
    TREL_DEBUG("Inserting into cache " << trel::log::RedactedUrl { url });
    // A body larger than the whole budget is still stored, pushing out every other entry.
    const int cost = static_cast<int>(std::min<qint64>(body.size(), entries.maxCost()));
    // The stored response for this URL goes first: Qt 6's QCache makes room for
    // the newcomer before it drops the entry being replaced, and would push out
    // other entries that the replacement leaves room for (Qt 5 dropped first).
    // The replacement exists before the stored one is deleted, as with Qt 5's
    // insert: an address kept from the old entry never names the new one.
    auto replacement = std::make_unique<HttpClientCacheEntry>(status, code, headers, body);
    const QByteArray key = url.cachePath();
    entries.remove(key);
    entries.insert(key, replacement.release(), cost); // QCache owns it from here
    return true;
}

void HttpClientCache::setCacheSize(int size)
{
    TREL_ENTER("Bytes " << size);
    // A negative budget would make every later cost negative (it is capped at
    // the budget), and entries stored so would not count against a budget set
    // later: below zero means off, like zero.
    entries.setMaxCost(std::max(size, 0));
}

void HttpClientCache::clear()
{
    TREL_ENTER("");
    entries.clear();
}
