// HttpClientCache under random sequences of store, retrieve, resize and clear,
// replayed against a model of its LRU byte budget: a list of entries from least
// to most recently used, each costing its body size capped at the capacity.
//
// The model's rules: capacity 0 or below stores nothing; a store replaces the
// entry of its cache path and becomes the most recently used, pushing out the
// least recently used entries until its cost fits; a retrieve of a fresh entry
// makes it the most recently used, and of a stale one removes it; shrinking
// pushes out the least recently used entries until the rest fit; clear empties
// the cache and keeps the capacity. What may be stored follows the response's
// headers ("Expires" alone decides when present, Vary other than
// Accept-Encoding and Cache-Control's no-store never are); keys ignore user
// info and fragment.
//
// Checked after every call: stores accepted or refused as the model says, a
// hit returns the response stored last for its key with an expiry in the
// model's bounds, and every key the model does not hold misses. At the end,
// every entry the model holds fresh is retrieved, least recently used first.
// Lifetimes are 0, negative (the wrapped max-age), or an hour or more, and
// comparisons with the clock use bounds read around each call.

#include "FuzzCheck.h"

#include <trel/HttpClientCache.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <QDateTime>
#include <QLocale>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

namespace {

constexpr int kKeys = 6;

std::int64_t now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

QString httpDate(std::int64_t msSinceEpoch)
{
    return QLocale::c().toString(QDateTime::fromMSecsSinceEpoch(msSinceEpoch, Qt::UTC),
        QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'"));
}

// The same cache path written three ways: user info and fragment are not part
// of it. Built once: parsing URLs would cost more than the cache itself.
const TrelUrl& keyUrl(int key, int form)
{
    static const std::vector<TrelUrl> urls = [] {
        std::vector<TrelUrl> all;
        for (int k = 0; k < kKeys; ++k) {
            const QString path = QStringLiteral("example.com/r%1?k=%1").arg(k);
            all.emplace_back(QStringLiteral("http://") + path);
            all.emplace_back(QStringLiteral("http://user:secret@") + path);
            all.emplace_back(QStringLiteral("http://") + path + QStringLiteral("#part"));
        }
        return all;
    }();
    return urls[static_cast<std::size_t>(key * 3 + form)];
}

QByteArray body(int size, int code)
{
    return QByteArray(size, static_cast<char>('a' + code % 26));
}

struct Offer
{
    HttpClientHeaders headers;
    bool storable = false;
    bool absolute = false;
    std::int64_t lifetimeMs = 0; // from the moment of the store, or absolute
};

// "Expires" values an hour either side of the start of the input, formatted
// once per input.
struct Dates
{
    std::int64_t hourAhead = (now() + 3600 * 1000) / 1000 * 1000;
    QString ahead = httpDate(hourAhead);
    QString ago = httpDate((now() - 3600 * 1000) / 1000 * 1000);
};

Offer offer(int kind, bool lowerCaseNames, const Dates& dates)
{
    const QString cc = lowerCaseNames ? QStringLiteral("cache-control") : QStringLiteral("Cache-Control");
    const QString ex = lowerCaseNames ? QStringLiteral("expires") : QStringLiteral("Expires");
    const QString vary = lowerCaseNames ? QStringLiteral("vary") : QStringLiteral("Vary");
    const std::int64_t hourAhead = dates.hourAhead;
    switch (kind) {
    case 0:
        return { HttpClientHeaders({ { cc, "max-age=3600" } }), true, false, 3600 * 1000 };
    case 1:
        return { HttpClientHeaders({ { cc, "private, max-age=7200" } }), true, false, 7200 * 1000 };
    case 2:
        return { HttpClientHeaders({ { ex, dates.ahead } }), true, true, hourAhead };
    case 3:
        return { HttpClientHeaders({ { ex, dates.ahead }, { cc, "public" } }), true, true, hourAhead };
    case 4:
        return { HttpClientHeaders({ { cc, "max-age=0" } }), true, false, 0 };
    case 5: // 2592000 s wraps to -1702967296 ms: stored, stale at once
        return { HttpClientHeaders({ { cc, "max-age=2592000" } }), true, false, -1702967296LL };
    case 6:
        return { HttpClientHeaders({ { ex, dates.ahead }, { cc, "no-cache" } }), true, true, 0 };
    case 7:
        return { HttpClientHeaders({ { cc, "max-age=3600, no-cache" } }), true, true, 0 };
    case 8: // "Expires" decides alone
        return { HttpClientHeaders({ { ex, dates.ago }, { cc, "max-age=3600" } }), false };
    case 9:
        return { HttpClientHeaders({ { ex, "tomorrow" }, { cc, "max-age=3600" } }), false };
    case 10:
        return { HttpClientHeaders({ { cc, "no-cache, max-age=3600" } }), false };
    case 11:
        return { HttpClientHeaders({ { cc, "no-store" } }), false };
    case 12:
        return { HttpClientHeaders({ { cc, "max-age=3600" }, { vary, "Accept" } }), false };
    case 13:
        return { HttpClientHeaders({ { cc, "max-age=3600" }, { vary, " accept-encoding ,Accept-Encoding" } }),
            true, false, 3600 * 1000 };
    case 14:
        return { HttpClientHeaders({ { cc, "max-age=3600" }, { vary, "Accept-Encoding, Cookie" } }), false };
    case 15: // no-store wins over any lifetime, in any case and order
        return { HttpClientHeaders({ { cc, "max-age=3600, No-Store" } }), false };
    case 16:
        return { HttpClientHeaders({ { ex, dates.ahead }, { cc, "no-store, public" } }), false };
    default:
        return { HttpClientHeaders({ { QStringLiteral("Content-Type"), QStringLiteral("text/plain") } }),
            false };
    }
}

class Model
{
public:
    struct Entry
    {
        int key = 0;
        int cost = 0;
        int code = 0;
        int bodySize = 0;
        std::int64_t expiryLow = 0;
        std::int64_t expiryHigh = 0;
    };

    bool storesAnything() const { return capacity > 0; }

    const Entry* find(int key) const
    {
        const auto it = locate(key);
        return it == lru.end() ? nullptr : &*it;
    }

    void insert(Entry entry)
    {
        erase(entry.key);
        entry.cost = std::min(entry.bodySize, capacity);
        trim(capacity - entry.cost);
        lru.push_back(entry);
    }

    void touch(int key) { lru.splice(lru.end(), lru, locate(key)); }

    void erase(int key)
    {
        const auto it = locate(key);
        if (it != lru.end()) {
            lru.erase(it);
        }
    }

    void resize(int bytes)
    {
        capacity = std::max(bytes, 0);
        trim(capacity);
    }

    void clear() { lru.clear(); }
    const std::list<Entry>& entries() const { return lru; }

private:
    std::list<Entry>::const_iterator locate(int key) const
    {
        return std::find_if(lru.begin(), lru.end(), [key](const Entry& e) { return e.key == key; });
    }

    void trim(int limit)
    {
        long long total = 0;
        for (const Entry& entry : lru) {
            total += entry.cost;
        }
        while (!lru.empty() && total > limit) {
            total -= lru.front().cost;
            lru.pop_front();
        }
    }

    std::list<Entry> lru;
    int capacity = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    HttpClientCache cache;
    Model model;
    const Dates dates;
    int nextCode = 1;
    unsigned shape = 0;

    for (int step = 0; step < 64 && input.remaining_bytes() > 0; ++step) {
        const int choice = input.ConsumeIntegralInRange<int>(0, 15);
        if (choice < 7) {
            const int key = input.ConsumeIntegralInRange<int>(0, kKeys - 1);
            const int form = input.ConsumeIntegralInRange<int>(0, 2);
            const Offer o = offer(input.ConsumeIntegralInRange<int>(0, 17), input.ConsumeBool(), dates);
            const int bodySize = input.ConsumeBool() ? input.ConsumeIntegralInRange<int>(0, 64)
                                                     : input.ConsumeIntegralInRange<int>(0, 700);
            const int code = nextCode++;
            const std::int64_t before = now();
            const bool stored = cache.tryCache(
                keyUrl(key, form), HttpClientStatus::OK, code, o.headers, body(bodySize, code));
            const std::int64_t after = now();
            const bool expected = model.storesAnything() && o.storable;
            FUZZ_CHECK(
                stored == expected, "store of key " << key << ": " << stored << ", model " << expected);
            if (expected) {
                Model::Entry entry;
                entry.key = key;
                entry.code = code;
                entry.bodySize = bodySize;
                entry.expiryLow = o.absolute ? o.lifetimeMs : before + o.lifetimeMs;
                entry.expiryHigh = o.absolute ? o.lifetimeMs : after + o.lifetimeMs;
                model.insert(entry);
            }
            shape |= stored ? 1u : 2u;
        } else if (choice < 12) {
            const int key = input.ConsumeIntegralInRange<int>(0, kKeys - 1);
            const TrelUrl& url = keyUrl(key, input.ConsumeIntegralInRange<int>(0, 2));
            const std::int64_t before = now();
            const HttpClientCacheEntry* entry = cache.retrieve(url);
            const std::int64_t after = now();
            const Model::Entry* expected = model.find(key);
            if (!expected) {
                FUZZ_CHECK(entry == nullptr, "key " << key << " is served but was never kept");
                shape |= 4u;
            } else if (expected->expiryLow > after) {
                FUZZ_CHECK(
                    entry != nullptr, "fresh key " << key << " (code " << expected->code << ") is gone");
                FUZZ_CHECK(entry->code == expected->code && entry->status == HttpClientStatus::OK
                        && entry->body == body(expected->bodySize, expected->code),
                    "key " << key << " serves code " << entry->code << ", model " << expected->code);
                FUZZ_CHECK(entry->expiry >= expected->expiryLow && entry->expiry <= expected->expiryHigh,
                    "key " << key << " expires at " << entry->expiry << ", model [" << expected->expiryLow
                           << ", " << expected->expiryHigh << "]");
                model.touch(key);
                shape |= 8u;
            } else if (expected->expiryHigh <= before) {
                FUZZ_CHECK(entry == nullptr, "stale key " << key << " is served");
                model.erase(key);
                shape |= 16u;
            } else if (entry) { // expired during this very call: either answer is right
                model.touch(key);
            } else {
                model.erase(key);
            }
        } else if (choice < 15) {
            int bytes = 0;
            switch (input.ConsumeIntegralInRange<int>(0, 3)) {
            case 0:
                bytes = input.ConsumeIntegralInRange<int>(0, 150);
                break;
            case 1:
                bytes = input.ConsumeIntegralInRange<int>(0, 1000);
                break;
            case 2:
                bytes = input.ConsumeIntegral<int>();
                break;
            default:
                bytes = input.ConsumeIntegralInRange<int>(-2, 2);
                break;
            }
            cache.setCacheSize(bytes);
            model.resize(bytes);
            shape |= bytes < 0 ? 32u : 0u;
        } else {
            cache.clear();
            model.clear();
            shape |= 64u;
        }

        // A key the model does not hold must miss. A miss neither logs nor
        // changes the order of the others, so asking disturbs nothing.
        for (int key = 0; key < kKeys; ++key) {
            if (!model.find(key)) {
                FUZZ_CHECK(cache.retrieve(keyUrl(key, 0)) == nullptr,
                    "key " << key << " is still in the cache after step " << step);
            }
        }
    }

    // Every entry the model holds fresh is there, asked least recently used
    // first so that the order stays as the model has it.
    std::list<int> freshKeys;
    const std::int64_t before = now();
    for (const Model::Entry& entry : model.entries()) {
        if (entry.expiryLow > before + 1000) {
            freshKeys.push_back(entry.key);
        }
    }
    for (const int key : freshKeys) {
        const HttpClientCacheEntry* entry = cache.retrieve(keyUrl(key, 0));
        FUZZ_CHECK(entry != nullptr && entry->code == model.find(key)->code,
            "fresh key " << key << " is missing at the end");
        shape |= 128u;
    }
    trel::fuzz::noteShape(static_cast<std::uint8_t>(shape));
    return 0;
}
