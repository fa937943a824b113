#ifndef PELLIX_TESTS_ROBUSTNESSSUPPORT_H
#define PELLIX_TESTS_ROBUSTNESSSUPPORT_H

// Helpers shared by the fault, stress and churn tests: counting the process's threads and
// file descriptors, resident memory, sanitizer detection, and waiting on a condition with a
// deadline.

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <functional>

namespace robust {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool Sanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool Sanitized = true;
#else
constexpr bool Sanitized = false;
#endif
#else
constexpr bool Sanitized = false;
#endif

inline int countEntries(const char* folder)
{
    return int(QDir(QString::fromLatin1(folder))
                   .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System)
                   .size());
}

inline int threadCount()
{
    return countEntries("/proc/self/task");
}

inline int fdCount()
{
    return countEntries("/proc/self/fd");
}

// Resident set size in KiB (VmRSS of /proc/self/status), or -1.
inline long residentKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLong();
    return -1;
}

// Polls `done` until it holds or timeoutMs pass; true when it held. Yields between polls.
inline bool waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        QThread::yieldCurrentThread();
        QThread::usleep(200);
    }
    return true;
}

} // namespace robust

#endif
