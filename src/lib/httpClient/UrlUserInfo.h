#pragma once

// Where an encoded URL's user information lies: what libcurl authenticates
// with, and what log lines must not show.

#include <QByteArray>

#include <utility>

namespace trel::url {

// In "scheme://userinfo@host/...", the index where the authority starts and the
// index of the '@' that ends the user information; both -1 without one. In a
// fully encoded URL an '@' of the user or password is written %40, so the last
// literal one inside the authority (before the path, query or fragment) is the
// separator. "scheme://@host" gives an empty span (the two indexes are equal).
inline std::pair<int, int> userInfoSpan(const QByteArray& encodedUrl)
{
    const int schemeEnd = encodedUrl.indexOf("://");
    if (schemeEnd < 0) {
        return { -1, -1 };
    }
    const int authorityStart = schemeEnd + 3;
    int authorityEnd = encodedUrl.size();
    for (const char stop : { '/', '?', '#' }) {
        const int at = encodedUrl.indexOf(stop, authorityStart);
        if (at >= 0 && at < authorityEnd) {
            authorityEnd = at;
        }
    }
    const int separator = encodedUrl.lastIndexOf('@', authorityEnd - 1);
    if (separator < authorityStart) {
        return { -1, -1 };
    }
    return { authorityStart, separator };
}

} // namespace trel::url
