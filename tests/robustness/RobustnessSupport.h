#ifndef PELLIX_TESTS_ROBUSTNESSSUPPORT_H
#define PELLIX_TESTS_ROBUSTNESSSUPPORT_H

// Helpers shared by the stress and churn tests: sanitizer detection, and counting the
// process's threads and file descriptors.

#include <QDir>

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

} // namespace robust

#endif
