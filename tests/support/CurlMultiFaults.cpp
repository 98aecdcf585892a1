// The interposed multi calls behind CurlMultiFaults.h: each finds libcurl's own
// function with dlsym(RTLD_NEXT) and forwards to it unless a fault is armed.

#include "CurlMultiFaults.h"

#include <dlfcn.h>

#include <atomic>

namespace trel::test::curlMultiFaults {
namespace {

struct ArmedFault
{
    std::atomic<int> remaining { 0 };
    std::atomic<int> code { CURLM_OK };

    void arm(CURLMcode failure, int times)
    {
        code = failure;
        remaining = times;
    }

    // The armed code when one call is still to fail, CURLM_OK otherwise.
    CURLMcode takeOne()
    {
        int left = remaining.load();
        while (left > 0) {
            if (remaining.compare_exchange_weak(left, left - 1)) {
                return static_cast<CURLMcode>(code.load());
            }
        }
        return CURLM_OK;
    }
};

ArmedFault& addFault()
{
    static ArmedFault fault;
    return fault;
}

ArmedFault& socketActionFault()
{
    static ArmedFault fault;
    return fault;
}

template <typename Function> Function libcurlsOwn(const char* name)
{
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

} // namespace

void refuseAdds(CURLMcode code, int times)
{
    addFault().arm(code, times);
}

void failSocketActions(CURLMcode code, int times)
{
    socketActionFault().arm(code, times);
}

void reset()
{
    addFault().arm(CURLM_OK, 0);
    socketActionFault().arm(CURLM_OK, 0);
}

} // namespace trel::test::curlMultiFaults

using namespace trel::test::curlMultiFaults;

// Default visibility: the library must bind to these definitions, not libcurl's.

extern "C" __attribute__((visibility("default"))) CURLMcode curl_multi_add_handle(CURLM* multi, CURL* easy)
{
    using AddHandle = CURLMcode (*)(CURLM*, CURL*);
    static const auto real = libcurlsOwn<AddHandle>("curl_multi_add_handle");
    const CURLMcode refusal = addFault().takeOne();
    return refusal != CURLM_OK ? refusal : real(multi, easy);
}

extern "C" __attribute__((visibility("default"))) CURLMcode curl_multi_socket_action(
    CURLM* multi, curl_socket_t socket, int mask, int* running)
{
    using SocketAction = CURLMcode (*)(CURLM*, curl_socket_t, int, int*);
    static const auto real = libcurlsOwn<SocketAction>("curl_multi_socket_action");
    const CURLMcode result = real(multi, socket, mask, running);
    const CURLMcode failure = socketActionFault().takeOne();
    return failure != CURLM_OK ? failure : result;
}
