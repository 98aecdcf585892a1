// Built into every test executable; it has content only under ThreadSanitizer.
#if defined(__SANITIZE_THREAD__)
#define TREL_TEST_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TREL_TEST_TSAN 1
#endif
#endif

#ifdef TREL_TEST_TSAN
#include <QMutex>
#include <QWaitCondition>

#include <sanitizer/tsan_interface.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

// Qt is not built with ThreadSanitizer, and the library and the tests lock their
// mutexes and wait on their conditions only through Qt's out-of-line QMutex and
// QWaitCondition code, so the sanitizer sees none of the ordering they provide
// and reports the fields they guard (the stream queue's chunks, its state and its
// ready watcher) as racing. These definitions take the place of Qt's for the
// library and the test, forward to Qt's own, and tell the sanitizer where the
// mutex is taken and given up. Accesses made outside the mutex are still
// reported.
namespace {

void* qtCoreFunction(const char* mangledName)
{
    void* function = ::dlvsym(RTLD_NEXT, mangledName, "Qt_5");
    if (!function) {
        std::fprintf(stderr, "cannot find %s in Qt Core\n", mangledName);
        std::abort();
    }
    return function;
}

} // namespace

void QMutex::lock() QT_MUTEX_LOCK_NOEXCEPT
{
    static const auto qtLock = reinterpret_cast<void (*)(QMutex*)>(qtCoreFunction("_ZN6QMutex4lockEv"));
    qtLock(this);
    __tsan_acquire(this);
}

void QMutex::unlock() noexcept
{
    static const auto qtUnlock = reinterpret_cast<void (*)(QMutex*)>(qtCoreFunction("_ZN6QMutex6unlockEv"));
    __tsan_release(this);
    qtUnlock(this);
}

bool QWaitCondition::wait(QMutex* lockedMutex, QDeadlineTimer deadline)
{
    static const auto qtWait = reinterpret_cast<bool (*)(QWaitCondition*, QMutex*, QDeadlineTimer)>(
        qtCoreFunction("_ZN14QWaitCondition4waitEP6QMutex14QDeadlineTimer"));
    __tsan_release(lockedMutex);
    const bool woken = qtWait(this, lockedMutex, deadline);
    __tsan_acquire(lockedMutex);
    return woken;
}
#endif
