#include "SimulatorProcess.h"

#include <QByteArray>
#include <QFileInfo>
#include <QRegularExpression>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

qint64 nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace

QString SimulatorProcess::binaryFolder()
{
    return QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath().section('/', 0, -2);
}

SimulatorProcess::SimulatorProcess(const QStringList& extraArguments)
{
    launch(QStringList{"COM0", "921600", "none", "--port", "0"} + extraArguments);
}

SimulatorProcess SimulatorProcess::withArguments(const QStringList& arguments)
{
    SimulatorProcess process{NoLaunch{}};
    process.launch(arguments);
    return process;
}

SimulatorProcess::SimulatorProcess(SimulatorProcess&& other) noexcept
    : child(other.child), outFd(other.outFd), errFd(other.errFd), listenPort(other.listenPort),
      stderrBytes(std::move(other.stderrBytes)), exitStatus(other.exitStatus)
{
    other.child = -1;
    other.outFd = -1;
    other.errFd = -1;
}

void SimulatorProcess::launch(const QStringList& arguments)
{
    const QByteArray path = (binaryFolder() + QStringLiteral("/pellix")).toLocal8Bit();
    std::vector<QByteArray> storage;
    storage.push_back(path);
    for (const QString& argument : arguments)
        storage.push_back(argument.toLocal8Bit());
    std::vector<char*> argv;
    for (QByteArray& s : storage)
        argv.push_back(s.data());
    argv.push_back(nullptr);

    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        return;
    child = fork();
    if (child == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    outFd = out[0];
    errFd = err[0];
    fcntl(errFd, F_SETFL, O_NONBLOCK);

    // Read stdout until the announcement line, for at most 10 s.
    QByteArray line;
    const qint64 deadline = nowMs() + 10000;
    while (nowMs() < deadline && !line.contains('\n')) {
        pollfd p{outFd, POLLIN, 0};
        if (poll(&p, 1, int(deadline - nowMs())) <= 0)
            break;
        char c[256];
        const ssize_t n = read(outFd, c, sizeof c);
        if (n <= 0)
            break;
        line.append(c, int(n));
    }
    static const QRegularExpression announce(QStringLiteral("listening on .*:(\\d+)"));
    const auto match = announce.match(QString::fromLocal8Bit(line));
    if (match.hasMatch())
        listenPort = quint16(match.captured(1).toUInt());
}

void SimulatorProcess::drainStderr(int timeoutMs)
{
    if (errFd < 0)
        return;
    pollfd p{errFd, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0)
        return;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(errFd, buffer, sizeof buffer);
        if (n <= 0)
            break;
        stderrBytes.append(buffer, int(n));
    }
}

QString SimulatorProcess::errorOutput()
{
    drainStderr(0);
    return QString::fromLocal8Bit(stderrBytes);
}

bool SimulatorProcess::waitForErrorOutput(const QString& text, int timeoutMs)
{
    const qint64 deadline = nowMs() + timeoutMs;
    for (;;) {
        drainStderr(0);
        if (QString::fromLocal8Bit(stderrBytes).contains(text))
            return true;
        const qint64 left = deadline - nowMs();
        if (left <= 0)
            return false;
        drainStderr(int(left < 50 ? left : 50));
    }
}

int SimulatorProcess::waitForExit(int timeoutMs)
{
    if (child <= 0)
        return exitStatus;
    const qint64 deadline = nowMs() + timeoutMs;
    for (;;) {
        int status = 0;
        const pid_t done = waitpid(child, &status, WNOHANG);
        if (done == child) {
            child = -1;
            exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return exitStatus;
        }
        if (nowMs() >= deadline)
            return -1;
        drainStderr(10);
        usleep(1000);
    }
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
    if (outFd >= 0)
        close(outFd);
    if (errFd >= 0)
        close(errFd);
}
