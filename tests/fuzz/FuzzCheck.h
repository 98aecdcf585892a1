#pragma once

// What the fuzz targets share: a check that stops the run with a message (an
// abort is what libFuzzer records as a crash and writes a reproducer for), and
// a quiet logger, since the library's trace lines would cost more than the code
// under test and the inputs are checked by the targets themselves.

#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>

#include <QByteArray>
#include <QString>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>

namespace trel::fuzz {

[[noreturn]] inline void fail(const char* file, int line, const char* condition, const std::string& detail)
{
    std::fprintf(stderr, "%s:%d: check failed: %s\n%s\n", file, line, condition, detail.c_str());
    std::fflush(stderr);
    std::abort();
}

inline std::string show(const QByteArray& bytes)
{
    std::string out = "\"";
    for (const char c : bytes) {
        const auto u = static_cast<unsigned char>(c);
        if (u >= 0x20 && u < 0x7f && c != '"' && c != '\\') {
            out += c;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", u);
            out += escaped;
        }
    }
    return out + "\"";
}

inline std::string show(const QString& text)
{
    return show(text.toUtf8());
}

// Qt is not built with coverage, so libFuzzer cannot tell inputs apart by
// what Qt did with them. A target sums up the outcome in eight bits and calls
// noteShape: each value runs a function of its own, a coverage edge of its own,
// so an input that yields a new shape is kept in the corpus.
namespace detail {
inline volatile int shapeSink = 0;
template <int N> void shape()
{
    shapeSink = N;
}
template <int... N> constexpr auto shapeTable(std::integer_sequence<int, N...>)
{
    using Function = void (*)();
    return std::array<Function, sizeof...(N)> { &shape<N>... };
}
} // namespace detail

inline void noteShape(std::uint8_t value)
{
    static constexpr auto table = detail::shapeTable(std::make_integer_sequence<int, 256>());
    table[value]();
}

} // namespace trel::fuzz

// Each target is an executable of its own that includes this header once: the
// library's log is switched off before the first input.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("HttpClient")).setLogLevel(log4cplus::OFF_LOG_LEVEL);
    return 0;
}

#define FUZZ_CHECK(condition, detail)                                                                        \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::ostringstream fuzzDetail_;                                                                  \
            fuzzDetail_ << detail;                                                                           \
            ::trel::fuzz::fail(__FILE__, __LINE__, #condition, fuzzDetail_.str());                           \
        }                                                                                                    \
    } while (false)
