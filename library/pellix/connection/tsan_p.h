#ifndef PELLIX_TSAN_P_H
#define PELLIX_TSAN_P_H

// Happens-before hints for ThreadSanitizer, used only in ThreadSanitizer builds.
//
// Qt 6's QMutex tells TSan about its lock and unlock, but three hand-offs of the library go
// through code that TSan cannot see: QSemaphore (a futex inside QtCore), the unlock and relock
// of the mutex inside QWaitCondition::wait, and QCoreApplication::postEvent (a mutex inside
// QtCore). Without these hints TSan reports races between a poster and the thread that handles
// its event. Every function here is empty in other builds.

#if defined(__SANITIZE_THREAD__)
#define PELLIX_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define PELLIX_TSAN 1
#endif
#endif

#include <QDeadlineTimer>
#include <QMutex>
#include <QWaitCondition>

#if defined(PELLIX_TSAN)
#include <QMutexLocker>
#include <sanitizer/tsan_interface.h>
#endif

namespace pxtsan {

#if defined(PELLIX_TSAN)
// The releasing side of a hand-off through `token` (before QSemaphore::release or postEvent).
inline void release(const void* token)
{
    __tsan_release(const_cast<void*>(token));
}
// The acquiring side (after QSemaphore::acquire, or when the posted event is handled).
inline void acquire(const void* token)
{
    __tsan_acquire(const_cast<void*>(token));
}
// QWaitCondition::wait unlocks `mutex` and locks it again inside QtCore; say so around it.
inline void beforeWait(const void* mutex)
{
    __tsan_mutex_pre_unlock(const_cast<void*>(mutex), 0);
    __tsan_mutex_post_unlock(const_cast<void*>(mutex), 0);
}
inline void afterWait(const void* mutex)
{
    __tsan_mutex_pre_lock(const_cast<void*>(mutex), 0);
    __tsan_mutex_post_lock(const_cast<void*>(mutex), 0, 0);
}
// Held by the thread that handles posted events while its handler runs. QtCore posts events
// of its own to that thread from inside such handlers (a socket's connect, deleteLater) and
// guards its event queue with a lock TSan cannot see; the poster side of the library takes the
// same mutex around postEvent, so the queue's hand-offs become visible. Only in TSan builds: a
// handler may block for seconds (a connect), and other builds must not hold posters back.
using PostScope = QMutexLocker<QBasicMutex>;
#else
struct PostScope
{
    explicit PostScope(const void*) {}
};
inline void release(const void*) {}
inline void acquire(const void*) {}
inline void beforeWait(const void*) {}
inline void afterWait(const void*) {}
#endif

// Waits on `condition`, which releases and retakes `mutex` inside QtCore, with the hints
// around it; true when woken before `timeout` ms.
inline bool waitOn(QWaitCondition& condition, QMutex& mutex, unsigned long timeout)
{
    beforeWait(&mutex);
    const bool woken = condition.wait(&mutex, QDeadlineTimer(qint64(timeout)));
    afterWait(&mutex);
    return woken;
}

} // namespace pxtsan

#endif
