#include <trel/TrelUrl.h>

#include <gtest/gtest.h>

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

TEST(TrelUrl, RegisteredUnderItsNameAtLoadTime)
{
    EXPECT_EQ(QMetaType::type("TrelUrl"), qMetaTypeId<TrelUrl>());
}

} // namespace
