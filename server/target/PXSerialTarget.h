#ifndef PELLIX_PXSERIALTARGET_H
#define PELLIX_PXSERIALTARGET_H

#include "PXLinkSession.h"
#include "PXTarget.h"

#include <QSerialPort>
#include <QTimer>

// The serial back end: a chip at the far end of a debug link on a serial device. The device
// is a path, or "usb:VVVV:PPPP" (hexadecimal vendor and product identifiers) for a USB
// adapter found wherever it is plugged in; the identifiers of a set-USB-identifiers request
// take over from those of the name.
//
// A device that cannot be opened, or that goes away, leaves the server running with status 0:
// it tries to open the device again every ReopenMs and carries on when it is back. Requests in
// flight when the link goes are never answered. While the device is open, the chip is probed
// after every ProbeMs without traffic, so the status follows whether it answers.
class PXSerialTarget : public PXTarget
{
    Q_OBJECT
public:
    static constexpr int ReopenMs = 250;
    static constexpr int ProbeMs = 1000;
    static constexpr int BreakMs = 100;
    static constexpr int AutoBaudProbeMs = 300;

    PXSerialTarget(const QString& device, qint64 baud, quint32 flowMode, QObject* parent = nullptr);

    // Opens the device (or starts trying to).
    void start();

    void read(bool internal, quint32 address, int size, Data data) override;
    void readBlock(quint32 address, int size, Data data) override;
    void write(bool internal, int width, quint32 address, const QByteArray& bytes,
               Done done) override;
    void sendBypass(const QByteArray& packet) override;

    unsigned char status() const override;
    void setBaudRate(qint64 baud) override;
    void setFlowMode(quint32 mode) override;
    void setUsbIds(quint16 vendor, quint16 product) override;
    void autoBaud() override;
    void flush() override;
    void sendBreak(Done done) override;
    void reconnect(Done done) override;

private:
    bool open();
    void close(const QString& reason);
    QString systemLocation() const;
    void applySettings();
    void tryNextRate();
    void refuse();

    QSerialPort port;
    PXLinkSession session;
    QTimer reopenTimer;
    QTimer probeTimer;
    QTimer autoBaudTimer;
    QString deviceName;
    quint16 usbVendor = 0;
    quint16 usbProduct = 0;
    qint64 baudRate;
    quint32 flow;
    QString lastError;
    int autoBaudIndex = -1;
    qint64 rateBeforeAutoBaud = 0;
};

#endif
