#include "pellix/connection/PXCallback.h"

#include <QTimer>

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
    timer->setInterval(int(delay));
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
