#pragma once

// curl's URL globbing: "{a,b}" alternatives and "[1-3]", "[001-100]",
// "[a-c]", "[1-9:2]" ranges, expanded left to right with the last one
// varying fastest; "#1", "#2"... in an output name stand for the text each
// set chose. A backslash keeps the next [ ] { } literal.

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace trelfetch {

struct GlobbedUrl
{
    QString url;
    QStringList chosen; // the text each set chose, in order: "#1" is chosen[0]
};

// Every URL `pattern` stands for; nothing, with `error` set, for a set that
// is not closed or a range that is not one. At most `limit` URLs.
std::optional<QList<GlobbedUrl>> expandGlob(const QString& pattern, QString& error, int limit = 100000);

// `name` with each "#N" replaced by the text the N-th set chose; a "#N"
// without such a set is kept as written.
QString withChosen(const QString& name, const QStringList& chosen);

} // namespace trelfetch
