#pragma once

#include <trel/trel_api_export.h>

#include <QExplicitlySharedDataPointer>
#include <QSharedData>

// Handles to the platform's request and reply payloads: copyable, nullable,
// sharing one reference-counted polymorphic data object. Copies never clone
// the data; the last handle to go deletes it through its virtual destructor.
template <typename DataType> class CMHandle
{
public:
    CMHandle() = default;
    explicit CMHandle(DataType* data)
        : d(data)
    { }

    bool isNull() const { return !d; }
    DataType* data() const { return d.data(); }
    bool operator==(const CMHandle& other) const { return d == other.d; }
    bool operator!=(const CMHandle& other) const { return d != other.d; }

private:
    QExplicitlySharedDataPointer<DataType> d;
};

class TREL_API_EXPORT CMRequest
{
public:
    class TREL_API_EXPORT Data : public QSharedData
    {
    public:
        Data() = default;
        Data(const Data&) = delete;
        Data& operator=(const Data&) = delete;
        virtual ~Data();
    };

    CMRequest() = default;
    explicit CMRequest(Data* data)
        : handle(data)
    { }

    bool isNull() const { return handle.isNull(); }
    Data* data() const { return handle.data(); }
    bool operator==(const CMRequest& other) const { return handle == other.handle; }
    bool operator!=(const CMRequest& other) const { return handle != other.handle; }

private:
    CMHandle<Data> handle;
};

// A request kind: a CMRequest whose data is of the kind's own Data class.
#define TREL_DECLARE_CM_REQUEST_KIND(Kind)                                                                   \
    class TREL_API_EXPORT Kind : public CMRequest                                                            \
    {                                                                                                        \
    public:                                                                                                  \
        class TREL_API_EXPORT Data : public CMRequest::Data                                                  \
        {                                                                                                    \
        public:                                                                                              \
            ~Data() override;                                                                                \
        };                                                                                                   \
        Kind() = default;                                                                                    \
        explicit Kind(Data* data)                                                                            \
            : CMRequest(data)                                                                                \
        { }                                                                                                  \
        Data* data() const { return static_cast<Data*>(CMRequest::data()); }                                 \
    };

TREL_DECLARE_CM_REQUEST_KIND(CMGetRowsRequest)
TREL_DECLARE_CM_REQUEST_KIND(CMSetDataRequest)
TREL_DECLARE_CM_REQUEST_KIND(CMGetDataRequest)

#undef TREL_DECLARE_CM_REQUEST_KIND

class TREL_API_EXPORT CMVoidReply
{
public:
    class TREL_API_EXPORT Data : public QSharedData
    {
    public:
        Data() = default;
        Data(const Data&) = delete;
        Data& operator=(const Data&) = delete;
        virtual ~Data();
    };

    CMVoidReply() = default;
    explicit CMVoidReply(Data* data)
        : handle(data)
    { }

    bool isNull() const { return handle.isNull(); }
    Data* data() const { return handle.data(); }
    bool operator==(const CMVoidReply& other) const { return handle == other.handle; }
    bool operator!=(const CMVoidReply& other) const { return handle != other.handle; }

private:
    CMHandle<Data> handle;
};
