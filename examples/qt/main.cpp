// A Qt program on PXNSConnection: the connection has its own socket on the main thread, its
// requests wait by running the event loop, and target events and bypass packets arrive as
// signals.
//
//   pellix-example-qt [HOST TCP_PORT]   (default 127.0.0.1 7700)

#include <pellix/nsconnection/PXNSConnection.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QTextStream>
#include <QTimer>

#include <cstdint>

namespace {

// The pellix simulator raises event V when V is written to this address.
constexpr unsigned int EventRegister = 0xFFFFFF00u;
constexpr unsigned char Flow = 0x42;

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString host = args.size() > 2 ? args.at(1) : QStringLiteral("127.0.0.1");
    const unsigned short port = args.size() > 2 ? args.at(2).toUShort() : 7700;
    QTextStream out(stdout);

    PXNSConnection connection;
    if (!connection.open(host, port)) {
        out << "no server at " << host << ':' << port << Qt::endl;
        return 1;
    }

    QList<uint32_t> events;
    QByteArray echoed;
    auto finishWhenDone = [&] {
        if (events.size() == 2 && !echoed.isEmpty())
            app.quit();
    };
    QObject::connect(&connection, &PXNSConnection::eventArrived, [&](qint64 stamp, uint32_t event) {
        out << QDateTime::fromMSecsSinceEpoch(stamp).toString(Qt::ISODateWithMs) << " event "
            << event << Qt::endl;
        events.append(event);
        finishWhenDone();
    });
    QObject::connect(&connection, &PXNSConnection::bypassArrived,
                     [&](qint64 stamp, const QByteArray& packet) {
                         // Start byte, 16-bit length, flow id, data, checksum.
                         const QByteArray data = packet.mid(4, packet.size() - 5);
                         out << QDateTime::fromMSecsSinceEpoch(stamp).toString(Qt::ISODateWithMs)
                             << " bypass flow 0x"
                             << QString::number(packet.size() > 3 ? uchar(packet.at(3)) : 0, 16)
                             << ": " << data << Qt::endl;
                         echoed = data;
                         finishWhenDone();
                     });

    // Requests block this function, but the event loop keeps running inside them.
    unsigned int value = 0;
    if (connection.ping() != 0 || connection.write32(0x1000, 0x600DF00D) != 0 ||
        connection.read32(0x1000, &value) != 0) {
        out << "request failed" << Qt::endl;
        return 1;
    }
    out << "read32 0x1000 = 0x" << QString::number(value, 16).toUpper() << Qt::endl;

    unsigned char flow = Flow;
    connection.enableEvents(true);
    connection.setBypassFlowIds(&flow, 1);
    connection.write32(EventRegister, 7);
    connection.write32(EventRegister, 8);
    unsigned char hello[] = {'q', 't'};
    connection.sendBypassPacket(Flow, hello, sizeof hello);

    // The arrivals come through the signals once the event loop runs.
    QTimer::singleShot(5000, &app, [&] {
        out << "timed out waiting for arrivals" << Qt::endl;
        app.exit(1);
    });
    const int status = app.exec();
    const bool ok = status == 0 && value == 0x600DF00D && events == QList<uint32_t>{7, 8} &&
                    echoed == QByteArray("qt");
    out << "example finished: " << (ok ? "OK" : "FAILED") << Qt::endl;
    return ok ? 0 : 1;
}
