#pragma once

// Records the options the library sets on libcurl handles. Linking this into a
// test executable interposes curl_easy_setopt, curl_multi_setopt and
// curl_easy_cleanup (to forget a handle whose address may be reused): every call
// is recorded, then forwarded to libcurl unchanged. Only for tests that check
// what the library asked of libcurl; wire tests check what actually went out.

#include <curl/curl.h>

#include <cstdint>
#include <optional>
#include <string>

namespace trel::test::curlOptions {

struct Recorded
{
    std::intptr_t value = 0; // long options, or a pointer's address
    std::string text; // string options (CURLOPT_URL, CURLOPT_CUSTOMREQUEST, ...)
    int timesSet = 0;
};

// The last value set for `option` on `handle`, if it was set at all.
std::optional<Recorded> easy(const void* handle, CURLoption option);
std::optional<Recorded> multi(const void* handle, CURLMoption option);
// How many options were set on the handle in all.
int easyCount(const void* handle);
void clear();

} // namespace trel::test::curlOptions
