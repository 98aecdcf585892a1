#pragma once

// -w/--write-out: curl's format of variables, written after each transfer.

#include <trel/HttpClientHeaders.h>

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <cstdint>

namespace trelfetch {

// What one finished transfer tells the format.
struct WriteOutValues
{
    int httpCode = 0; // 0: no response
    std::int64_t sizeDownload = 0;
    std::int64_t sizeUpload = 0;
    double timeTotal = 0; // seconds
    QString urlEffective;
    int exitCode = 0;
    QString errorMessage; // empty on success
    int numRedirects = 0;
    QString httpVersion; // "1.1", "2"; "0" when nothing answered
    HttpClientHeaders headers; // the final response's fields
};

enum class WriteOutStream
{
    Out,
    Err,
};

// `format` with its variables replaced, cut where %{stderr} and %{stdout}
// switch streams; the first piece goes to standard output. Backslash-n, -r,
// -t and a doubled backslash are the characters they stand for, %% is %; an
// unknown variable writes
// nothing and is named in `unknown`.
QList<QPair<WriteOutStream, QByteArray>> formatWriteOut(
    const QString& format, const WriteOutValues& values, QStringList& unknown);

} // namespace trelfetch
