#ifndef PELLIX_PXSIMOPTIONS_H
#define PELLIX_PXSIMOPTIONS_H

#include <QHostAddress>
#include <QString>
#include <QStringList>

// Settings of one simulator run, taken from its command line.
struct PXSimOptions
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
    // Largest data part of one read-data frame.
    int frameSize = DefaultFrameSize;
    // Delay before each reply, in microseconds.
    qint64 latencyMicroseconds = 0;
    quint32 eventRegister = DefaultEventRegister;
    bool verbose = false;
};

enum class PXSimParseResult { Run, Help, Error };

// Reads the arguments (without the program name) into `options`. Returns Help with the usage
// text in `message` for --help, Error with a one-line reason in `message` for anything it
// cannot accept.
PXSimParseResult parseSimOptions(const QStringList& arguments, PXSimOptions* options,
                                 QString* message);

#endif
