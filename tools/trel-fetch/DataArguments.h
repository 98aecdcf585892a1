#pragma once

// The request body curl builds from its data options (-d, --data-binary,
// --data-raw, --data-urlencode, --json), given in any number and order.

#include <QByteArray>
#include <QList>
#include <QString>

#include <istream>
#include <optional>

namespace trelfetch {

enum class DataKind
{
    Ascii, // -d: @FILE read with CR and LF removed
    Binary, // --data-binary: @FILE read as it is
    Raw, // --data-raw: no @ at all
    UrlEncode, // --data-urlencode: CONTENT, =CONTENT, NAME=CONTENT, @FILE, NAME@FILE
    Json, // --json: as --data-binary; the pieces are joined without '&'
};

struct DataArgument
{
    DataKind kind = DataKind::Ascii;
    QString text;
};

struct DataBody
{
    QByteArray bytes;
    bool json = false; // any --json: the request also says it sends and accepts JSON
};

// The body of `arguments` in order, joined by '&' as curl joins them; a file
// that cannot be read sets `unreadable` to its path and returns nothing.
// `standardInput` supplies @-.
std::optional<DataBody> buildDataBody(
    const QList<DataArgument>& arguments, std::istream& standardInput, QString& unreadable);

// The bytes of a file named on the command line, or of standard input for
// "-" (read once, to its end); nothing when the file cannot be read.
std::optional<QByteArray> readSource(const QString& path, std::istream& standardInput);

// Percent-encodes everything but unreserved characters, a space as '+', as
// --data-urlencode does.
QByteArray urlEncoded(const QByteArray& bytes);

} // namespace trelfetch
