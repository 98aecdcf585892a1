#pragma once

// -K/--config: options written in a file in curl's syntax, turned into the
// command-line arguments they stand for.

#include <QString>
#include <QStringList>

#include <istream>
#include <optional>

namespace trelfetch {

// `arguments` with every -K FILE / --config FILE replaced by the arguments of
// FILE ("-" is standard input). Nothing, with `error` set, when a file cannot
// be read or holds an unknown option.
std::optional<QStringList> withConfigFiles(
    const QStringList& arguments, std::istream& standardInput, QString& error);

// The arguments one config file's text stands for: one option per line, as
// "--name VALUE", "name = VALUE", "name: VALUE" or "name VALUE"; a value in
// double quotes may hold spaces and the escapes \\ \" \t \n \r \v; "url = URL"
// adds a URL; blank lines and lines starting with # are skipped.
std::optional<QStringList> configArguments(const QString& text, QString& error);

} // namespace trelfetch
