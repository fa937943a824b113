#include "SimulatorProcess.h"

#include <QDeadlineTimer>
#include <QFileInfo>
#include <QProcess>

#include <cstring>
#include <sched.h>

QString SimulatorProcess::binaryFolder()
{
    return QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath().section('/', 0, -2);
}

SimulatorProcess::SimulatorProcess(const QStringList& extraArguments)
    : SimulatorProcess(QStringLiteral("pellix"),
                       QStringList{"COM0", "921600", "none", "--port", "0"} + extraArguments)
{}

SimulatorProcess::SimulatorProcess(const QString& program, const QStringList& arguments)
    : process(std::make_unique<QProcess>())
{
    // The server may use every processor, also when the caller confines itself to some (a
    // benchmark run under taskset measures a client that shares its processor). The kernel
    // keeps only the processors that exist of the full mask.
    process->setChildProcessModifier([] {
        cpu_set_t all;
        std::memset(&all, 0xFF, sizeof all);
        sched_setaffinity(0, sizeof all, &all);
    });
    process->setInputChannelMode(QProcess::ForwardedInputChannel);
    process->start(binaryFolder() + QLatin1Char('/') + program, arguments);
    // Read stdout until the announcement line, for at most 10 s.
    for (const QDeadlineTimer deadline(10000);
         !process->canReadLine() && process->waitForReadyRead(int(deadline.remainingTime()));) {
    }
    const QByteArray line = process->readLine();
    if (line.contains("listening on "))
        listenPort = quint16(line.mid(line.lastIndexOf(':') + 1).trimmed().toUInt());
}

QString SimulatorProcess::errorOutput()
{
    // Takes in what the pipes hold now, waiting for nothing.
    while (process->waitForReadyRead(0)) {
    }
    stderrBytes += process->readAllStandardError();
    return QString::fromLocal8Bit(stderrBytes);
}

int SimulatorProcess::waitForExit(int timeoutMs)
{
    if (process->error() == QProcess::FailedToStart ||
        (process->state() != QProcess::NotRunning && !process->waitForFinished(timeoutMs)))
        return -1;
    // The exit code of a process that a signal ended is the signal's number.
    return process->exitCode() + (process->exitStatus() == QProcess::CrashExit ? 128 : 0);
}

SimulatorProcess::~SimulatorProcess()
{
    // After a move the process is gone.
    if (process && process->state() != QProcess::NotRunning) {
        process->terminate();
        if (!process->waitForFinished(3000))
            process->kill();
        process->waitForFinished();
    }
}
