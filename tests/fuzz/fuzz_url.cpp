// TrelUrl from arbitrary bytes, read as text (UTF-8, tolerant) or as an encoded
// URL (first byte even or odd), then round-tripped.
//
// Checked for every input: nothing crashes or trips a sanitizer, and for every
// URL that is valid (an invalid one encodes as nothing):
// - the encoded form is a fixed point: read back and encoded again, it is the
//   same bytes, and the URL read back has the same cache path;
// - the cache path is a fixed point too, and holds no fragment;
// - toString and streaming give the encoded form;
// - the "+" rewrite the client applies (encodedQuery, "+" to "%2B",
//   setEncodedQuery) changes the query exactly so, leaves no "+" in it,
//   changes nothing else of the encoded form or the cache path, and a second
//   rewrite changes nothing. (Not that the rewritten URL compares equal to the
//   original when it had no "+": QUrl compares what it stores, and a query it
//   was handed in another form, malformed Unicode say, is stored differently
//   while encoding the same.)

#include "FuzzCheck.h"

#include <trel/TrelUrl.h>

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <cstdint>
#include <sstream>

namespace {

using trel::fuzz::show;

// `encoded` with its query (after the first "?", `query.size()` bytes long)
// replaced by `replacement`; unchanged when it has no query.
QByteArray withQuery(const QByteArray& encoded, const QByteArray& query, const QByteArray& replacement)
{
    const int mark = encoded.indexOf('?');
    if (mark < 0) {
        return encoded;
    }
    FUZZ_CHECK(encoded.mid(mark + 1, query.size()) == query,
        "query " << show(query) << " is not where expected in " << show(encoded));
    return encoded.left(mark + 1) + replacement + encoded.mid(mark + 1 + query.size());
}

TrelUrl rewritePlus(const TrelUrl& url)
{
    TrelUrl rewritten = url;
    rewritten.setEncodedQuery(rewritten.encodedQuery().replace("+", "%2B"));
    return rewritten;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    const bool asText = data[0] % 2 == 0;
    const QByteArray bytes(reinterpret_cast<const char*>(data + 1), static_cast<int>(size - 1));
    const TrelUrl url = asText ? TrelUrl(QString::fromUtf8(bytes)) : TrelUrl::fromEncoded(bytes);

    const QByteArray encoded = url.toEncoded();
    const QByteArray cachePath = url.cachePath();
    const QByteArray query = url.encodedQuery();

    FUZZ_CHECK(url.toString() == QString::fromLatin1(encoded), "toString differs from " << show(encoded));
    std::ostringstream streamed;
    streamed << url;
    FUZZ_CHECK(streamed.str() == encoded.toStdString(), "streamed differs from " << show(encoded));
    FUZZ_CHECK(url == TrelUrl(url), "a copy differs");
    FUZZ_CHECK(!url.isEmpty() || encoded.isEmpty(), "empty URL encodes as " << show(encoded));

    trel::fuzz::noteShape(static_cast<std::uint8_t>((encoded.isEmpty() ? 1 : 0) | (query.isEmpty() ? 0 : 2)
        | (query.contains('+') ? 4 : 0) | (encoded.contains('#') ? 8 : 0) | (encoded.contains('@') ? 16 : 0)
        | (encoded.contains('[') ? 32 : 0) | (encoded.contains('%') ? 64 : 0)
        | (encoded.startsWith("http") ? 128 : 0)));

    // An invalid URL (a bad port, say) encodes as nothing at all, its cache
    // path too, though its parts can still be read and set: only the query
    // rewrite below applies to it.
    const bool valid = !encoded.isEmpty();
    if (!valid) {
        FUZZ_CHECK(cachePath.isEmpty(), "invalid URL has cache path " << show(cachePath));
        const QByteArray rewrittenQuery = QByteArray(query).replace("+", "%2B");
        FUZZ_CHECK(rewritePlus(url).encodedQuery() == rewrittenQuery, "rewrite of an invalid URL's query");
        return 0;
    }

    const TrelUrl reread = TrelUrl::fromEncoded(encoded);
    FUZZ_CHECK(reread.toEncoded() == encoded,
        "encoded " << show(encoded) << " reads back as " << show(reread.toEncoded()));
    FUZZ_CHECK(reread.cachePath() == cachePath,
        "cache path " << show(cachePath) << " becomes " << show(reread.cachePath()) << " after a round trip");
    FUZZ_CHECK(reread.encodedQuery() == query, "query changed in a round trip of " << show(encoded));

    FUZZ_CHECK(!cachePath.contains('#'), "fragment in cache path " << show(cachePath));
    FUZZ_CHECK(TrelUrl::fromEncoded(cachePath).cachePath() == cachePath,
        "cache path " << show(cachePath) << " is not a fixed point");
    FUZZ_CHECK(TrelUrl::fromEncoded(cachePath).toEncoded() == cachePath,
        "cache path " << show(cachePath) << " does not encode as itself");

    const QByteArray rewrittenQuery = QByteArray(query).replace("+", "%2B");
    const TrelUrl rewritten = rewritePlus(url);
    FUZZ_CHECK(rewritten.encodedQuery() == rewrittenQuery,
        "rewritten query " << show(rewritten.encodedQuery()) << ", expected " << show(rewrittenQuery));
    FUZZ_CHECK(!rewritten.encodedQuery().contains('+'), "a '+' survived the rewrite");
    FUZZ_CHECK(rewritten.toEncoded() == withQuery(encoded, query, rewrittenQuery),
        "rewrite of " << show(encoded) << " gave " << show(rewritten.toEncoded()));
    FUZZ_CHECK(rewritten.cachePath() == withQuery(cachePath, query, rewrittenQuery),
        "rewrite changed the cache path " << show(cachePath) << " to " << show(rewritten.cachePath()));
    FUZZ_CHECK(rewritePlus(rewritten).toEncoded() == rewritten.toEncoded(), "second rewrite changed the URL");
    return 0;
}
