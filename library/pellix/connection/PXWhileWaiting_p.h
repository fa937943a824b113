#ifndef PELLIX_PXWHILEWAITING_P_H
#define PELLIX_PXWHILEWAITING_P_H

// Work for a caller's thread to do while the server answers its request. Not installed.
//
// While a WhileWaiting lives, every request that its thread makes on a PXConnection and that
// awaits a reply runs the work once after its frame has gone out and before it looks for the
// reply, with no lock of the connection held but the request lock. The reply waits in the
// socket meanwhile; the request's time-out starts after the work. A request that sends
// nothing (no socket) does not run it. The work must not make requests of its own.
//
// A LOD transfer uses it to read the next piece of the file while the server takes the
// current one.

namespace pxconn {

class WhileWaiting
{
public:
    template <typename Work>
    explicit WhileWaiting(Work& work)
        : m_run([](void* w) { (*static_cast<Work*>(w))(); }), m_work(&work), m_outer(current())
    {
        current() = this;
    }
    ~WhileWaiting() { current() = m_outer; }
    WhileWaiting(const WhileWaiting&) = delete;
    WhileWaiting& operator=(const WhileWaiting&) = delete;

    // Runs the calling thread's innermost work, if any; for PXConnection's request path.
    static void runCurrent()
    {
        if (WhileWaiting* w = current())
            w->m_run(w->m_work);
    }

private:
    static WhileWaiting*& current()
    {
        static thread_local WhileWaiting* innermost = nullptr;
        return innermost;
    }

    void (*m_run)(void*);
    void* m_work;
    WhileWaiting* m_outer;
};

} // namespace pxconn

#endif
