// The caller's context payload, handed back unchanged with the request's result.

#include <trel/HttpClientPrivate.h>

HttpClientPrivate::Data::Data() = default;

HttpClientPrivate::Data::Data(int number)
    : number(number)
{ }

HttpClientPrivate::Data::Data(const QString& text)
    : text(text)
{ }

HttpClientPrivate::Data::Data(const QVariant& variant)
    : variant(variant)
{ }

HttpClientPrivate::Data::Data(const CMRequest& request)
    : request(request)
{ }

HttpClientPrivate::Data::Data(const CMRequest& request, const CMRequest& secondRequest)
    : request(request)
    , secondRequest(secondRequest)
{ }

HttpClientPrivate::Data::Data(const CMRequest& request, const QVariant& variant)
    : request(request)
    , variant(variant)
{ }

HttpClientPrivate::Data::Data(const CMVoidReply& reply)
    : reply(reply)
{ }

// A duplicate deliberately leaves the reply behind: it carries the default one.
HttpClientPrivate::Data::Data(const Data& other)
    : QSharedData(other)
    , text(other.text)
    , number(other.number)
    , request(other.request)
    , variant(other.variant)
    , secondRequest(other.secondRequest)
{ }

HttpClientPrivate::Data::~Data() = default;

HttpClientPrivate::HttpClientPrivate()
    : d(new Data())
{ }

HttpClientPrivate::HttpClientPrivate(int number)
    : d(new Data(number))
{ }

HttpClientPrivate::HttpClientPrivate(const QString& text)
    : d(new Data(text))
{ }

HttpClientPrivate::HttpClientPrivate(const QVariant& variant)
    : d(new Data(variant))
{ }

HttpClientPrivate::HttpClientPrivate(const CMRequest& request)
    : d(new Data(request))
{ }

HttpClientPrivate::HttpClientPrivate(const CMRequest& request, const CMRequest& secondRequest)
    : d(new Data(request, secondRequest))
{ }

HttpClientPrivate::HttpClientPrivate(const CMRequest& request, const QVariant& variant)
    : d(new Data(request, variant))
{ }

HttpClientPrivate::HttpClientPrivate(const CMVoidReply& reply)
    : d(new Data(reply))
{ }

int HttpClientPrivate::getInt() const
{
    return d->number;
}

QString HttpClientPrivate::getString() const
{
    return d->text;
}

QVariant HttpClientPrivate::getVariant() const
{
    return d->variant;
}

CMVoidReply HttpClientPrivate::getCMReply() const
{
    return d->reply;
}

CMRequest HttpClientPrivate::getCMRequest() const
{
    return d->request;
}

CMRequest HttpClientPrivate::getCMRequestSec() const
{
    return d->secondRequest;
}

namespace {

// Views the request as one kind: a handle to its data when the data is of that
// kind's class, a null handle otherwise. The caller's request keeps the data
// alive while it is examined.
template <typename Kind> Kind requestAs(const CMRequest& request)
{
    if (request.isNull()) {
        return Kind();
    }
    auto* data = dynamic_cast<typename Kind::Data*>(request.data());
    return data ? Kind(data) : Kind();
}

} // namespace

CMGetRowsRequest HttpClientPrivate::getCMGetRowsRequest() const
{
    return requestAs<CMGetRowsRequest>(d->request);
}

CMSetDataRequest HttpClientPrivate::getCMSetDataRequest() const
{
    return requestAs<CMSetDataRequest>(d->request);
}

CMGetDataRequest HttpClientPrivate::getCMGetDataRequest() const
{
    return requestAs<CMGetDataRequest>(d->request);
}
