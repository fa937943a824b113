#ifndef PELLIX_PXCALLBACK_H
#define PELLIX_PXCALLBACK_H

#include "pellix/pellix_export.h"

#include <QObject>

class QTimer;

// A plain function and the user data handed back to it unchanged.
//
// No lock of its own: the owner makes sure the pair is not replaced while trigger() may be
// reading it (a connection replaces it under the lock under which dispatch triggers).
class PELLIX_EXPORT PXCallback
{
public:
    using Function = void (*)(void*);

    // Replaces both members; a null function switches the callback off.
    void reset(Function callback, void* userData);

    // Calls the function with the user data, on the calling thread, if a function is set.
    void trigger();

    Function callback = nullptr;
    void* userData = nullptr;
};

// Calls a function once, a fixed delay after the first tigger() of a burst: tiggers during
// the delay neither restart nor extend it, so a burst of arrivals leads to one call.
//
// Thread: the object and its timer belong to the thread it was created on, which must run
// an event loop; reset(), tigger() and run() must all be called there. (PXConnection creates
// its delayed callback on the network thread and hands resets over to that thread.)
class PELLIX_EXPORT PXDelayCallback : public QObject
{
    Q_OBJECT
public:
    explicit PXDelayCallback(QObject* parent = nullptr);
    ~PXDelayCallback() override;

    // Stops the timer (cancelling a pending call), replaces the pair and sets the delay in
    // milliseconds (above INT_MAX: INT_MAX). The next tigger() starts the new delay.
    void reset(PXCallback::Function callback, void* userData, unsigned int delay);

    // Starts the delay unless no function is set or a delay is already under way.
    void tigger();

    bool isDelaying() const;
    PXCallback::Function function() const { return callback; }
    void* data() const { return userData; }

public slots:
    // Calls the function with the user data if a function is set (the timer's expiry).
    void run();

private:
    PXCallback::Function callback = nullptr;
    void* userData = nullptr;
    QTimer* timer;
};

#endif
