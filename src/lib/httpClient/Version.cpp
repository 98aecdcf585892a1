// The library's version, as the running binary reports it.

#include <trel/Version.h>

const char* trelHttpClientVersion()
{
    return TREL_HTTP_CLIENT_VERSION_STRING;
}
