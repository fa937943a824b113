#include "PXSerialTarget.h"

#include "pellix/protocol/PXLTypes.h"

#include <QSerialPortInfo>

#include <cstdio>
#include <iterator>

namespace {

// The rates auto-bauding tries, fastest first.
constexpr qint64 StandardRates[] = {921600, 460800, 230400, 115200, 57600, 38400, 19200, 9600};

} // namespace

PXSerialTarget::PXSerialTarget(const QString& device, qint64 baud, quint32 flowMode,
                               QObject* parent)
    : PXTarget(parent), session([this](const QByteArray& bytes) { port.write(bytes); }),
      deviceName(device), baudRate(baud > 0 ? baud : 115200), flow(flowMode)
{
    if (device.startsWith(QLatin1String("usb:"))) {
        const QStringList ids = device.mid(4).split(QLatin1Char(':'));
        if (ids.size() == 2) {
            usbVendor = quint16(ids.at(0).toUInt(nullptr, 16));
            usbProduct = quint16(ids.at(1).toUInt(nullptr, 16));
        }
    }
    reopenTimer.setInterval(ReopenMs);
    connect(&reopenTimer, &QTimer::timeout, this, [this] {
        if (open())
            reopenTimer.stop();
    });
    probeTimer.setInterval(ProbeMs);
    connect(&probeTimer, &QTimer::timeout, this, [this] {
        if (port.isOpen() && session.idle())
            session.probe([] {});
    });
    autoBaudTimer.setSingleShot(true);
    connect(&autoBaudTimer, &QTimer::timeout, this, [this] {
        session.drop("no answer at this rate");
        tryNextRate();
    });
    connect(&port, &QSerialPort::readyRead, this, [this] {
        probeTimer.start();
        session.feed(port.readAll());
    });
    connect(&port, &QSerialPort::errorOccurred, this, [this](QSerialPort::SerialPortError error) {
        if (error == QSerialPort::ResourceError || error == QSerialPort::ReadError ||
            error == QSerialPort::WriteError)
            close(port.errorString());
    });
    connect(&session, &PXLinkSession::eventRaised, this, &PXTarget::eventRaised);
    connect(&session, &PXLinkSession::bypassArrived, this, &PXTarget::bypassArrived);
    connect(&session, &PXLinkSession::requestsDropped, this, &PXTarget::requestsDropped);
    connect(&session, &PXLinkSession::note, this, &PXTarget::note);
    connect(&session, &PXLinkSession::answeringChanged, this, [this](bool answering) {
        emit note(answering ? QStringLiteral("the target answers")
                            : QStringLiteral("the target does not answer"));
    });
}

void PXSerialTarget::start()
{
    if (!open())
        reopenTimer.start();
}

// The device a USB adapter with the identifiers has now, else the configured path.
QString PXSerialTarget::systemLocation() const
{
    if (usbVendor != 0 || usbProduct != 0) {
        const auto ports = QSerialPortInfo::availablePorts();
        for (const QSerialPortInfo& info : ports) {
            if (info.vendorIdentifier() == usbVendor && info.productIdentifier() == usbProduct)
                return info.systemLocation();
        }
        return QString();
    }
    return deviceName;
}

bool PXSerialTarget::open()
{
    const QString location = systemLocation();
    QString error;
    if (location.isEmpty()) {
        error = QStringLiteral("no USB serial adapter %1:%2 is plugged in")
                    .arg(usbVendor, 4, 16, QLatin1Char('0'))
                    .arg(usbProduct, 4, 16, QLatin1Char('0'));
    } else {
        port.setPortName(location);
        if (port.open(QIODevice::ReadWrite)) {
            applySettings();
            port.clear();
            lastError.clear();
            std::fprintf(stderr, "pellix: serial device %s open\n", qPrintable(location));
            session.drop("device opened");
            probeTimer.start();
            session.probe([] {});
            return true;
        }
        error =
            QStringLiteral("cannot open serial device %1: %2").arg(location, port.errorString());
    }
    // Said once per kind of failure, not on every attempt.
    if (error != lastError)
        std::fprintf(stderr, "pellix: %s; trying again every %d ms\n", qPrintable(error), ReopenMs);
    lastError = error;
    return false;
}

