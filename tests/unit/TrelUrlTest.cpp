#include <trel/TrelUrl.h>

#include <gtest/gtest.h>

#include "QtCompat.h"

#include <QMetaType>

#include <sstream>

namespace {

TEST(TrelUrl, EmptyByDefault)
{
    EXPECT_TRUE(TrelUrl().isEmpty());
    EXPECT_FALSE(TrelUrl("http://127.0.0.1/").isEmpty());
}

TEST(TrelUrl, PlusAndEncodedPlusSurviveByteForByte)
{
    TrelUrl url = TrelUrl::fromEncoded("http://127.0.0.1:8080/p+q?a=1+2&b=%2B&c=x%20y");
    EXPECT_EQ(url.encodedQuery(), "a=1+2&b=%2B&c=x%20y");
    EXPECT_EQ(url.toEncoded(), "http://127.0.0.1:8080/p+q?a=1+2&b=%2B&c=x%20y");

    url.setEncodedQuery(url.encodedQuery().replace("+", "%2B"));
    EXPECT_EQ(url.encodedQuery(), "a=1%2B2&b=%2B&c=x%20y");
    EXPECT_EQ(url.toEncoded(), "http://127.0.0.1:8080/p+q?a=1%2B2&b=%2B&c=x%20y");
}

TEST(TrelUrl, CachePathDropsUserInfoAndFragmentOnly)
{
    const TrelUrl url = TrelUrl::fromEncoded("https://user:pw@example.invalid:8443/a/b?x=1#frag");
    EXPECT_EQ(url.cachePath(), "https://example.invalid:8443/a/b?x=1");
}

TEST(TrelUrl, StreamsTheEncodedForm)
{
    std::ostringstream out;
    out << TrelUrl::fromEncoded("http://127.0.0.1/a%20b?q=1+1");
    EXPECT_EQ(out.str(), "http://127.0.0.1/a%20b?q=1+1");
}

TEST(TrelUrl, EqualityAndCopy)
{
    const TrelUrl a("http://127.0.0.1/x");
    const TrelUrl b = a;
    EXPECT_EQ(a, b);
    EXPECT_FALSE(a == TrelUrl("http://127.0.0.1/y"));
    EXPECT_EQ(a.toString(), "http://127.0.0.1/x");
}

// Both from fuzz_url, which allows for them. An invalid URL (here its port)
// encodes as nothing, and so does its cache path, but its query can still be
// read and rewritten.
TEST(TrelUrl, InvalidUrlEncodesAsNothingButKeepsItsQuery)
{
    TrelUrl url("http://[::1]:~0/%zz?%2b+%2B");
    EXPECT_FALSE(url.isEmpty());
    EXPECT_EQ(url.toEncoded(), QByteArray());
    EXPECT_EQ(url.cachePath(), QByteArray());
    EXPECT_EQ(url.encodedQuery(), "%2B+%2B"); // read as text: escapes upper-cased
    url.setEncodedQuery(url.encodedQuery().replace("+", "%2B"));
    EXPECT_EQ(url.encodedQuery(), "%2B%2B%2B");
}

// A query read as encoded and set back unchanged (the "+" rewrite of a query
// without "+") keeps the encoded form and the cache path, even for malformed
// Unicode. Equality is not promised there: it compares what QUrl stores, which
// may now be the encoded form of what was stored decoded.
TEST(TrelUrl, QueryGivenBackEncodedKeepsTheEncodedForm)
{
    const TrelUrl original(QString::fromUtf8("http:/?/[\xbf\xf2\xbf\xbf\xbf\xbf:/../%2B"));
    ASSERT_FALSE(original.toEncoded().isEmpty());
    TrelUrl rewritten = original;
    rewritten.setEncodedQuery(rewritten.encodedQuery().replace("+", "%2B"));
    EXPECT_EQ(rewritten.encodedQuery(), original.encodedQuery());
    EXPECT_EQ(rewritten.toEncoded(), original.toEncoded());
    EXPECT_EQ(rewritten.cachePath(), original.cachePath());
}

TEST(TrelUrl, RegisteredUnderItsNameAtLoadTime)
{
    EXPECT_EQ(trel::test::metaTypeIdByName("TrelUrl"), qMetaTypeId<TrelUrl>());
}

} // namespace
