#ifndef PELLIX_TESTS_WAITUNTIL_H
#define PELLIX_TESTS_WAITUNTIL_H

#include <QElapsedTimer>
#include <QThread>

#include <functional>

// Polls `done` until it holds or timeoutMs pass; true when it held. Sleeps 0.2 ms between
// polls, so that a waiting test thread does not starve the threads it waits for.
inline bool waitUntil(const std::function<bool()>& done, int timeoutMs = 5000)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        QThread::usleep(200);
    }
    return true;
}

#endif
