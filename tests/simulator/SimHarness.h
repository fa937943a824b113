#ifndef PELLIX_SIMHARNESS_H
#define PELLIX_SIMHARNESS_H

#include "pellix/protocol/PXParser.h"

#include <QByteArray>
#include <QProcess>
#include <QStringList>
#include <QTcpSocket>
#include <QTemporaryFile>

// Starts the pellix executable that sits beside the test binary and learns its port from the
// line it prints once it listens. The destructor stops a server that is still running.
class SimProcess
{
public:
    SimProcess() = default;
    ~SimProcess();
    SimProcess(const SimProcess&) = delete;
    SimProcess& operator=(const SimProcess&) = delete;

    // Starts the server with `arguments` and waits up to timeoutMs for its listening line.
    // False when it exited or printed nothing in time.
    bool start(const QStringList& arguments, int timeoutMs = 15000);
    // Runs the server to its end; the exit code, or -1 when it did not end within timeoutMs.
    int run(const QStringList& arguments, int timeoutMs = 15000);
    // Exit code once the process has ended within timeoutMs, else -1.
    int waitExit(int timeoutMs = 10000);

    quint16 port() const { return listenPort; }
    QString listenLine() const { return line; }
    // Everything the server wrote to standard error so far.
    QByteArray errorOutput();
    qint64 pid() const { return process.processId(); }
    QProcess& raw() { return process; }

private:
    QProcess process;
    quint16 listenPort = 0;
    QString line;
    // Standard error goes to a file, so a verbose server never blocks on a full pipe.
    QTemporaryFile stderrFile;
    void prepare();
};

// A raw client socket that sends prebuilt frames and cuts the replies with PXParser.
class SimClient
{
public:
    bool connectTo(quint16 port);
    void send(const QByteArray& frame);
    // The next frame from the server, or an empty array when none came within timeoutMs.
    QByteArray next(int timeoutMs = 5000);
    // True when the server closed the connection within timeoutMs (frames left unread are
    // discarded).
    bool waitClosed(int timeoutMs = 5000);
    // Sends a ping and returns the frames that came before its reply; `ok` tells whether the
    // reply came at all. Proves that earlier requests were answered with exactly those frames.
    QList<QByteArray> framesBeforePing(bool* ok, int timeoutMs = 5000);

    QTcpSocket socket;
    PXParser parser{PXParser::ServerFrames};
};

#endif
