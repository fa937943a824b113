#include "PXServerOptions.h"

#include <QCommandLineParser>
#include <QRegularExpression>

namespace {

// Decimal, or hexadecimal after a 0x prefix (no octal, so 0100 is one hundred).
bool parseNumber(const QString& text, quint64 max, quint64* value)
{
    bool ok = false;
    quint64 v = 0;
    if (text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive))
        v = text.mid(2).toULongLong(&ok, 16);
    else
        v = text.toULongLong(&ok, 10);
    if (!ok || v > max)
        return false;
    *value = v;
    return true;
}

} // namespace

PXServerParseResult parseServerOptions(const QStringList& arguments, PXServerOptions* options,
                                       QString* message)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Host server for the pellix library.\n"
                       "Listens on 127.0.0.1, TCP port 7700 + N (modulo 65536) for COM<N>, and\n"
                       "serves the target on the serial device of --device or of the\n"
                       "environment variable PELLIX_DEVICE_COM<N>, else a simulated target."));
    parser.addPositionalArgument(QStringLiteral("COM<N>"), QStringLiteral("Serial port number."),
                                 QStringLiteral("COM<N> <baud> <none|hardware|xonxoff>"));
    parser.addPositionalArgument(QStringLiteral("baud"), QStringLiteral("Baud rate."),
                                 QStringLiteral(" "));
    parser.addPositionalArgument(QStringLiteral("flow"),
                                 QStringLiteral("Flow control: none, hardware or xonxoff."),
                                 QStringLiteral(" "));
    const QCommandLineOption listen(QStringLiteral("listen"),
                                    QStringLiteral("Address to listen on (default 127.0.0.1)."),
                                    QStringLiteral("ADDRESS"));
    const QCommandLineOption port(
        QStringLiteral("port"),
        QStringLiteral("TCP port, overriding 7700 + N; 0 picks a free port."),
        QStringLiteral("PORT"));
    const QCommandLineOption device(
        QStringLiteral("device"),
        QStringLiteral("Serial device of the target (a path, or usb:VENDOR:PRODUCT in hex)."),
        QStringLiteral("PATH"));
    const QCommandLineOption image(QStringLiteral("image"),
                                   QStringLiteral("Preload memory from a LOD text file."),
                                   QStringLiteral("FILE.lod"));
    const QCommandLineOption frameSize(
        QStringLiteral("frame-size"),
        QStringLiteral("Largest data part of one read-data frame (1..65531, default 4096)."),
        QStringLiteral("BYTES"));
    const QCommandLineOption latency(QStringLiteral("latency"),
                                     QStringLiteral("Delay before each reply."),
                                     QStringLiteral("MICROSECONDS"));
    const QCommandLineOption eventRegister(
        QStringLiteral("event-register"),
        QStringLiteral("Address whose 32-bit writes raise events (default 0xFFFFFF00)."),
        QStringLiteral("ADDRESS"));
    const QCommandLineOption verbose(QStringLiteral("verbose"),
                                     QStringLiteral("One line per request on stderr."));
    const QCommandLineOption help(QStringLiteral("help"), QStringLiteral("Show this help."));
    const QCommandLineOption version(QStringLiteral("version"),
                                     QStringLiteral("Show the version and exit."));
    parser.addOptions(
        {listen, port, device, image, frameSize, latency, eventRegister, verbose, help, version});

    QStringList withProgram = arguments;
    withProgram.prepend(QStringLiteral("pellix"));
    if (!parser.parse(withProgram)) {
        *message = parser.errorText();
        return PXServerParseResult::Error;
    }
    if (parser.isSet(help) || parser.isSet(version)) {
        *message =
            parser.isSet(help) ? parser.helpText() : QStringLiteral("pellix " PELLIX_VERSION "\n");
        return PXServerParseResult::Help;
    }

    const QStringList positional = parser.positionalArguments();
    if (positional.size() != 0 && positional.size() != 3) {
        *message = QStringLiteral("expected COM<N> <baud> <none|hardware|xonxoff>, got %1 "
                                  "argument(s)")
                       .arg(positional.size());
        return PXServerParseResult::Error;
    }
    if (positional.isEmpty() && !parser.isSet(port)) {
        *message = QStringLiteral("give COM<N> <baud> <flow> or --port PORT");
        return PXServerParseResult::Error;
    }
    quint64 value = 0;
    if (positional.size() == 3) {
        static const QRegularExpression comPattern(QStringLiteral("^COM([0-9]{1,9})$"));
        const QRegularExpressionMatch match = comPattern.match(positional.at(0));
        if (!match.hasMatch()) {
            *message =
                QStringLiteral("bad serial port \"%1\": expected COM<N>").arg(positional.at(0));
            return PXServerParseResult::Error;
        }
        options->comPort = match.captured(1).toLongLong();
        options->port = quint16((PXServerOptions::BasePort + options->comPort) % 65536);
        if (!parseNumber(positional.at(1), 0x7FFFFFFF, &value) || value == 0) {
            *message = QStringLiteral("bad baud rate \"%1\"").arg(positional.at(1));
            return PXServerParseResult::Error;
        }
        options->baudRate = qint64(value);
        const QString flow = positional.at(2);
        if (flow != QLatin1String("none") && flow != QLatin1String("hardware") &&
            flow != QLatin1String("xonxoff")) {
            *message = QStringLiteral("bad flow control \"%1\": expected none, hardware or "
                                      "xonxoff")
                           .arg(flow);
            return PXServerParseResult::Error;
        }
        options->flowWord = flow;
    }
    if (parser.isSet(listen)) {
        const QString text = parser.value(listen);
        QHostAddress address;
        if (text == QLatin1String("localhost"))
            address = QHostAddress(QHostAddress::LocalHost);
        else if (!address.setAddress(text)) {
            *message = QStringLiteral("bad listen address \"%1\"").arg(text);
            return PXServerParseResult::Error;
        }
        options->listenAddress = address;
    }
    if (parser.isSet(port)) {
        if (!parseNumber(parser.value(port), 65535, &value)) {
            *message = QStringLiteral("bad port \"%1\": expected 0..65535").arg(parser.value(port));
            return PXServerParseResult::Error;
        }
        options->port = quint16(value);
    }
    if (parser.isSet(image))
        options->imagePath = parser.value(image);
    // The device: --device, else the mapping of COM<N> in the environment (so that a server
    // started by the library with the three positional arguments finds it too).
    if (parser.isSet(device))
        options->devicePath = parser.value(device);
    else if (options->comPort >= 0)
        options->devicePath = qEnvironmentVariable(
            qPrintable(QStringLiteral("PELLIX_DEVICE_COM%1").arg(options->comPort)));
    if (parser.isSet(frameSize)) {
        if (!parseNumber(parser.value(frameSize), 65531, &value) || value == 0) {
            *message = QStringLiteral("bad frame size \"%1\": expected 1..65531")
                           .arg(parser.value(frameSize));
            return PXServerParseResult::Error;
        }
        options->frameSize = int(value);
    }
    if (parser.isSet(latency)) {
        if (!parseNumber(parser.value(latency), 60000000, &value)) {
            *message = QStringLiteral("bad latency \"%1\": expected 0..60000000 microseconds")
                           .arg(parser.value(latency));
            return PXServerParseResult::Error;
        }
        options->latencyMicroseconds = qint64(value);
    }
    if (parser.isSet(eventRegister)) {
        if (!parseNumber(parser.value(eventRegister), 0xFFFFFFFFu, &value)) {
            *message = QStringLiteral("bad event register \"%1\"").arg(parser.value(eventRegister));
            return PXServerParseResult::Error;
        }
        options->eventRegister = quint32(value);
    }
    options->verbose = parser.isSet(verbose);
    return PXServerParseResult::Run;
}
