// The cookie engine: one libcurl share handle per client holds the jar every
// transfer of the client reads and fills; saving and restoring it as Netscape
// cookie-file lines.

#include <trel/HttpClient.h>

#include "Log.h"

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClient";
const log4cplus::Logger logger = trel::log::libraryLogger();

const char* const kCookieFileHeader = "# Netscape HTTP Cookie File\n";

// A line of a cookie file that holds a cookie: "#HttpOnly_" marks an HttpOnly
// cookie, any other '#' a comment.
bool isCookieLine(const QByteArray& line)
{
    return !line.isEmpty() && (!line.startsWith('#') || line.startsWith("#HttpOnly_"));
}
} // namespace

void HttpClient::CookieShareFree::operator()(CURLSH* share) const
{
    const CURLSHcode freed = curl_share_cleanup(share);
    if (freed != CURLSHE_OK) {
        TREL_ERROR("Cookie jar still in use, left to the process: " << curl_share_strerror(freed));
    }
}

void HttpClient::setCookiesEnabled(bool enabled)
{
    TREL_ENTER("Cookies: " << enabled);
    if (!onOwnThread(__PRETTY_FUNCTION__)) {
        return;
    }
    cookiesEnabled = enabled && ensureCookieShare();
}

QByteArray HttpClient::cookies() const
{
    TREL_ENTER("");
    if (!onOwnThread(__PRETTY_FUNCTION__)) {
        return QByteArray();
    }
    QByteArray file(kCookieFileHeader);
    if (!cookieShare) {
        return file;
    }
    // The jar is read through a handle that joins the share for the moment.
    const HttpClientTransfer::EasyHandle reader(curl_easy_init());
    if (!reader || curl_easy_setopt(reader.get(), CURLOPT_SHARE, cookieShare.get()) != CURLE_OK) {
        TREL_ERROR("Failed to read the cookie jar");
        return file;
    }
    curl_slist* list = nullptr;
    if (curl_easy_getinfo(reader.get(), CURLINFO_COOKIELIST, &list) == CURLE_OK) {
        for (const curl_slist* entry = list; entry; entry = entry->next) {
            file += entry->data;
            file += '\n';
        }
    }
    curl_slist_free_all(list);
    curl_easy_setopt(reader.get(), CURLOPT_SHARE, nullptr);
    return file;
}

void HttpClient::setCookies(const QByteArray& netscapeCookies)
{
    TREL_ENTER("Cookie bytes: " << netscapeCookies.size());
    if (!onOwnThread(__PRETTY_FUNCTION__) || !ensureCookieShare()) {
        return;
    }
    const HttpClientTransfer::EasyHandle writer(curl_easy_init());
    if (!writer || curl_easy_setopt(writer.get(), CURLOPT_SHARE, cookieShare.get()) != CURLE_OK) {
        TREL_ERROR("Failed to fill the cookie jar");
        return;
    }
    const QList<QByteArray> lines = netscapeCookies.split('\n');
    for (const QByteArray& rawLine : lines) {
        const QByteArray line = rawLine.trimmed();
        if (isCookieLine(line)) {
            curl_easy_setopt(writer.get(), CURLOPT_COOKIELIST, line.constData());
            cookieJarMayHoldCookies = true;
        }
    }
    curl_easy_setopt(writer.get(), CURLOPT_SHARE, nullptr);
}

CURLSH* HttpClient::ensureCookieShare()
{
    if (!cookieShare) {
        std::unique_ptr<CURLSH, CookieShareFree> share(curl_share_init());
        if (!share || curl_share_setopt(share.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE) != CURLSHE_OK) {
            TREL_ERROR("Failed to create the cookie jar");
            return nullptr;
        }
        cookieShare = std::move(share);
    }
    return cookieShare.get();
}

// A spare handle may still be in the jar from an earlier request (a reset
// keeps it there): with the engine off it leaves, so nothing is sent or kept.
void HttpClient::applyCookieEngine(CURL* handle)
{
    if (!cookieShare) {
        return;
    }
    curl_easy_setopt(handle, CURLOPT_SHARE, cookiesEnabled ? cookieShare.get() : nullptr);
    if (cookiesEnabled) {
        curl_easy_setopt(handle, CURLOPT_COOKIEFILE, ""); // the engine on, no file read
    }
}

bool HttpClient::cookieJarInUse() const
{
    return cookiesEnabled && cookieJarMayHoldCookies;
}
