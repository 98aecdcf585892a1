#pragma once

#include <trel/CMRequest.h>
#include <trel/trel_http_client_export.h>

#include <QMetaType>
#include <QSharedData>
#include <QSharedDataPointer>
#include <QString>
#include <QVariant>

// Caller context: an immutable, implicitly shared payload that travels with a
// request and comes back untouched beside its result. Never null.
class TREL_HTTP_CLIENT_EXPORT HttpClientPrivate
{
public:
    class TREL_HTTP_CLIENT_EXPORT Data : public QSharedData
    {
    public:
        Data();
        explicit Data(int number);
        explicit Data(const QString& text);
        explicit Data(const QVariant& variant);
        explicit Data(const CMRequest& request);
        Data(const CMRequest& request, const CMRequest& secondRequest);
        Data(const CMRequest& request, const QVariant& variant);
        explicit Data(const CMVoidReply& reply);
        // Copies every slot but the reply, which the duplicate gets default-constructed.
        Data(const Data& other);
        Data& operator=(const Data&) = delete;
        virtual ~Data();

        QString text;
        int number = 0;
        CMRequest request;
        QVariant variant;
        CMRequest secondRequest;
        CMVoidReply reply;
    };

    HttpClientPrivate();
    explicit HttpClientPrivate(int number);
    explicit HttpClientPrivate(const QString& text);
    explicit HttpClientPrivate(const QVariant& variant);
    explicit HttpClientPrivate(const CMRequest& request);
    HttpClientPrivate(const CMRequest& request, const CMRequest& secondRequest);
    HttpClientPrivate(const CMRequest& request, const QVariant& variant);
    explicit HttpClientPrivate(const CMVoidReply& reply);

    int getInt() const;
    QString getString() const;
    QVariant getVariant() const;
    CMVoidReply getCMReply() const;
    CMRequest getCMRequest() const;
    CMRequest getCMRequestSec() const;
    CMGetRowsRequest getCMGetRowsRequest() const;
    CMSetDataRequest getCMSetDataRequest() const;
    CMGetDataRequest getCMGetDataRequest() const;

    // The shared payload, for identity checks; never null.
    const Data* constData() const { return d.constData(); }

private:
    QSharedDataPointer<Data> d;
};

Q_DECLARE_METATYPE(HttpClientPrivate)
