#include <trel/HttpClientOptions.h>

#include <gtest/gtest.h>

namespace {

TEST(HttpClientOptions, DefaultsAreInPlace)
{
    const HttpClientOptions options;
    EXPECT_EQ(options.timeoutMs(), -1);
    EXPECT_EQ(options.readSizeLimit(), 65536);
    EXPECT_FALSE(options.immediateRead());
    EXPECT_EQ(options.maxRedirects(), 5);
    EXPECT_FALSE(options.redirectAuth());
    EXPECT_FALSE(options.isDisabledCompression());
    EXPECT_TRUE(options.verifyPeer());
    EXPECT_TRUE(options.headers().headers().isEmpty());
    EXPECT_TRUE(options.postRedirectFlags().isEmpty());
    EXPECT_EQ(options.maxReceiveBytesPerSecond(), 0);
    EXPECT_EQ(options.maxSendBytesPerSecond(), 0);
    EXPECT_FALSE(options.traceCallback());
    // The context is this record's own: the getter's copy makes the second reference.
    const HttpClientPrivate context = options.userData();
    EXPECT_EQ(context.constData()->ref.loadRelaxed(), 2);
}

TEST(HttpClientOptions, PostRedirAllHoldsExactlyTheThreeFlags)
{
    HttpClientOptions options;
    options.setPostRedirectFlags(HttpClientOptions::PostRedirAll);
    const auto flags = options.postRedirectFlags();
    EXPECT_EQ(flags.size(), 3);
    EXPECT_TRUE(flags.contains(HttpClientOptions::HttpPostRedirFlags(0)));
    EXPECT_TRUE(flags.contains(HttpClientOptions::HttpPostRedirFlags(1)));
    EXPECT_TRUE(flags.contains(HttpClientOptions::HttpPostRedirFlags(2)));
}

TEST(HttpClientOptions, SettingTheSameContextTwiceLeavesItsCountUnchanged)
{
    const HttpClientPrivate context(3);
    HttpClientOptions options;
    options.setUserData(context);
    const int afterFirst = context.constData()->ref.loadRelaxed();
    options.setUserData(context);
    EXPECT_EQ(context.constData()->ref.loadRelaxed(), afterFirst);
    EXPECT_EQ(afterFirst, 2);
    EXPECT_EQ(options.userData().getInt(), 3);
}

TEST(HttpClientOptions, ReplacingTheContextReleasesTheOldPayload)
{
    struct Counted : CMRequest::Data
    {
        explicit Counted(int* destroyed)
            : destroyed(destroyed)
        { }
        ~Counted() override { ++*destroyed; }
        int* destroyed;
    };
    int destroyed = 0;
    HttpClientOptions options;
    options.setUserData(HttpClientPrivate(CMRequest(new Counted(&destroyed))));
    EXPECT_EQ(destroyed, 0);
    options.setUserData(HttpClientPrivate(1));
    EXPECT_EQ(destroyed, 1);
}

TEST(HttpClientOptions, TwoDefaultRecordsHaveDistinctPayloads)
{
    const HttpClientOptions a;
    const HttpClientOptions b;
    EXPECT_NE(a.userData().constData(), b.userData().constData());
}

TEST(HttpClientOptions, CopiesShareTheContextPayload)
{
    HttpClientOptions a;
    a.setUserData(HttpClientPrivate(5));
    const HttpClientOptions b = a;
    EXPECT_EQ(a.userData().constData(), b.userData().constData());
}

TEST(HttpClientOptions, SettersStoreValuesUnchanged)
{
    HttpClientOptions options;
    options.setTimeoutMs(1500);
    options.setReadSizeLimit(-3);
    options.setImmediateRead(true);
    options.setMaxRedirects(-1);
    options.setRedirectAuth(true);
    options.disableCompression(true);
    options.setVerifyPeer(false);
    options.setHeaders(HttpClientHeaders({ { "X-A", "1" } }));
    options.setPostRedirectFlags({ HttpClientOptions::PostRedir303 });
    options.setMaxReceiveBytesPerSecond(5000000000LL); // past 32 bits
    options.setMaxSendBytesPerSecond(-2);
    EXPECT_EQ(options.timeoutMs(), 1500);
    EXPECT_EQ(options.readSizeLimit(), -3);
    EXPECT_TRUE(options.immediateRead());
    EXPECT_EQ(options.maxRedirects(), -1);
    EXPECT_TRUE(options.redirectAuth());
    EXPECT_TRUE(options.isDisabledCompression());
    EXPECT_FALSE(options.verifyPeer());
    EXPECT_EQ(options.headers().value("x-a", QString()), "1");
    EXPECT_EQ(options.postRedirectFlags(),
        QSet<HttpClientOptions::HttpPostRedirFlags> { HttpClientOptions::PostRedir303 });
    EXPECT_EQ(options.maxReceiveBytesPerSecond(), 5000000000LL);
    EXPECT_EQ(options.maxSendBytesPerSecond(), -2);
}

TEST(HttpClientOptions, TheTraceCallbackIsKeptAndTravelsWithCopies)
{
    HttpClientOptions options;
    QByteArray seen;
    options.setTraceCallback([&seen](HttpClientOptions::TraceKind kind, const QByteArray& data) {
        seen += QByteArray::number(kind) + data;
    });
    const HttpClientOptions copy = options;
    ASSERT_TRUE(copy.traceCallback());
    copy.traceCallback()(HttpClientOptions::TraceHeaderOut, "GET");
    EXPECT_EQ(seen, "2GET");
    options.setTraceCallback({});
    EXPECT_FALSE(options.traceCallback());
    EXPECT_TRUE(copy.traceCallback());
}

} // namespace
