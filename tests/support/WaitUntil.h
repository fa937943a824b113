#ifndef PELLIX_TESTS_WAITUNTIL_H
#define PELLIX_TESTS_WAITUNTIL_H

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QThread>

#include <functional>

// Polls `done` until it holds or timeoutMs pass; true when it held. Sleeps 0.2 ms between
// polls, so that a waiting test thread does not starve the threads it waits for.
inline bool waitUntil(const std::function<bool()>& done, int timeoutMs = 5000)
{
    for (const QDeadlineTimer deadline(timeoutMs); !done(); QThread::usleep(200))
        if (deadline.hasExpired())
            return false;
    return true;
}

#endif
