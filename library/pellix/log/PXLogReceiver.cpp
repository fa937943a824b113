#include "pellix/log/PXLogReceiver.h"

PXDummyLogger::PXDummyLogger(QObject* parent) : PXLogReceiver(parent) {}

PXDummyLogger::~PXDummyLogger() = default;

PXLogReceiver* PXDummyLogger::dup(QObject* parent)
{
    return new PXDummyLogger(parent);
}

void PXDummyLogger::info(const QString&) {}

void PXDummyLogger::warn(const QString&) {}

void PXDummyLogger::error(const QString&) {}
