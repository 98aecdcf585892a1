#pragma once

#include <trel/HttpClientHeaders.h>
#include <trel/HttpClientStatus.h>
#include <trel/TrelUrl.h>
#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QCache>

#include <cstdint>

// One stored response and the moment until which it may be served.
class TREL_HTTP_CLIENT_EXPORT HttpClientCacheEntry
{
public:
    HttpClientCacheEntry();
    // Computes the lifetime from "Expires" and "Cache-Control".
    HttpClientCacheEntry(
        HttpClientStatus status, int code, const HttpClientHeaders& headers, const QByteArray& body);

    bool isFresh() const;
    // Whether a response with these headers may be stored at all. "Expires"
    // decides alone when present, even against "Cache-Control".
    static bool shouldCache(const HttpClientHeaders& headers);

    HttpClientStatus status = HttpClientStatus::Error;
    int code = 0;
    HttpClientHeaders headers;
    QByteArray body;
    std::int64_t expiry = 0; // ms since the epoch; 0 means no lifetime
};

// In-memory LRU store of GET responses keyed by the URL's cache path, with a
// budget of body bytes. Capacity 0 (the initial state) stores nothing, and so
// does a negative one.
// Runs on the owning client's thread only.
class TREL_HTTP_CLIENT_EXPORT HttpClientCache
{
public:
    HttpClientCache();
    HttpClientCache(const HttpClientCache&) = delete;
    HttpClientCache& operator=(const HttpClientCache&) = delete;

    // The entry if present and fresh; a stale one is dropped here. The pointer is
    // valid only until the next call that changes the cache.
    const HttpClientCacheEntry* retrieve(const TrelUrl& url);
    bool tryCache(const TrelUrl& url, HttpClientStatus status, int code, const HttpClientHeaders& headers,
        const QByteArray& body);
    void setCacheSize(int size);
    void clear();

private:
    QCache<QByteArray, HttpClientCacheEntry> entries;
};
