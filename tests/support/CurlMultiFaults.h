#pragma once

// Makes libcurl's multi interface refuse on demand. Linking this into a test
// executable interposes curl_multi_add_handle and curl_multi_socket_action:
// unarmed, every call goes to libcurl unchanged; armed, the next calls report
// the armed code. Only for tests of what the library does when libcurl says no.

#include <curl/curl.h>

namespace trel::test::curlMultiFaults {

// The next `times` calls of curl_multi_add_handle add nothing and return `code`.
void refuseAdds(CURLMcode code, int times = 1);
// The next `times` calls of curl_multi_socket_action do their work, then
// return `code` instead of libcurl's result.
void failSocketActions(CURLMcode code, int times = 1);
// Disarms both.
void reset();

} // namespace trel::test::curlMultiFaults
