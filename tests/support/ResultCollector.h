#pragma once

// Results of callback-form requests, gathered in the order they were
// delivered, and a GET made and waited for in one call.

#include <trel/HttpClient.h>

#include "WaitFor.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

namespace trel::test {

struct ResultCollector
{
    HttpClient::Callback callback()
    {
        return [this](const HttpClientResult& result) { received.push_back(result); };
    }
    // Whether at least `count` results have arrived within `timeoutMs`.
    bool waitFor(std::size_t count, int timeoutMs = 20000)
    {
        return trel::test::waitFor([this, count] { return received.size() >= count; }, timeoutMs);
    }
    std::vector<HttpClientResult> received;
};

// One GET and its one result. A GET that gets none in `timeoutMs` fails the
// test and gives a default result (status Error).
inline HttpClientResult getOnce(
    HttpClient& client, const TrelUrl& url, const HttpClientOptions& options = {}, int timeoutMs = 30000)
{
    ResultCollector results;
    client.get(url, options, results.callback());
    EXPECT_TRUE(results.waitFor(1, timeoutMs)) << "no result for " << url.toEncoded().constData();
    return results.received.empty() ? HttpClientResult() : results.received.front();
}

} // namespace trel::test
