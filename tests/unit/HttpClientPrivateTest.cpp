#include <trel/HttpClientPrivate.h>

#include <gtest/gtest.h>

namespace {

// Data classes that count their destructions, to observe shared ownership.
template <typename Base> struct Counted : Base
{
    explicit Counted(int* destroyed)
        : destroyed(destroyed)
    { }
    ~Counted() override { ++*destroyed; }
    int* destroyed;
};

TEST(HttpClientPrivate, IntegerContextGivesDefaultsElsewhere)
{
    const HttpClientPrivate context(7);
    EXPECT_EQ(context.getInt(), 7);
    EXPECT_TRUE(context.getString().isNull());
    EXPECT_FALSE(context.getVariant().isValid());
    EXPECT_TRUE(context.getCMRequest().isNull());
    EXPECT_TRUE(context.getCMRequestSec().isNull());
    EXPECT_TRUE(context.getCMGetRowsRequest().isNull());
    EXPECT_TRUE(context.getCMSetDataRequest().isNull());
    EXPECT_TRUE(context.getCMGetDataRequest().isNull());
    EXPECT_TRUE(context.getCMReply().isNull());
}

TEST(HttpClientPrivate, TypedGettersMatchOnlyTheStoredKind)
{
    int destroyed = 0;
    {
        const CMSetDataRequest request(new Counted<CMSetDataRequest::Data>(&destroyed));
        const HttpClientPrivate context(request);
        EXPECT_EQ(context.getCMSetDataRequest(), request);
        EXPECT_EQ(context.getCMSetDataRequest().data(), request.data());
        EXPECT_TRUE(context.getCMGetRowsRequest().isNull());
        EXPECT_TRUE(context.getCMGetDataRequest().isNull());
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(HttpClientPrivate, TwoRequestsFirstIsTypedSecondIsUntyped)
{
    const CMGetRowsRequest first(new CMGetRowsRequest::Data());
    const CMGetDataRequest second(new CMGetDataRequest::Data());
    const HttpClientPrivate context(first, second);
    EXPECT_EQ(context.getCMRequest(), first);
    EXPECT_EQ(context.getCMRequestSec(), second);
    EXPECT_EQ(context.getCMGetRowsRequest(), first);
    EXPECT_TRUE(context.getCMGetDataRequest().isNull()); // only the first is examined
}

TEST(HttpClientPrivate, RequestAndVariant)
{
    const CMGetDataRequest request(new CMGetDataRequest::Data());
    const HttpClientPrivate context(request, QVariant(42));
    EXPECT_EQ(context.getCMGetDataRequest(), request);
    EXPECT_EQ(context.getVariant().toInt(), 42);
}

TEST(HttpClientPrivate, TextAndVariantContexts)
{
    EXPECT_EQ(HttpClientPrivate(QString("hello")).getString(), "hello");
    EXPECT_EQ(HttpClientPrivate(QVariant(QString("v"))).getVariant().toString(), "v");
}

TEST(HttpClientPrivate, DefaultContextGivesDefaultsFromEveryGetter)
{
    const HttpClientPrivate context;
    EXPECT_EQ(context.getInt(), 0);
    EXPECT_TRUE(context.getString().isNull());
    EXPECT_FALSE(context.getVariant().isValid());
    EXPECT_TRUE(context.getCMRequest().isNull());
    EXPECT_TRUE(context.getCMRequestSec().isNull());
    EXPECT_TRUE(context.getCMReply().isNull());
}

TEST(HttpClientPrivate, DuplicatingDataLeavesTheReplyBehind)
{
    int destroyed = 0;
    const CMVoidReply reply(new Counted<CMVoidReply::Data>(&destroyed));
    const HttpClientPrivate::Data original(reply);
    EXPECT_EQ(original.reply, reply);
    const HttpClientPrivate::Data duplicate(original);
    EXPECT_TRUE(duplicate.reply.isNull());
    EXPECT_EQ(duplicate.reply, CMVoidReply());
}

TEST(HttpClientPrivate, ReplyIsSharedNotCopied)
{
    const CMVoidReply reply(new CMVoidReply::Data());
    const HttpClientPrivate context(reply);
    EXPECT_EQ(context.getCMReply().data(), reply.data());
}

TEST(HttpClientPrivate, CopiesShareOnePayloadAndTheLastOneDeletesIt)
{
    int destroyed = 0;
    {
        const CMRequest request(new Counted<CMRequest::Data>(&destroyed));
        HttpClientPrivate first(request);
        {
            const HttpClientPrivate second = first;
            EXPECT_EQ(second.constData(), first.constData());
            EXPECT_EQ(first.constData()->ref.loadRelaxed(), 2);
        }
        EXPECT_EQ(first.constData()->ref.loadRelaxed(), 1);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(HttpClientPrivate, TypedGetterOnLastReferenceKeepsDataUntilDone)
{
    int destroyed = 0;
    const HttpClientPrivate context { CMRequest(new Counted<CMGetRowsRequest::Data>(&destroyed)) };
    EXPECT_TRUE(context.getCMGetRowsRequest().isNull() == false);
    EXPECT_EQ(destroyed, 0);
}

} // namespace
