#include "SimulatorProcess.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

QString SimulatorProcess::binaryFolder()
{
    return QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath().section('/', 0, -2);
}

SimulatorProcess::SimulatorProcess(const QStringList& extraArguments)
    : SimulatorProcess(QStringLiteral("pellix"),
                       QStringList{"COM0", "921600", "none", "--port", "0"} + extraArguments)
{}

SimulatorProcess::SimulatorProcess(SimulatorProcess&& other) noexcept
    : child(std::exchange(other.child, -1)), outFd(std::exchange(other.outFd, -1)),
      errFd(std::exchange(other.errFd, -1)), listenPort(other.listenPort),
      exitStatus(other.exitStatus)
{}

SimulatorProcess::SimulatorProcess(const QString& program, const QStringList& arguments)
{
    std::vector<QByteArray> storage{(binaryFolder() + QLatin1Char('/') + program).toLocal8Bit()};
    for (const QString& argument : arguments)
        storage.push_back(argument.toLocal8Bit());
    std::vector<char*> argv;
    for (QByteArray& s : storage)
        argv.push_back(s.data());
    argv.push_back(nullptr);

    // stderr goes to a memory file: it never fills up, and can be read whole at any time.
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0 || (errFd = memfd_create("stderr", MFD_CLOEXEC)) < 0)
        return;
    child = fork();
    if (child == 0) {
        // The server may use every processor, also when the caller confines itself to some
        // (a benchmark run under taskset measures a client that shares its processor). The
        // kernel keeps only the processors that exist of the full mask.
        cpu_set_t all;
        std::memset(&all, 0xFF, sizeof all);
        sched_setaffinity(0, sizeof all, &all);
        dup2(out[1], STDOUT_FILENO);
        dup2(errFd, STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    outFd = out[0];

    // Read stdout until the announcement line, for at most 10 s.
    const QDeadlineTimer deadline(10000);
    QByteArray line;
    pollfd p{outFd, POLLIN, 0};
    for (char c = 0;
         c != '\n' && poll(&p, 1, int(deadline.remainingTime())) > 0 && read(outFd, &c, 1) == 1;)
        line += c;
    if (line.contains("listening on "))
        listenPort = quint16(line.mid(line.lastIndexOf(':') + 1).trimmed().toUInt());
}

QString SimulatorProcess::errorOutput()
{
    // A description of its own, read from the start; the child's offset stays where it is.
    QFile file(QStringLiteral("/proc/self/fd/%1").arg(errFd));
    return file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()) : QString();
}

int SimulatorProcess::waitForExit(int timeoutMs)
{
    int status = 0;
    for (const QDeadlineTimer deadline(timeoutMs);
         child > 0 && waitpid(child, &status, WNOHANG) != child; usleep(1000))
        if (deadline.hasExpired())
            return -1;
    if (std::exchange(child, -1) > 0)
        exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return exitStatus;
}

SimulatorProcess::~SimulatorProcess()
{
    if (child > 0) {
        kill(child, SIGTERM);
        if (waitForExit(3000) < 0) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }
    // After a move or a failed start they are -1, which close() refuses harmlessly.
    close(outFd);
    close(errFd);
}
