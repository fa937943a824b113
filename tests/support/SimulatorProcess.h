#ifndef PELLIX_TESTS_SIMULATORPROCESS_H
#define PELLIX_TESTS_SIMULATORPROCESS_H

#include <QString>
#include <QStringList>

#include <sys/types.h>

// Runs the real `pellix` simulator from the test binary's folder for the lifetime of the
// object: "pellix COM0 921600 none --port 0 <extra>" by default, then reads the
// "pellix: listening on <address>:<port>" line to learn the port. The process is stopped
// (SIGTERM, then SIGKILL) and reaped by the destructor. Needs no Qt event loop.
class SimulatorProcess
{
public:
    explicit SimulatorProcess(const QStringList& extraArguments = {});
    // Starts with exactly these arguments (no defaults added).
    static SimulatorProcess withArguments(const QStringList& arguments)
    {
        return {QStringLiteral("pellix"), arguments};
    }
    // Starts another server program of the binary folder that announces itself the same way.
    static SimulatorProcess program(const QString& name, const QStringList& arguments)
    {
        return {name, arguments};
    }
    ~SimulatorProcess();

    // Movable, not copyable (declaring the move removes the copies).
    SimulatorProcess(SimulatorProcess&& other) noexcept;

    // True once the simulator has announced that it listens.
    bool isListening() const { return listenPort != 0; }
    quint16 port() const { return listenPort; }
    pid_t pid() const { return child; }

    // Everything the simulator wrote to stderr so far (with --verbose: one line per request).
    QString errorOutput();
    // Waits for the process to exit by itself; returns its exit status or -1 on time-out.
    int waitForExit(int timeoutMs = 5000);

    // The folder of the running test binary (where pellix and the library live).
    static QString binaryFolder();

private:
    // Starts `program` of the binary folder with exactly `arguments`.
    SimulatorProcess(const QString& program, const QStringList& arguments);

    pid_t child = -1;
    int outFd = -1;
    int errFd = -1; // a memory file
    quint16 listenPort = 0;
    int exitStatus = -1;
};

#endif
