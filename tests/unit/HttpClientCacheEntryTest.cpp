#include <trel/HttpClientCache.h>

#include <gtest/gtest.h>

#include <QDate>
#include <QDateTime>
#include <QLocale>
#include <QTime>

#include <cstdint>
#include <ctime>

namespace {

std::int64_t now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

// The one "Expires" format the cache understands, in English whatever the
// system locale is.
QString httpDate(
    std::int64_t msSinceEpoch, const QString& format = QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'"))
{
    return QLocale::c().toString(QDateTime::fromMSecsSinceEpoch(msSinceEpoch, Qt::UTC), format);
}

// A whole second, since the header carries no milliseconds.
std::int64_t wholeSecondFromNow(std::int64_t offsetMs)
{
    return (now() + offsetMs) / 1000 * 1000;
}

HttpClientHeaders cacheControl(const QString& value)
{
    return HttpClientHeaders({ { "Cache-Control", value } });
}

// The lifetime window of an entry built between `before` and `after`: the
// constructor reads now somewhere in between, so the expiry must fall within
// [before + lifetime, after + lifetime].
struct Built
{
    HttpClientCacheEntry entry;
    std::int64_t before = 0;
    std::int64_t after = 0;
};

Built build(const HttpClientHeaders& headers)
{
    Built built;
    built.before = now();
    built.entry = HttpClientCacheEntry(HttpClientStatus::OK, 200, headers, QByteArray("body"));
    built.after = now();
    return built;
}

::testing::AssertionResult livesFor(const Built& built, std::int64_t lifetimeMs)
{
    const std::int64_t low = built.before + lifetimeMs;
    const std::int64_t high = built.after + lifetimeMs;
    if (built.entry.expiry >= low && built.entry.expiry <= high) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "expiry " << built.entry.expiry << " outside [" << low << ", "
                                         << high << "] for a lifetime of " << lifetimeMs << " ms";
}

TEST(HttpClientCacheEntry, DefaultEntryHasEmptyHeadersAndBody)
{
    const HttpClientCacheEntry entry;
    EXPECT_TRUE(entry.headers.headers().isEmpty());
    EXPECT_TRUE(entry.body.isEmpty());
}

TEST(HttpClientCacheEntry, KeepsStatusCodeAndSharedCopiesOfHeadersAndBody)
{
    const HttpClientHeaders headers({ { "Cache-Control", "max-age=60" }, { "X-Id", "7" } });
    const QByteArray body("response body");
    const HttpClientCacheEntry entry(HttpClientStatus::ImmediateRead, 203, headers, body);
    EXPECT_EQ(entry.status, HttpClientStatus::ImmediateRead);
    EXPECT_EQ(entry.code, 203);
    EXPECT_EQ(entry.headers.headers(), headers.headers());
    EXPECT_EQ(entry.body, body);
    // Stored without a deep copy: the entry shares the caller's bytes.
    EXPECT_EQ(entry.body.constData(), body.constData());
}

TEST(HttpClientCacheEntry, ExpiresAnHourAheadIsStorableAndBecomesTheExpiry)
{
    const std::int64_t expires = wholeSecondFromNow(3600 * 1000);
    const HttpClientHeaders headers({ { "Expires", httpDate(expires) } });
    EXPECT_TRUE(HttpClientCacheEntry::shouldCache(headers));
    const HttpClientCacheEntry entry(HttpClientStatus::OK, 200, headers, QByteArray());
    EXPECT_EQ(entry.expiry, expires);
    EXPECT_TRUE(entry.isFresh());
}

// The date is GMT whatever the machine's own time zone is.
TEST(HttpClientCacheEntry, ExpiresIsReadAsUtcInAnyLocalTimeZone)
{
    const QByteArray previous = qgetenv("TZ");
    const bool hadZone = qEnvironmentVariableIsSet("TZ");
    qputenv("TZ", "America/New_York");
    tzset();
    const std::int64_t expected = QDateTime(QDate(2037, 3, 5), QTime(17, 4, 9), Qt::UTC).toMSecsSinceEpoch();
    const HttpClientHeaders headers({ { "Expires", httpDate(expected) } });
    const std::int64_t expiry = HttpClientCacheEntry(HttpClientStatus::OK, 200, headers, QByteArray()).expiry;
    const bool storable = HttpClientCacheEntry::shouldCache(headers);
    if (hadZone) {
        qputenv("TZ", previous);
    } else {
        qunsetenv("TZ");
    }
    tzset();
    EXPECT_EQ(headers.value("Expires", QString()), "Thu, 05 Mar 2037 17:04:09 GMT");
    EXPECT_EQ(expiry, expected);
    EXPECT_TRUE(storable);
}

TEST(HttpClientCacheEntry, PastExpiresWithoutCacheControlIsNotStorable)
{
    const std::int64_t expires = wholeSecondFromNow(-3600 * 1000);
    const HttpClientHeaders headers({ { "Expires", httpDate(expires) } });
    EXPECT_FALSE(HttpClientCacheEntry::shouldCache(headers));
    const HttpClientCacheEntry entry(HttpClientStatus::OK, 200, headers, QByteArray());
    EXPECT_EQ(entry.expiry, expires);
    EXPECT_FALSE(entry.isFresh());
}

TEST(HttpClientCacheEntry, PastExpiresDecidesAloneAgainstMaxAge)
{
    const HttpClientHeaders headers(
        { { "Expires", httpDate(wholeSecondFromNow(-3600 * 1000)) }, { "Cache-Control", "max-age=60" } });
    EXPECT_FALSE(HttpClientCacheEntry::shouldCache(headers));
    // The lifetime still follows max-age, which overrides the past date.
    const Built built = build(headers);
    EXPECT_TRUE(livesFor(built, 60000));
    EXPECT_TRUE(built.entry.isFresh());
}

TEST(HttpClientCacheEntry, FutureExpiresWithNoCacheIsStorableButStale)
{
    const HttpClientHeaders headers(
        { { "Expires", httpDate(wholeSecondFromNow(3600 * 1000)) }, { "Cache-Control", "no-cache" } });
    EXPECT_TRUE(HttpClientCacheEntry::shouldCache(headers));
    const HttpClientCacheEntry entry(HttpClientStatus::OK, 200, headers, QByteArray());
    EXPECT_EQ(entry.expiry, 0);
    EXPECT_FALSE(entry.isFresh());
}

TEST(HttpClientCacheEntry, MaxAgeOverridesFutureExpires)
{
    const HttpClientHeaders headers(
        { { "Expires", httpDate(wholeSecondFromNow(3600 * 1000)) }, { "Cache-Control", "max-age=60" } });
    EXPECT_TRUE(HttpClientCacheEntry::shouldCache(headers));
    EXPECT_TRUE(livesFor(build(headers), 60000));
}

TEST(HttpClientCacheEntry, PublicLeavesAnExpiresDateAlone)
{
    const std::int64_t expires = wholeSecondFromNow(3600 * 1000);
    for (const char* directive : { "public", "private" }) {
        SCOPED_TRACE(directive);
        const HttpClientHeaders headers({ { "Expires", httpDate(expires) }, { "Cache-Control", directive } });
        EXPECT_EQ(HttpClientCacheEntry(HttpClientStatus::OK, 200, headers, QByteArray()).expiry, expires);
    }
}

TEST(HttpClientCacheEntry, NoStoreIsIgnoredAndMaxAgeGivesTheLifetime)
{
    const HttpClientHeaders headers = cacheControl("no-store, max-age=30");
    EXPECT_TRUE(HttpClientCacheEntry::shouldCache(headers));
    EXPECT_TRUE(livesFor(build(headers), 30000));
}

TEST(HttpClientCacheEntry, DirectiveWordsAreCaseSensitive)
{
    for (const char* value : { "Public", "PRIVATE", "Max-Age=60", "MAX-AGE=60" }) {
        SCOPED_TRACE(value);
        const HttpClientHeaders headers = cacheControl(value);
        EXPECT_FALSE(HttpClientCacheEntry::shouldCache(headers));
        EXPECT_EQ(HttpClientCacheEntry(HttpClientStatus::OK, 200, headers, QByteArray()).expiry, 0);
    }
    // "No-Cache" is not recognised either, so it neither refuses nor clears.
    const HttpClientHeaders headers = cacheControl("No-Cache, max-age=60");
    EXPECT_TRUE(HttpClientCacheEntry::shouldCache(headers));
    EXPECT_TRUE(livesFor(build(headers), 60000));
}

TEST(HttpClientCacheEntry, HeaderNamesMatchWithoutCase)
{
    const HttpClientHeaders maxAge({ { "cache-control", "max-age=45" } });
    EXPECT_TRUE(HttpClientCacheEntry::shouldCache(maxAge));
    EXPECT_TRUE(livesFor(build(maxAge), 45000));

    const std::int64_t expires = wholeSecondFromNow(3600 * 1000);
    const HttpClientHeaders date({ { "EXPIRES", httpDate(expires) } });
    EXPECT_TRUE(HttpClientCacheEntry::shouldCache(date));
    EXPECT_EQ(HttpClientCacheEntry(HttpClientStatus::OK, 200, date, QByteArray()).expiry, expires);
}

TEST(HttpClientCacheEntry, PublicAndPrivateGetTheSixtySecondDefault)
{
    for (const char* directive : { "public", "private" }) {
        SCOPED_TRACE(directive);
        const HttpClientHeaders headers = cacheControl(directive);
        EXPECT_TRUE(HttpClientCacheEntry::shouldCache(headers));
        const Built built = build(headers);
        EXPECT_TRUE(livesFor(built, 60000));
        EXPECT_TRUE(built.entry.isFresh());
    }
}

TEST(HttpClientCacheEntry, BlanksAroundTheMaxAgeEqualsSignAreRemoved)
{
    const HttpClientHeaders headers = cacheControl("max-age = 120");
    EXPECT_TRUE(HttpClientCacheEntry::shouldCache(headers));
    EXPECT_TRUE(livesFor(build(headers), 120000));
}

TEST(HttpClientCacheEntry, MaxAgeZeroIsStorableButNeverFresh)
{
    const HttpClientHeaders headers = cacheControl("max-age=0");
    EXPECT_TRUE(HttpClientCacheEntry::shouldCache(headers));
    const Built built = build(headers);
    EXPECT_TRUE(livesFor(built, 0));
    EXPECT_FALSE(built.entry.isFresh());
}

TEST(HttpClientCacheEntry, MaxAgeWithoutAUsableNumberEndsAtOnce)
{
    for (const char* value : { "max-age", "max-age=", "max-age=soon", "max-age=2147483648", "max-age=-" }) {
        SCOPED_TRACE(value);
        const HttpClientHeaders headers = cacheControl(value);
        EXPECT_TRUE(HttpClientCacheEntry::shouldCache(headers));
        const Built built = build(headers);
        EXPECT_TRUE(livesFor(built, 0));
        EXPECT_FALSE(built.entry.isFresh());
    }
}

struct WrapCase
{
    const char* seconds;
    std::int64_t lifetimeMs;
    bool fresh;
};

class HttpClientCacheEntryMaxAgeProduct : public ::testing::TestWithParam<WrapCase>
{
};

// The seconds are multiplied by 1000 in 32-bit arithmetic; the wrapped value is
// the lifetime the cache has always used.
TEST_P(HttpClientCacheEntryMaxAgeProduct, IsComputedIn32Bits)
{
    const WrapCase& c = GetParam();
    const HttpClientHeaders headers = cacheControl(QStringLiteral("max-age=") + c.seconds);
    EXPECT_TRUE(HttpClientCacheEntry::shouldCache(headers));
    const Built built = build(headers);
    EXPECT_TRUE(livesFor(built, c.lifetimeMs));
    EXPECT_EQ(built.entry.isFresh(), c.fresh);
}

INSTANTIATE_TEST_SUITE_P(HttpClientCacheEntry, HttpClientCacheEntryMaxAgeProduct,
    ::testing::Values(WrapCase { "2592000", -1702967296LL, false }, // 30 days
        WrapCase { "31536000", 1471228928LL, true }, // 365 days
        WrapCase { "2147483", 2147483000LL, true }, // largest unwrapped
        WrapCase { "2147484", -2147483296LL, false }, // first wrapped
        WrapCase { "60", 60000LL, true }));

TEST(HttpClientCacheEntry, NoCacheThenPublicIsRefusedButWouldLiveSixtySeconds)
{
    const HttpClientHeaders headers = cacheControl("no-cache, public");
    EXPECT_FALSE(HttpClientCacheEntry::shouldCache(headers));
    EXPECT_TRUE(livesFor(build(headers), 60000));
}

TEST(HttpClientCacheEntry, NoCacheAfterMaxAgeLeavesNoLifetime)
{
    const HttpClientHeaders headers = cacheControl("max-age=60, no-cache");
    EXPECT_TRUE(HttpClientCacheEntry::shouldCache(headers));
    const HttpClientCacheEntry entry(HttpClientStatus::OK, 200, headers, QByteArray());
    EXPECT_EQ(entry.expiry, 0);
    EXPECT_FALSE(entry.isFresh());
}

TEST(HttpClientCacheEntry, LaterDirectivesOverrideEarlierOnes)
{
    EXPECT_TRUE(livesFor(build(cacheControl("max-age=10, max-age=20")), 20000));
    EXPECT_TRUE(livesFor(build(cacheControl("max-age=10, public")), 10000));
    EXPECT_TRUE(livesFor(build(cacheControl("public, max-age=10")), 10000));
}

TEST(HttpClientCacheEntry, TheFirstRecognisedDirectiveDecidesStorability)
{
    EXPECT_FALSE(HttpClientCacheEntry::shouldCache(cacheControl("must-revalidate, no-cache, max-age=60")));
    EXPECT_TRUE(HttpClientCacheEntry::shouldCache(cacheControl("must-revalidate, private, no-cache")));
    EXPECT_FALSE(HttpClientCacheEntry::shouldCache(cacheControl("no-store, must-revalidate, s-maxage=60")));
    EXPECT_FALSE(HttpClientCacheEntry::shouldCache(cacheControl("")));
}

TEST(HttpClientCacheEntry, DirectivesAreTrimmedAndEmptyPiecesSkipped)
{
    const HttpClientHeaders headers = cacheControl(" ,,\t public  , ");
    EXPECT_TRUE(HttpClientCacheEntry::shouldCache(headers));
    EXPECT_TRUE(livesFor(build(headers), 60000));
}

TEST(HttpClientCacheEntry, ExpiresInAnotherFormatCountsAsTheEpoch)
{
    const std::int64_t ahead = wholeSecondFromNow(3600 * 1000);
    for (const QString& value : { httpDate(ahead, QStringLiteral("ddd, dd MMM yyyy hh:mm:ss '+0000'")),
             httpDate(ahead, QStringLiteral("yyyy-MM-dd'T'hh:mm:ss'Z'")), QStringLiteral("0") }) {
        SCOPED_TRACE(value.toStdString());
        const HttpClientHeaders headers({ { "Expires", value } });
        EXPECT_FALSE(HttpClientCacheEntry::shouldCache(headers));
        EXPECT_EQ(HttpClientCacheEntry(HttpClientStatus::OK, 200, headers, QByteArray()).expiry, 0);
    }
    // The unreadable date still decides storability alone; the lifetime then
    // starts from nothing and takes the default.
    const HttpClientHeaders headers({ { "Expires", QStringLiteral("0") }, { "Cache-Control", "public" } });
    EXPECT_FALSE(HttpClientCacheEntry::shouldCache(headers));
    EXPECT_TRUE(livesFor(build(headers), 60000));
}

TEST(HttpClientCacheEntry, NoExpiresAndNoCacheControlIsNotStorable)
{
    const HttpClientHeaders headers({ { "Content-Type", "text/plain" } });
    EXPECT_FALSE(HttpClientCacheEntry::shouldCache(headers));
    EXPECT_FALSE(HttpClientCacheEntry::shouldCache(HttpClientHeaders()));
    const HttpClientCacheEntry entry(HttpClientStatus::OK, 200, headers, QByteArray("x"));
    EXPECT_EQ(entry.expiry, 0);
    EXPECT_FALSE(entry.isFresh());
}

TEST(HttpClientCacheEntry, IsFreshComparesStrictlyWithNow)
{
    HttpClientCacheEntry entry;
    entry.expiry = now() + 60000;
    EXPECT_TRUE(entry.isFresh());
    entry.expiry = now() - 1;
    EXPECT_FALSE(entry.isFresh());

    // Exactly now: keep only a sample whose clock did not move during the call,
    // so isFresh was certainly evaluated with now equal to the expiry.
    bool sampled = false;
    for (int attempt = 0; attempt < 1000 && !sampled; ++attempt) {
        entry.expiry = now();
        const bool fresh = entry.isFresh();
        if (now() == entry.expiry) {
            sampled = true;
            EXPECT_FALSE(fresh);
        }
    }
    EXPECT_TRUE(sampled);
}

} // namespace
