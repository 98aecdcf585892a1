// Stand-in for the platform's request payload types carried in a caller's context.

#include <trel/CMRequest.h>

// Out-of-line destructors anchor each data class's vtable and type information
// in this library, so run-time type tests agree across shared objects.
CMRequest::Data::~Data() = default;
CMGetRowsRequest::Data::~Data() = default;
CMSetDataRequest::Data::~Data() = default;
CMGetDataRequest::Data::~Data() = default;
CMVoidReply::Data::~Data() = default;
