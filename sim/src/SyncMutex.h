#pragma once
// A mutex whose hand-over ThreadSanitizer sees even where its interceptors are off. A
// client's poll() or select() reaches this library through the sanitizer's interceptor
// when the runtime is loaded first (a tool not built with it), and the sanitizer ignores
// the locks taken inside a blocking call; the camera's poll takes some.

#include <mutex>

#if defined(__SANITIZE_THREAD__)
#define SIMCAM_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SIMCAM_TSAN 1
#endif
#endif

#ifdef SIMCAM_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace simcam {

class SyncMutex {
public:
    void lock()
    {
        m_.lock();
        acquired();
    }
    bool try_lock()
    {
        if (!m_.try_lock())
            return false;
        acquired();
        return true;
    }
    void unlock()
    {
#ifdef SIMCAM_TSAN
        __tsan_release(this);
#endif
        m_.unlock();
    }

private:
    void acquired()
    {
#ifdef SIMCAM_TSAN
        __tsan_acquire(this);
#endif
    }
    std::mutex m_;
};

} // namespace simcam
