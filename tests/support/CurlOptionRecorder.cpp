#define CURL_DISABLE_TYPECHECK 1
#include "CurlOptionRecorder.h"

#include <dlfcn.h>

#include <cstdarg>
#include <iterator>
#include <map>
#include <mutex>
#include <utility>

namespace trel::test::curlOptions {
namespace {

struct Store
{
    std::mutex mutex;
    std::map<std::pair<const void*, int>, Recorded> easyOptions;
    std::map<std::pair<const void*, int>, Recorded> multiOptions;
    std::map<const void*, int> easyCounts;
};

Store& store()
{
    static Store instance;
    return instance;
}

// Options whose pointer value is a C string worth keeping as text.
bool isStringOption(int option)
{
    switch (option) {
    case CURLOPT_URL:
    case CURLOPT_CUSTOMREQUEST:
    case CURLOPT_ACCEPT_ENCODING:
    case CURLOPT_PROTOCOLS_STR:
    case CURLOPT_REDIR_PROTOCOLS_STR:
    case CURLOPT_USERAGENT:
        return true;
    default:
        return false;
    }
}

void record(std::map<std::pair<const void*, int>, Recorded>& table, const void* handle, int option,
    std::intptr_t value, const char* text)
{
    Recorded& entry = table[{ handle, option }];
    entry.value = value;
    entry.text = text ? text : "";
    ++entry.timesSet;
}

} // namespace

std::optional<Recorded> easy(const void* handle, CURLoption option)
{
    std::lock_guard<std::mutex> lock(store().mutex);
    const auto it = store().easyOptions.find({ handle, option });
    if (it == store().easyOptions.end()) {
        return std::nullopt;
    }
    return it->second;
}

std::optional<Recorded> multi(const void* handle, CURLMoption option)
{
    std::lock_guard<std::mutex> lock(store().mutex);
    const auto it = store().multiOptions.find({ handle, option });
    if (it == store().multiOptions.end()) {
        return std::nullopt;
    }
    return it->second;
}

int easyCount(const void* handle)
{
    std::lock_guard<std::mutex> lock(store().mutex);
    const auto it = store().easyCounts.find(handle);
    return it == store().easyCounts.end() ? 0 : it->second;
}

void clear()
{
    std::lock_guard<std::mutex> lock(store().mutex);
    store().easyOptions.clear();
    store().multiOptions.clear();
    store().easyCounts.clear();
}

} // namespace trel::test::curlOptions

namespace {

using EasySetopt = CURLcode (*)(CURL*, CURLoption, ...);
using EasyCleanup = void (*)(CURL*);
using EasyReset = void (*)(CURL*);
using MultiSetopt = CURLMcode (*)(CURLM*, CURLMoption, ...);

template <typename Function> Function nextSymbol(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

// Every option type is passed as one machine word (long, pointer, function
// pointer, curl_off_t on 64-bit), so one word is read and forwarded.
// Default visibility: the library must bind to these definitions, not libcurl's.
extern "C" __attribute__((visibility("default"))) CURLcode curl_easy_setopt(
    CURL* handle, CURLoption option, ...)
{
    va_list args;
    va_start(args, option);
    const std::intptr_t value = va_arg(args, std::intptr_t);
    va_end(args);
    {
        auto& store = trel::test::curlOptions::store();
        std::lock_guard<std::mutex> lock(store.mutex);
        const char* text = trel::test::curlOptions::isStringOption(option) && value
            ? reinterpret_cast<const char*>(value)
            : nullptr;
        trel::test::curlOptions::record(store.easyOptions, handle, option, value, text);
        ++store.easyCounts[handle];
    }
    static const EasySetopt real = nextSymbol<EasySetopt>("curl_easy_setopt");
    return real(handle, option, value);
}

namespace {
void forgetHandle(CURL* handle)
{
    auto& store = trel::test::curlOptions::store();
    std::lock_guard<std::mutex> lock(store.mutex);
    for (auto it = store.easyOptions.begin(); it != store.easyOptions.end();) {
        it = it->first.first == handle ? store.easyOptions.erase(it) : std::next(it);
    }
    store.easyCounts.erase(handle);
}
} // namespace

// A cleaned-up handle's address may come back for the next handle: forget it.
extern "C" __attribute__((visibility("default"))) void curl_easy_cleanup(CURL* handle)
{
    forgetHandle(handle);
    static const EasyCleanup real = nextSymbol<EasyCleanup>("curl_easy_cleanup");
    real(handle);
}

// A reset handle is reused for the next request with libcurl's defaults: what
// was set for the previous one no longer applies.
extern "C" __attribute__((visibility("default"))) void curl_easy_reset(CURL* handle)
{
    forgetHandle(handle);
    static const EasyReset real = nextSymbol<EasyReset>("curl_easy_reset");
    real(handle);
}

extern "C" __attribute__((visibility("default"))) CURLMcode curl_multi_setopt(
    CURLM* handle, CURLMoption option, ...)
{
    va_list args;
    va_start(args, option);
    const std::intptr_t value = va_arg(args, std::intptr_t);
    va_end(args);
    {
        auto& store = trel::test::curlOptions::store();
        std::lock_guard<std::mutex> lock(store.mutex);
        trel::test::curlOptions::record(store.multiOptions, handle, option, value, nullptr);
    }
    static const MultiSetopt real = nextSymbol<MultiSetopt>("curl_multi_setopt");
    return real(handle, option, value);
}
