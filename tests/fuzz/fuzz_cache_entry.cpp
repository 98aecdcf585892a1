// The freshness rules of HttpClientCacheEntry for fuzzed "Expires" and
// "Cache-Control" headers, compared with a model of the rules:
// - "Expires" alone decides whether a response may be stored, when present:
//   only a date still ahead (a date that does not parse counts as the epoch);
// - otherwise the first "Cache-Control" directive that is public, private,
//   max-age... or no-cache decides (the first three store, no-cache refuses);
// - the lifetime starts from "Expires", then every directive applies in turn:
//   public/private give 60 s when there is no lifetime yet, max-age... gives
//   its seconds times 1000 wrapped to 32 bits (blanks removed, the value read
//   from the ninth character on), no-cache takes the lifetime away;
// - isFresh says whether the expiry is still ahead.
// The clock moves during a run, so every comparison with "now" is made with
// bounds read before and after the call.

#include "FuzzCheck.h"

#include <trel/HttpClientCache.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <QDateTime>
#include <QLocale>
#include <QStringList>

#include <cstddef>
#include <cstdint>
#include <string>

namespace {

using trel::fuzz::show;

std::int64_t now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

QString httpDate(std::int64_t msSinceEpoch)
{
    return QLocale::c().toString(QDateTime::fromMSecsSinceEpoch(msSinceEpoch, Qt::UTC),
        QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'"));
}

QString anyCase(FuzzedDataProvider& input, const char* name)
{
    switch (input.ConsumeIntegralInRange<int>(0, 3)) {
    case 0:
        return QString::fromLatin1(name).toLower();
    case 1:
        return QString::fromLatin1(name).toUpper();
    default:
        return QString::fromLatin1(name);
    }
}

QString blanks(FuzzedDataProvider& input)
{
    return QString(input.ConsumeIntegralInRange<int>(0, 2), QLatin1Char(' '));
}

QString directive(FuzzedDataProvider& input)
{
    switch (input.ConsumeIntegralInRange<int>(0, 9)) {
    case 0:
        return QStringLiteral("public");
    case 1:
        return QStringLiteral("private");
    case 2:
        return QStringLiteral("no-cache");
    case 3:
        return QStringLiteral("no-store");
    case 4:
        return QStringLiteral("max-age=") + QString::number(input.ConsumeIntegralInRange<int>(0, 100000));
    case 5: // wraps when times 1000 leaves 32 bits, fails to read past them
        return QStringLiteral("max-age=") + QString::number(input.ConsumeIntegral<std::int64_t>() >> 24);
    case 6:
        return QStringLiteral("max-age") + blanks(input) + QStringLiteral("=") + blanks(input)
            + QString::number(input.ConsumeIntegralInRange<int>(-5, 5000000));
    case 7:
        return QStringLiteral("max-age") + QString::fromStdString(input.ConsumeRandomLengthString(6));
    case 8:
        return QString::fromLatin1(input.ConsumeBool() ? "Public" : "NO-CACHE");
    default:
        return QString::fromStdString(input.ConsumeRandomLengthString(10));
    }
}

// The lifetime so far: an absolute expiry, or an offset from the moment of the call.
struct Lifetime
{
    bool relative = false;
    std::int64_t value = 0;
};

std::int64_t wrappedMaxAgeMs(QString directive)
{
    directive.remove(QLatin1Char(' '));
    const std::uint32_t seconds = static_cast<std::uint32_t>(directive.mid(8).toInt(nullptr, 10));
    return static_cast<std::int32_t>(seconds * 1000u);
}

QStringList directives(const QString& cacheControl)
{
    QStringList list = cacheControl.split(QLatin1Char(','));
    for (QString& d : list) {
        d = d.trimmed();
    }
    return list;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    HttpClientHeaders headers;
    HttpClientHeaders expiresOnly;

    // "Expires": absent, a date in the expected format (known to the millisecond),
    // or anything at all.
    bool expiresPresent = false;
    bool expiresKnown = false;
    std::int64_t expiresMs = 0;
    switch (input.ConsumeIntegralInRange<int>(0, 2)) {
    case 1: {
        // Whole seconds within fifty years either way; the format has no milliseconds.
        const std::int64_t offset = input.ConsumeIntegralInRange<std::int64_t>(-1577880000, 1577880000);
        expiresMs = (now() / 1000 + offset) * 1000;
        const QString name = anyCase(input, "Expires");
        headers.insert(name, httpDate(expiresMs));
        expiresOnly.insert(name, httpDate(expiresMs));
        expiresPresent = expiresKnown = true;
        break;
    }
    case 2: {
        const QString value = QString::fromStdString(input.ConsumeRandomLengthString(40));
        headers.insert(QStringLiteral("Expires"), value);
        expiresOnly.insert(QStringLiteral("Expires"), value);
        expiresPresent = true;
        break;
    }
    default:
        break;
    }

    bool cacheControlPresent = false;
    QString cacheControl;
    if (input.ConsumeBool()) {
        const int count = input.ConsumeIntegralInRange<int>(0, 5);
        QStringList parts;
        for (int i = 0; i < count; ++i) {
            parts << blanks(input) + directive(input) + blanks(input);
        }
        cacheControl = parts.join(QLatin1Char(','));
        headers.insert(anyCase(input, "Cache-Control"), cacheControl);
        cacheControlPresent = true;
    }
    if (input.ConsumeBool()) {
        headers.insert(QStringLiteral("Content-Type"), QStringLiteral("text/plain"));
    }
    const QByteArray body = QByteArray::fromStdString(input.ConsumeRemainingBytesAsString());

    // The expiry "Expires" gives, learned from an entry with nothing else when
    // the value is arbitrary.
    const HttpClientCacheEntry fromExpiresOnly(HttpClientStatus::OK, 200, expiresOnly, QByteArray());
    if (expiresKnown) {
        FUZZ_CHECK(fromExpiresOnly.expiry == expiresMs,
            "Expires " << show(httpDate(expiresMs)) << " read as " << fromExpiresOnly.expiry << ", not "
                       << expiresMs);
    } else if (!expiresPresent) {
        FUZZ_CHECK(fromExpiresOnly.expiry == 0, "no header, yet expiry " << fromExpiresOnly.expiry);
    } else {
        expiresMs = fromExpiresOnly.expiry;
        FUZZ_CHECK(expiresMs % 1000 == 0, "Expires read with milliseconds: " << expiresMs);
    }

    // Storable?
    const std::int64_t beforeCheck = now();
    const bool storable = HttpClientCacheEntry::shouldCache(headers);
    const std::int64_t afterCheck = now();
    if (expiresPresent) {
        FUZZ_CHECK(storable ? expiresMs > beforeCheck : expiresMs <= afterCheck,
            "Expires " << expiresMs << " must decide alone; storable " << storable);
    } else {
        bool expected = false;
        if (cacheControlPresent) {
            for (const QString& d : directives(cacheControl)) {
                if (d == QLatin1String("public") || d == QLatin1String("private")
                    || d.startsWith(QLatin1String("max-age"))) {
                    expected = true;
                    break;
                }
                if (d == QLatin1String("no-cache")) {
                    break;
                }
            }
        }
        FUZZ_CHECK(storable == expected,
            "Cache-Control " << show(cacheControl) << ": storable " << storable << ", model " << expected);
    }

    // The lifetime.
    Lifetime lifetime { false, expiresPresent ? expiresMs : 0 };
    if (cacheControlPresent) {
        for (const QString& d : directives(cacheControl)) {
            if (d == QLatin1String("public") || d == QLatin1String("private")) {
                // A relative lifetime is never 0: now is decades past the epoch.
                if (!lifetime.relative && lifetime.value == 0) {
                    lifetime = { true, 60000 };
                }
            } else if (d.startsWith(QLatin1String("max-age"))) {
                lifetime = { true, wrappedMaxAgeMs(d) };
            } else if (d == QLatin1String("no-cache")) {
                lifetime = { false, 0 };
            }
        }
    }
    const std::int64_t before = now();
    const HttpClientCacheEntry entry(HttpClientStatus::Timeout, 299, headers, body);
    const std::int64_t after = now();
    if (lifetime.relative) {
        FUZZ_CHECK(entry.expiry >= before + lifetime.value && entry.expiry <= after + lifetime.value,
            "Cache-Control " << show(cacheControl) << ": expiry " << entry.expiry << " outside ["
                             << before + lifetime.value << ", " << after + lifetime.value << "]");
    } else {
        FUZZ_CHECK(entry.expiry == lifetime.value,
            "Cache-Control " << show(cacheControl) << ": expiry " << entry.expiry << ", model "
                             << lifetime.value);
    }
    FUZZ_CHECK(entry.status == HttpClientStatus::Timeout && entry.code == 299 && entry.body == body
            && entry.headers.headers() == headers.headers(),
        "the entry does not hold the response it was given");

    const std::int64_t beforeFresh = now();
    const bool fresh = entry.isFresh();
    const std::int64_t afterFresh = now();
    FUZZ_CHECK(fresh ? entry.expiry > beforeFresh : entry.expiry <= afterFresh,
        "isFresh " << fresh << " for expiry " << entry.expiry);

    trel::fuzz::noteShape(static_cast<std::uint8_t>((expiresPresent ? 1 : 0) | (expiresKnown ? 2 : 0)
        | (expiresMs != 0 ? 4 : 0) | (cacheControlPresent ? 8 : 0) | (storable ? 16 : 0) | (fresh ? 32 : 0)
        | (lifetime.relative ? 64 : 0) | (lifetime.value < 0 ? 128 : 0)));
    return 0;
}
