#pragma once

// What one run of trel-fetch does, as read from its command line. Parsing never
// exits or prints: it returns either a complete configuration or one message
// that main prints before exiting with status 2.

#include <trel/HttpClient.h>

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <cstddef>
#include <istream>
#include <optional>

namespace trelfetch {

// How the request body is given; at most one source per run.
enum class BodyKind
{
    None,
    Data, // --data: bytes sent with the chosen method
    Form, // --form: a multipart form (POST)
    File, // --upload-file: the file's bytes as a multipart file part (POST)
    Stream, // --stream: standard input fed through a queue (POST)
};

struct FetchConfig
{
    QList<TrelUrl> urls;
    HttpClient::HttpVersion version = HttpClient::Http1;
    HttpClient::HttpMethod method = HttpClient::Get;
    BodyKind bodyKind = BodyKind::None;
    QByteArray data; // --data or the --upload-file contents
    QList<QPair<QString, QString>> formFields; // --form
    HttpClientOptions options; // everything that maps onto one request's options
    QString outputDir; // empty: bodies are not saved
    std::size_t cacheSize = 0;
    int repeat = 1;
    int parallel = 0; // 0: every request at once
    int cancelAfterMs = 0; // 0: never cancel
    bool printImmediate = false;
    bool printPushes = false;
    bool json = false;
    bool verbose = false;
};

struct ParseOutcome
{
    std::optional<FetchConfig> config;
    QString error; // set when config is empty and the run must stop with status 2
    bool help = false; // --help: print usage() and exit 0
};

// `arguments` excludes the program name. `standardInput` supplies the URL list
// when "-" is the only URL.
ParseOutcome parseCommandLine(const QStringList& arguments, std::istream& standardInput);

QString usage();

} // namespace trelfetch
