#ifndef PELLIX_PXREPLYLOOK_P_H
#define PELLIX_PXREPLYLOOK_P_H

#include <QtGlobal>

// Decides whether a caller waiting for a reply first looks at its pending bit (yielding the
// processor on every round) before it sleeps on the wait condition, and for how long.
//
// A local server answers within tens to hundreds of microseconds. A caller that is still
// running when the reply is in needs no wake-up, and on a virtual machine its processor is not
// put to sleep and woken again, which can cost more than the reply itself. A look ends as soon
// as the reply is in, so it costs processor time only for replies slower than LookTime, at most
// LookTime each. After LateLimit replies in a row slower than LookTime (a slow link behind the
// server), looking stops, except on every ProbeEvery-th wait, and starts again with the first
// reply that comes in time, looked for or not.
//
// No lock of its own: a connection keeps one under its request mutex.
class PXReplyLook
{
public:
    static constexpr qint64 LookTime = 300000; // ns
    static constexpr int LateLimit = 4;
    static constexpr unsigned ProbeEvery = 16;

    // Called once per wait, before it: how long to look, in ns (0: sleep at once).
    qint64 begin()
    {
        const bool probe = ++waits % ProbeEvery == 0;
        return late < LateLimit || probe ? LookTime : 0;
    }

    // Called once per wait, after it: whether the reply came, and how long the wait took.
    void end(bool replied, qint64 nanoseconds)
    {
        if (replied && nanoseconds <= LookTime)
            late = 0;
        else if (late < LateLimit)
            ++late;
    }

private:
    int late = 0;
    unsigned waits = 0;
};

#endif
