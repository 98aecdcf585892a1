#pragma once

// How a finished request counts: its exit code (curl's numbers) and the reason
// in words, taken from the library's X-TrelError header where it gave one;
// the exit code is decided by libcurl's code beside it (X-TrelErrorCode).

#include <trel/HttpClient.h>

#include <QString>

namespace trelfetch {

namespace exitcode {
constexpr int kOk = 0;
constexpr int kOther = 1;
constexpr int kUsage = 2;
constexpr int kMalformedUrl = 3;
constexpr int kResolve = 6;
constexpr int kConnect = 7;
constexpr int kHttpError = 22;
constexpr int kWrite = 23;
constexpr int kRead = 26;
constexpr int kTimeout = 28;
constexpr int kRangeError = 33;
constexpr int kCancelled = 42;
constexpr int kFileTooLarge = 63;
constexpr int kInterrupted = 130;
} // namespace exitcode

struct Outcome
{
    int exitCode = exitcode::kOk;
    QString reason; // empty on success

    bool failed() const { return exitCode != exitcode::kOk; }
};

// The outcome of a result the library delivered, before anything the tool
// itself adds (such as --max-filesize or a file that could not be written).
Outcome classify(const HttpClientResult& result, bool failOnHttpError);

// The library's reason for a failed result.
QString libraryReason(const HttpClientResult& result);
// libcurl's code for a failed result (HttpClientHeaders::ErrorCodeField); -1
// when the result carries none.
int libraryErrorCode(const HttpClientResult& result);

} // namespace trelfetch
