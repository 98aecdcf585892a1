/// \file
/// HttpClientCache and HttpClientCacheEntry: the client's in-memory response cache.
#pragma once

#include <trel/HttpClientHeaders.h>
#include <trel/HttpClientStatus.h>
#include <trel/TrelUrl.h>
#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QCache>

#include <cstdint>

/// One stored response and the moment until which it may be served.
///
/// A plain value, used by HttpClientCache on the owning client's thread.
class TREL_HTTP_CLIENT_EXPORT HttpClientCacheEntry
{
public:
    /// An entry with no lifetime (never fresh), status Error and code 0.
    HttpClientCacheEntry();
    /// Stores the response and computes its lifetime from "Expires" and
    /// "Cache-Control": first the `Expires` date (an unparsable one counts as
    /// the epoch), then each `Cache-Control` directive in order, a later one
    /// overriding an earlier one: `public` or `private` give 60 seconds from
    /// now unless a lifetime is already set, `max-age=N` gives N seconds from
    /// now, `no-cache` takes the lifetime away.
    HttpClientCacheEntry(
        HttpClientStatus status, int code, const HttpClientHeaders& headers, const QByteArray& body);

    /// Whether the lifetime has not ended yet (an entry without one never is fresh).
    bool isFresh() const;
    /// Whether a response with these headers may be stored at all. "Expires"
    /// decides alone when present, even against "Cache-Control": a date in the
    /// future allows it. Otherwise the first `Cache-Control` directive that is
    /// `public`, `private`, `max-age` (allowed) or `no-cache` (refused) decides;
    /// without one the response is not stored.
    static bool shouldCache(const HttpClientHeaders& headers);

    HttpClientStatus status = HttpClientStatus::Error; ///< The stored result's status.
    int code = 0; ///< The stored result's HTTP code.
    HttpClientHeaders headers; ///< The stored result's header fields.
    QByteArray body; ///< The stored result's body.
    std::int64_t expiry = 0; ///< End of the lifetime, in ms since the epoch; 0 means no lifetime.
};

/// In-memory LRU store of GET responses keyed by the URL's cache path (the URL
/// without user info and fragment), with a budget of body bytes. Capacity 0
/// (the initial state) stores nothing, and so does a
/// negative one.
///
/// Each HttpClient owns one and decides what is offered to it and when it is
/// asked (see HttpClient::setCacheSize()). Runs on the owning client's thread
/// only; not synchronised.
class TREL_HTTP_CLIENT_EXPORT HttpClientCache
{
public:
    /// An empty cache with capacity 0.
    HttpClientCache();
    /// Not copyable.
    HttpClientCache(const HttpClientCache&) = delete;
    /// Not copyable.
    HttpClientCache& operator=(const HttpClientCache&) = delete;

    /// The entry for \p url if present and fresh, marked most recently used;
    /// a stale one is dropped here. The pointer is owned by the cache and valid
    /// only until the next call that changes the cache.
    /// \return the entry, or null.
    const HttpClientCacheEntry* retrieve(const TrelUrl& url);
    /// Offers a response for \p url. It is stored, replacing any entry for the
    /// same cache path, when the capacity is above 0, the headers have no `Vary`
    /// field other than `Vary: Accept-Encoding`, and
    /// HttpClientCacheEntry::shouldCache() allows it; \p status and \p code
    /// are not looked at. Less recently used entries leave to make room; a
    /// body larger than the whole budget is still stored, pushing out every
    /// other entry.
    /// \return whether the response was stored.
    bool tryCache(const TrelUrl& url, HttpClientStatus status, int code, const HttpClientHeaders& headers,
        const QByteArray& body);
    /// Sets the budget of body bytes; less recently used entries leave until
    /// the rest fits. 0 drops everything and stores nothing more.
    void setCacheSize(int size);
    /// Drops every entry; the capacity stays.
    void clear();

private:
    QCache<QByteArray, HttpClientCacheEntry> entries;
};
