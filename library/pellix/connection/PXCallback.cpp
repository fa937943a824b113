#include "pellix/connection/PXCallback.h"

#include <QTimer>

#include <limits>

void PXCallback::reset(Function function, void* data)
{
    callback = function;
    userData = data;
}

void PXCallback::trigger()
{
    if (callback)
        callback(userData);
}

PXDelayCallback::PXDelayCallback(QObject* parent) : QObject(parent), timer(new QTimer(this))
{
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, this, &PXDelayCallback::run);
}

PXDelayCallback::~PXDelayCallback() = default;

void PXDelayCallback::reset(PXCallback::Function function, void* data, unsigned int delay)
{
    timer->stop();
    callback = function;
    userData = data;
    // QTimer takes an int; a longer delay is held at the largest one it can run.
    constexpr unsigned int longest = unsigned(std::numeric_limits<int>::max());
    timer->setInterval(int(delay < longest ? delay : longest));
}

void PXDelayCallback::tigger()
{
    if (!callback || timer->isActive())
        return;
    timer->start();
}

bool PXDelayCallback::isDelaying() const
{
    return timer->isActive();
}

void PXDelayCallback::run()
{
    if (callback)
        callback(userData);
}
