#ifndef PELLIX_PXLOGRECEIVER_H
#define PELLIX_PXLOGRECEIVER_H

#include "pellix/pellix_export.h"

#include <QObject>
#include <QString>

// Receives messages of a host application at three levels. The library itself never
// creates or calls a receiver; applications pass receivers around and duplicate them for
// new owners with dup().
class PELLIX_EXPORT PXLogReceiver : public QObject
{
public:
    using QObject::QObject;

    // A new receiver of the same kind with the given parent; the caller (or the parent)
    // owns it.
    virtual PXLogReceiver* dup(QObject* parent) = 0;
    virtual void info(const QString& message) = 0;
    virtual void warn(const QString& message) = 0;
    virtual void error(const QString& message) = 0;
};

// A receiver that drops every message. Safe from any thread.
class PELLIX_EXPORT PXDummyLogger : public PXLogReceiver
{
public:
    explicit PXDummyLogger(QObject* parent = nullptr);
    ~PXDummyLogger() override;

    PXLogReceiver* dup(QObject* parent) override;
    void info(const QString& message) override;
    void warn(const QString& message) override;
    void error(const QString& message) override;
};

#endif
