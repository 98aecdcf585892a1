#pragma once

// What one run of trel-fetch does, as read from its command line. Parsing never
// exits or prints: it returns either a complete configuration, an action such
// as --help, or one message that main prints before exiting with status 2.

#include <trel/HttpClient.h>

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <cstddef>
#include <cstdint>
#include <istream>
#include <optional>

namespace trelfetch {

// How the request body is given; at most one source per run.
enum class BodyKind
{
    None,
    Data, // -d: bytes sent with the chosen method
    Form, // -F: a multipart form of fields and files, each file read as it is sent (POST)
    UploadFile, // -T: a file (or - for standard input) read as it is sent (PUT or POST)
    Stream, // --stream: standard input fed through a queue (POST)
};

enum class ReportFormat
{
    None,
    Text,
    Json,
};

// Where the body of one URL given on the command line goes.
struct OutputTarget
{
    bool remoteName = false; // -O: the last segment of the URL's path
    QString path; // -o FILE
};

struct FetchConfig
{
    QStringList urls; // command-line URLs in order; "-" marks where standard input's list goes
    QString urlFile; // --url-file; "-" is standard input
    QList<OutputTarget> outputs; // the n-th one belongs to the n-th command-line URL
    bool remoteNameAll = false;
    QString outputDir;
    bool createDirs = false;
    bool noClobber = false; // keep an existing file; write to NAME.1, NAME.2... instead
    bool saveErrors = false;
    std::int64_t maxFilesize = -1; // -1: no limit
    ReportFormat report = ReportFormat::None;
    QString reportFile; // empty: standard error

    HttpClient::HttpVersion version = HttpClient::Http1;
    HttpClient::HttpMethod method = HttpClient::Get;
    QByteArray customVerb; // -X with a method of no operation of its own (PROPFIND...): sent as given
    BodyKind bodyKind = BodyKind::None;
    QByteArray data; // -d and its kin, joined
    QByteArray queryData; // -G: the data goes into each URL's query instead
    HttpClientMultipart form; // -F
    QString uploadFile; // -T; "-" is standard input
    QString basicCredentials; // -u USER:PASSWORD
    HttpClientOptions options; // everything that maps onto one request's options
    bool cookiesEnabled = false; // -b FILE or -c: the client's cookie jar
    QString cookieFile; // -b FILE: read into the jar first (a missing file reads as empty)
    QString cookieJar; // -c FILE: the jar is written there at the end
    bool proxyChosen = false; // -x or --noproxy: the environment no longer decides
    QString proxy; // with proxyChosen: the proxy's URL, or empty for none

    bool includeHeaders = false; // -i: headers before the body, where the body goes
    bool headersOnly = false; // -I: HEAD, the headers are the output
    QString dumpHeader; // -D FILE ("-" is standard output)
    QString writeOut; // -w FORMAT, after each transfer
    std::optional<std::int64_t> continueAt; // -C OFFSET; -1 for "-", the output file's size
    std::int64_t limitRate = 0; // --limit-rate, bytes a second each way; 0: none
    int retries = 0; // --retry
    int retryDelayMs = -1; // --retry-delay; -1: 1 s, doubling each time
    int retryMaxTimeMs = 0; // --retry-max-time; 0: none

    bool progressBar = false; // -#
    bool silent = false;
    bool showError = false;
    bool failOnHttpError = false;
    bool failWithBody = false; // --fail-with-body: exit 22 on an HTTP error, body kept
    bool verbose = false;
    bool traceLibrary = false;
    bool parallel = false;
    int parallelMax = 50;
    std::size_t cacheSize = 0;
    int repeat = 1;
    int cancelAfterMs = 0; // 0: never cancel
    bool push = false;

    bool readsStandardInputList() const { return urls.contains("-") || urlFile == "-"; }
    bool showsErrors() const { return !silent || showError; }
};

enum class Action
{
    Run,
    Help,
    Version,
    Manual,
    UsageError,
};

struct ParseOutcome
{
    Action action = Action::UsageError;
    std::optional<FetchConfig> config; // set for Action::Run
    QString error; // set for Action::UsageError
    int exitCode = 2; // for Action::UsageError: 2, or 26 for a data file that cannot be read
};

// `arguments` excludes the program name. `standardInput` supplies the body of -d @-.
ParseOutcome parseCommandLine(const QStringList& arguments, std::istream& standardInput);

} // namespace trelfetch
