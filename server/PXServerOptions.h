#ifndef PELLIX_PXSERVEROPTIONS_H
#define PELLIX_PXSERVEROPTIONS_H

#include <QHostAddress>
#include <QString>
#include <QStringList>

// Settings of one server run, taken from its command line.
struct PXServerOptions
{
    static constexpr int BasePort = 7700;
    static constexpr int DefaultFrameSize = 4096;
    static constexpr quint32 DefaultEventRegister = 0xFFFFFF00u;

    QHostAddress listenAddress{QHostAddress::LocalHost};
    // TCP port to listen on; 0 lets the system pick a free one.
    quint16 port = 0;
    // Serial port of the positional form (COM<N>), -1 when it was not given.
    qint64 comPort = -1;
    qint64 baudRate = 0;
    QString flowWord = QStringLiteral("none");
    QString imagePath;
    // Serial device of the target (--device), empty when none was given.
    QString devicePath;
    // Largest data part of one read-data frame.
    int frameSize = DefaultFrameSize;
    // Delay before each reply, in microseconds.
    qint64 latencyMicroseconds = 0;
    quint32 eventRegister = DefaultEventRegister;
    bool verbose = false;
};

enum class PXServerParseResult { Run, Help, Error };

// Reads the arguments (without the program name) into `options`. Returns Help with the usage
// text in `message` for --help, Error with a one-line reason in `message` for anything it
// cannot accept.
PXServerParseResult parseServerOptions(const QStringList& arguments, PXServerOptions* options,
                                       QString* message);

#endif
