#ifndef PELLIX_PXSIMTARGET_H
#define PELLIX_PXSIMTARGET_H

#include "../chip/PXSimChip.h"
#include "PXTarget.h"

// The simulated back end: the chip lives in the server's process and answers every request
// at once. There is no link: its settings change nothing (the front logs them).
class PXSimTarget : public PXTarget
{
    Q_OBJECT
public:
    explicit PXSimTarget(quint32 eventRegister, QObject* parent = nullptr)
        : PXTarget(parent), simChip(eventRegister)
    {}

    PXSimChip& chip() { return simChip; }

    void read(bool internal, quint32 address, int size, Data data) override;
    void readBlock(quint32 address, int size, Data data) override;
    void write(bool internal, int width, quint32 address, const QByteArray& bytes,
               Done done) override;
    void sendBypass(const QByteArray& packet) override;

    unsigned char status() const override { return StatusUp; }
    void setBaudRate(qint64) override {}
    void setFlowMode(quint32) override {}
    void setUsbIds(quint16, quint16) override {}
    void autoBaud() override {}
    void flush() override {}
    void sendBreak(Done done) override { done(); }
    void reconnect(Done done) override { done(); }

private:
    PXSimChip simChip;
    QByteArray scratch;
};

#endif
