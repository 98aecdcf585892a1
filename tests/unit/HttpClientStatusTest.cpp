#include <trel/HttpClient.h>

#include <gtest/gtest.h>

#include <sstream>

namespace {

TEST(HttpClientStatus, ValuesAreFixed)
{
    EXPECT_EQ(static_cast<int>(HttpClientStatus::OK), 0);
    EXPECT_EQ(static_cast<int>(HttpClientStatus::ResolveError), 1);
    EXPECT_EQ(static_cast<int>(HttpClientStatus::ConnectError), 2);
    EXPECT_EQ(static_cast<int>(HttpClientStatus::Timeout), 3);
    EXPECT_EQ(static_cast<int>(HttpClientStatus::Error), 4);
    EXPECT_EQ(static_cast<int>(HttpClientStatus::ImmediateRead), 5);
    EXPECT_EQ(sizeof(HttpClientStatus), 4u);
}

TEST(HttpClientStatus, ToStringGivesTheExactTexts)
{
    EXPECT_EQ(HttpClient::toString(HttpClientStatus(0)), "OK");
    EXPECT_EQ(HttpClient::toString(HttpClientStatus(1)), "ResolveError");
    EXPECT_EQ(HttpClient::toString(HttpClientStatus(2)), "ConnectError");
    EXPECT_EQ(HttpClient::toString(HttpClientStatus(3)), "Timeout");
    EXPECT_EQ(HttpClient::toString(HttpClientStatus(4)), "Error");
    EXPECT_EQ(HttpClient::toString(HttpClientStatus(5)), "ImmediateRead");
}

TEST(HttpClientStatus, OutOfRangeValuesAreNamedInvalidWithTheirNumber)
{
    EXPECT_EQ(HttpClient::toString(HttpClientStatus(6)), "Invalid status 6");
    EXPECT_EQ(HttpClient::toString(HttpClientStatus(7)), "Invalid status 7");
    EXPECT_EQ(HttpClient::toString(HttpClientStatus(-1)), "Invalid status -1");
}

TEST(HttpClientStatus, StreamsItsText)
{
    std::ostringstream out;
    out << HttpClientStatus::Timeout << "|" << HttpClientStatus(9);
    EXPECT_EQ(out.str(), "Timeout|Invalid status 9");
}

TEST(HttpClientResult, FieldsInOrderAndCopyable)
{
    HttpClientResult result { TrelUrl("http://127.0.0.1/a"), HttpClientStatus::OK, 200, QByteArray("body"),
        HttpClientHeaders({ { "A", "1" } }) };
    const HttpClientResult copy = result;
    EXPECT_EQ(copy.url, TrelUrl("http://127.0.0.1/a"));
    EXPECT_EQ(copy.status, HttpClientStatus::OK);
    EXPECT_EQ(copy.code, 200);
    EXPECT_EQ(copy.body, "body");
    EXPECT_EQ(copy.headers.value("a", QString()), "1");
}

} // namespace