void PXSerialTarget::close(const QString& reason)
{
    if (!port.isOpen())
        return;
    std::fprintf(stderr, "pellix: serial device %s lost (%s); trying to reopen it\n",
                 qPrintable(port.portName()), qPrintable(reason));
    lastError.clear();
    probeTimer.stop();
    port.close();
    session.drop("device closed");
    reopenTimer.start();
}

void PXSerialTarget::applySettings()
{
    port.setBaudRate(qint32(baudRate));
    port.setDataBits(QSerialPort::Data8);
    port.setParity(QSerialPort::NoParity);
    port.setStopBits(QSerialPort::OneStop);
    port.setFlowControl(flow == PXL_FLOW_HARDWARE  ? QSerialPort::HardwareControl
                        : flow == PXL_FLOW_XONXOFF ? QSerialPort::SoftwareControl
                                                   : QSerialPort::NoFlowControl);
    session.setEscaped(flow == PXL_FLOW_XONXOFF);
    session.setBytesPerSecond(baudRate / 10);
}

void PXSerialTarget::read(bool internal, quint32 address, int size, Data data)
{
    if (port.isOpen())
        session.read(internal, address, size, std::move(data));
    else
        refuse();
}

void PXSerialTarget::readBlock(quint32 address, int size, Data data)
{
    if (port.isOpen())
        session.readBlock(address, size, std::move(data));
    else
        refuse();
}

void PXSerialTarget::write(bool internal, int width, quint32 address, const QByteArray& bytes,
                           Done done)
{
    if (port.isOpen())
        session.write(internal, width, address, bytes, std::move(done));
    else
        refuse();
}

// Without a device a request is never answered; its client goes on with its next requests
// once this event-loop round is over, as after requests dropped from the link.
void PXSerialTarget::refuse()
{
    QTimer::singleShot(0, this, [this] { emit requestsDropped(); });
}

void PXSerialTarget::sendBypass(const QByteArray& packet)
{
    if (port.isOpen())
        session.sendBypass(packet);
}

unsigned char PXSerialTarget::status() const
{
    return port.isOpen() && session.answering() ? StatusUp : StatusDown;
}

void PXSerialTarget::setBaudRate(qint64 baud)
{
    if (baud <= 0)
        return;
    baudRate = baud;
    if (port.isOpen())
        applySettings();
}

void PXSerialTarget::setFlowMode(quint32 mode)
{
    flow = mode;
    if (port.isOpen())
        applySettings();
}

void PXSerialTarget::setUsbIds(quint16 vendor, quint16 product)
{
    usbVendor = vendor;
    usbProduct = product;
}

void PXSerialTarget::flush()
{
    if (!port.isOpen())
        return;
    port.clear();
    session.drop("buffers cleared");
}

void PXSerialTarget::sendBreak(Done done)
{
    if (!port.isOpen()) {
        done();
        return;
    }
    if (!port.setBreakEnabled(true))
        emit note(QStringLiteral("break not sent: %1").arg(port.errorString()));
    QTimer::singleShot(BreakMs, this, [this, done] {
        if (port.isOpen())
            port.setBreakEnabled(false);
        done();
    });
}

void PXSerialTarget::reconnect(Done done)
{
    close(QStringLiteral("reconnection asked for"));
    if (open())
        reopenTimer.stop();
    done();
}

// Tries the standard rates, fastest first, until the chip answers a probe; keeps that rate.
void PXSerialTarget::autoBaud()
{
    if (!port.isOpen() || autoBaudIndex >= 0)
        return;
    autoBaudIndex = 0;
    rateBeforeAutoBaud = baudRate;
    tryNextRate();
}

void PXSerialTarget::tryNextRate()
{
    if (autoBaudIndex < 0 || autoBaudIndex >= int(std::size(StandardRates)) || !port.isOpen()) {
        autoBaudIndex = -1;
        setBaudRate(rateBeforeAutoBaud);
        emit note(QStringLiteral("auto-bauding found no rate; back to %1").arg(baudRate));
        return;
    }
    const qint64 rate = StandardRates[autoBaudIndex++];
    setBaudRate(rate);
    autoBaudTimer.start(AutoBaudProbeMs);
    session.probe([this, rate] {
        autoBaudTimer.stop();
        autoBaudIndex = -1;
        emit note(QStringLiteral("auto-bauding: the target answers at %1 baud").arg(rate));
    });
}
