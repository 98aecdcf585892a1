#pragma once

// Everything trel-fetch writes: one line (or JSON object) per delivery on
// standard output, a progress line on a terminal, and the closing summary on
// standard error so that standard output stays one record per line.

#include <trel/HttpClient.h>

#include <QElapsedTimer>
#include <QString>

#include <cstdint>
#include <cstdio>

namespace trelfetch {

enum class DeliveryKind
{
    Final, // the one result of a request
    Immediate, // an early part of a response (--immediate)
    Pushed, // a response the server pushed (--push)
};

struct Delivery
{
    DeliveryKind kind = DeliveryKind::Final;
    TrelUrl url; // as requested; empty for pushed responses
    QString effectiveUrl;
    HttpClientStatus status = HttpClientStatus::Error;
    int code = -1;
    std::int64_t bytes = 0; // body bytes of this delivery (a request's total for Final)
    std::int64_t elapsedMs = 0;
    int round = 1;
    bool cached = false;
    bool cancelled = false;
    QString savedTo;
};

struct Totals
{
    int requests = 0;
    int failures = 0;
    int cached = 0;
    int pushed = 0;
    std::int64_t bytes = 0;
};

class ResultPrinter
{
public:
    // `showRounds` adds the round to every line; progress is shown only when
    // `progressAllowed` and standard error is a terminal.
    ResultPrinter(
        bool json, bool showRounds, bool progressAllowed, std::FILE* out = stdout, std::FILE* err = stderr);

    void print(const Delivery& delivery);
    // Rewrites the progress line in place; a no-op unless progress is shown.
    void progress(const Totals& totals, int total, std::int64_t elapsedUs);
    void summary(const Totals& totals, std::int64_t elapsedUs);

    static QString textLine(const Delivery& delivery, bool showRound);
    static QString jsonLine(const Delivery& delivery);
    static QString summaryLine(const Totals& totals, std::int64_t elapsedUs);

private:
    void clearProgress();

    const bool json;
    const bool showRounds;
    const bool showProgress;
    bool progressShown = false;
    std::FILE* const out;
    std::FILE* const err;
};

} // namespace trelfetch
