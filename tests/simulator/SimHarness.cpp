#include "SimHarness.h"

#include "pellix/protocol/PXProtocol.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QRegularExpression>

SimProcess::~SimProcess()
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(10000)) {
        process.kill();
        process.waitForFinished(5000);
    }
}

void SimProcess::prepare()
{
    if (stderrFile.open())
        stderrFile.close();
    process.setStandardErrorFile(stderrFile.fileName());
}

bool SimProcess::start(const QStringList& arguments, int timeoutMs)
{
    const QString program = QDir(QCoreApplication::applicationDirPath()).absoluteFilePath("pellix");
    prepare();
    process.start(program, arguments);
    if (!process.waitForStarted(timeoutMs))
        return false;
    static const QRegularExpression pattern(QStringLiteral("^pellix: listening on (.+):(\\d+)$"));
    QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        if (process.canReadLine()) {
            line = QString::fromLatin1(process.readLine()).trimmed();
            const QRegularExpressionMatch match = pattern.match(line);
            if (!match.hasMatch())
                return false;
            listenPort = quint16(match.captured(2).toUInt());
            return true;
        }
        if (process.state() == QProcess::NotRunning)
            return false;
        process.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
    }
    return false;
}

int SimProcess::run(const QStringList& arguments, int timeoutMs)
{
    const QString program = QDir(QCoreApplication::applicationDirPath()).absoluteFilePath("pellix");
    prepare();
    process.start(program, arguments);
    return waitExit(timeoutMs);
}

int SimProcess::waitExit(int timeoutMs)
{
    if (process.state() != QProcess::NotRunning && !process.waitForFinished(timeoutMs))
        return -1;
    if (process.exitStatus() != QProcess::NormalExit)
        return -1;
    return process.exitCode();
}

QByteArray SimProcess::errorOutput()
{
    QFile file(stderrFile.fileName());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool SimClient::connectTo(quint16 port)
{
    socket.connectToHost(QStringLiteral("127.0.0.1"), port);
    return socket.waitForConnected(5000);
}

void SimClient::send(const QByteArray& frame)
{
    socket.write(frame);
    socket.flush();
}

QByteArray SimClient::next(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        const QByteArray frame = parser.getPacket(false);
        if (!frame.isEmpty())
            return frame;
        if (socket.bytesAvailable() <= 0) {
            if (deadline.hasExpired() || socket.state() != QAbstractSocket::ConnectedState ||
                !socket.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime()))))
                if (socket.bytesAvailable() <= 0)
                    return QByteArray();
        }
        parser.feedData(socket.readAll());
    }
}

bool SimClient::waitClosed(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (socket.state() == QAbstractSocket::ConnectedState && !deadline.hasExpired()) {
        socket.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
        socket.readAll();
    }
    return socket.state() != QAbstractSocket::ConnectedState;
}

QList<QByteArray> SimClient::framesBeforePing(bool* ok, int timeoutMs)
{
    send(pxproto::ping());
    QList<QByteArray> frames;
    *ok = false;
    for (;;) {
        const QByteArray frame = next(timeoutMs);
        if (frame.isEmpty())
            return frames;
        if (pxproto::flowId(frame) == pxproto::reply::Ping && frame.size() == 4) {
            *ok = true;
            return frames;
        }
        frames.append(frame);
    }
}
