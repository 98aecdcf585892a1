/// \file
/// HttpClientPrivate: the caller context that travels with a request and comes back with its result.
#pragma once

#include <trel/CMRequest.h>
#include <trel/trel_http_client_export.h>

#include <QMetaType>
#include <QSharedData>
#include <QSharedDataPointer>
#include <QString>
#include <QVariant>

/// Caller context: an immutable, implicitly shared payload that travels with a
/// request and comes back untouched beside its result. Never null.
///
/// Set it with HttpClientOptions::setUserData(); the client hands the same
/// payload (constData() compares equal) to the `context` argument of the result
/// slot, on every delivery of the request, cached answers included (a callback
/// receives no context: it captures what it needs). The client never reads or
/// changes it. Each constructor fills one or two slots of the payload; the
/// others keep their defaults (empty, 0, null handles). Copies
/// share the payload, whose reference count is atomic, so copies may live on
/// different threads; the CM handles inside are shared, never cloned.
class TREL_HTTP_CLIENT_EXPORT HttpClientPrivate
{
public:
    /// The shared payload: one slot per kind of context.
    class TREL_HTTP_CLIENT_EXPORT Data : public QSharedData
    {
    public:
        /// Every slot empty, 0 or null.
        Data();
        /// Fills number.
        explicit Data(int number);
        /// Fills text.
        explicit Data(const QString& text);
        /// Fills variant.
        explicit Data(const QVariant& variant);
        /// Fills request (the handle is shared).
        explicit Data(const CMRequest& request);
        /// Fills request and secondRequest (the handles are shared).
        Data(const CMRequest& request, const CMRequest& secondRequest);
        /// Fills request (the handle is shared) and variant.
        Data(const CMRequest& request, const QVariant& variant);
        /// Fills reply (the handle is shared).
        explicit Data(const CMVoidReply& reply);
        /// Copies every slot but the reply, which the duplicate gets default-constructed
        /// (null). HttpClientPrivate never detaches, so it never makes such a copy.
        Data(const Data& other);
        /// Not assignable.
        Data& operator=(const Data&) = delete;
        /// Releases the slots' values and handles.
        virtual ~Data();

        QString text; ///< Text context; empty unless given.
        int number = 0; ///< Numeric context; 0 unless given.
        CMRequest request; ///< The platform request the result belongs to; null unless given.
        QVariant variant; ///< Any other value; invalid unless given.
        CMRequest secondRequest; ///< A second platform request; null unless given.
        CMVoidReply reply; ///< The platform reply to answer; null unless given.
    };

    /// An empty context: every slot empty, 0 or null.
    HttpClientPrivate();
    /// A context holding \p number.
    explicit HttpClientPrivate(int number);
    /// A context holding \p text.
    explicit HttpClientPrivate(const QString& text);
    /// A context holding \p variant.
    explicit HttpClientPrivate(const QVariant& variant);
    /// A context holding a share of \p request.
    explicit HttpClientPrivate(const CMRequest& request);
    /// A context holding shares of \p request and \p secondRequest.
    HttpClientPrivate(const CMRequest& request, const CMRequest& secondRequest);
    /// A context holding a share of \p request, and \p variant.
    HttpClientPrivate(const CMRequest& request, const QVariant& variant);
    /// A context holding a share of \p reply.
    explicit HttpClientPrivate(const CMVoidReply& reply);

    /// The number given at construction; 0 otherwise.
    int getInt() const;
    /// The text given at construction; empty otherwise.
    QString getString() const;
    /// The variant given at construction; an invalid QVariant otherwise.
    QVariant getVariant() const;
    /// The reply given at construction (the same shared data); null otherwise.
    CMVoidReply getCMReply() const;
    /// The (first) request given at construction (the same shared data); null otherwise.
    CMRequest getCMRequest() const;
    /// The second request given at construction (the same shared data); null otherwise.
    CMRequest getCMRequestSec() const;
    /// The (first) request viewed as a CMGetRowsRequest: a handle to the same
    /// data when that data is a CMGetRowsRequest::Data, a null handle otherwise.
    CMGetRowsRequest getCMGetRowsRequest() const;
    /// The (first) request viewed as a CMSetDataRequest: a handle to the same
    /// data when that data is a CMSetDataRequest::Data, a null handle otherwise.
    CMSetDataRequest getCMSetDataRequest() const;
    /// The (first) request viewed as a CMGetDataRequest: a handle to the same
    /// data when that data is a CMGetDataRequest::Data, a null handle otherwise.
    CMGetDataRequest getCMGetDataRequest() const;

    /// The shared payload, for identity checks: two contexts with the same
    /// pointer are copies of one another. Never null.
    const Data* constData() const { return d.constData(); }

private:
    QSharedDataPointer<Data> d;
};

Q_DECLARE_METATYPE(HttpClientPrivate)
