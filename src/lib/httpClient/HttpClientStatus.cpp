// How a result status prints in log lines.

#include <trel/HttpClient.h>
#include <trel/HttpClientStatus.h>

#include <trel/DbgLog.h>

std::ostream& operator<<(std::ostream& out, HttpClientStatus status)
{
    return out << HttpClient::toString(status);
}
