#include "DataArguments.h"

#include <QFile>

#include <iterator>
#include <string>

namespace trelfetch {
namespace {

QByteArray withoutLineBreaks(QByteArray bytes)
{
    bytes.replace('\r', QByteArray()).replace('\n', QByteArray());
    return bytes;
}

// CONTENT, =CONTENT, NAME=CONTENT, @FILE or NAME@FILE: only the content (or
// the file's bytes) is encoded, and a name stays as given.
QByteArray named(const QString& name, const QByteArray& encoded)
{
    return name.isEmpty() ? encoded : name.toUtf8() + '=' + encoded;
}

std::optional<QByteArray> urlEncodedPiece(
    const QString& text, std::istream& standardInput, QString& unreadable)
{
    const int equals = text.indexOf('=');
    const int at = text.indexOf('@');
    if (at >= 0 && (equals < 0 || at < equals)) {
        const QString path = text.mid(at + 1);
        const std::optional<QByteArray> content = readSource(path, standardInput);
        if (!content) {
            unreadable = path;
            return std::nullopt;
        }
        return named(text.left(at), urlEncoded(*content));
    }
    if (equals < 0) {
        return urlEncoded(text.toUtf8());
    }
    return named(text.left(equals), urlEncoded(text.mid(equals + 1).toUtf8()));
}

std::optional<QByteArray> piece(
    const DataArgument& argument, std::istream& standardInput, QString& unreadable)
{
    if (argument.kind == DataKind::UrlEncode) {
        return urlEncodedPiece(argument.text, standardInput, unreadable);
    }
    if (argument.kind == DataKind::Raw || !argument.text.startsWith('@')) {
        return argument.text.toUtf8();
    }
    const QString path = argument.text.mid(1);
    const std::optional<QByteArray> content = readSource(path, standardInput);
    if (!content) {
        unreadable = path;
        return std::nullopt;
    }
    return argument.kind == DataKind::Ascii ? withoutLineBreaks(*content) : *content;
}

} // namespace

std::optional<QByteArray> readSource(const QString& path, std::istream& standardInput)
{
    if (path == "-") {
        const std::string text { std::istreambuf_iterator<char>(standardInput),
            std::istreambuf_iterator<char>() };
        return QByteArray(text.data(), static_cast<int>(text.size()));
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    return file.readAll();
}

QByteArray urlEncoded(const QByteArray& bytes)
{
    return bytes.toPercentEncoding(" ").replace(' ', '+'); // a space is '+' in a form, as curl writes it
}

std::optional<DataBody> buildDataBody(
    const QList<DataArgument>& arguments, std::istream& standardInput, QString& unreadable)
{
    DataBody body;
    for (const DataArgument& argument : arguments) {
        const std::optional<QByteArray> bytes = piece(argument, standardInput, unreadable);
        if (!bytes) {
            return std::nullopt;
        }
        const bool joined = argument.kind == DataKind::Json && body.json;
        if (!body.bytes.isEmpty() && !joined) {
            body.bytes += '&';
        }
        body.bytes += *bytes;
        body.json = body.json || argument.kind == DataKind::Json;
    }
    return body;
}

} // namespace trelfetch
