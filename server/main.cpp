// pellix: the host server. Listens for library clients and answers them through a target: a
// chip on a serial debug link, or the simulated chip; see README.md in this folder.

#include "PXServerOptions.h"
#include "chip/PXSimImage.h"
#include "front/PXServer.h"
#include "target/PXSerialTarget.h"
#include "target/PXSimTarget.h"

#include "pellix/protocol/PXLTypes.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace {

constexpr int ExitBadArguments = 2;

quint32 flowModeOf(const QString& word)
{
    if (word == QLatin1String("hardware"))
        return PXL_FLOW_HARDWARE;
    if (word == QLatin1String("xonxoff"))
        return PXL_FLOW_XONXOFF;
    return PXL_FLOW_NONE;
}
int signalPipe[2] = {-1, -1};

extern "C" void onTerminationSignal(int)
{
    const char byte = 1;
    const ssize_t ignored = ::write(signalPipe[1], &byte, 1);
    (void)ignored;
}

// SIGINT and SIGTERM end the event loop through a pipe, so the exit runs on the main thread.
bool installSignalHandlers()
{
    if (::pipe(signalPipe) != 0)
        return false;
    ::fcntl(signalPipe[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(signalPipe[1], F_SETFD, FD_CLOEXEC);
    ::fcntl(signalPipe[1], F_SETFL, O_NONBLOCK);
    struct sigaction action = {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return ::sigaction(SIGINT, &action, nullptr) == 0 &&
           ::sigaction(SIGTERM, &action, nullptr) == 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // A client that goes away while we write must not kill the server.
    std::signal(SIGPIPE, SIG_IGN);

    PXServerOptions options;
    QString message;
    QStringList arguments = app.arguments();
    arguments.removeFirst();
    switch (parseServerOptions(arguments, &options, &message)) {
    case PXServerParseResult::Help:
        std::fprintf(stdout, "%s", qPrintable(message));
        return 0;
    case PXServerParseResult::Error:
        std::fprintf(stderr, "pellix: %s\nTry 'pellix --help'.\n", qPrintable(message));
        return ExitBadArguments;
    case PXServerParseResult::Run:
        break;
    }

    // A configured device is served or reported as down, never replaced by the simulation:
    // whoever flashes hardware must not be answered by a simulated chip.
    std::unique_ptr<PXTarget> target;
    if (!options.devicePath.isEmpty()) {
        if (!options.imagePath.isEmpty()) {
            std::fprintf(stderr, "pellix: --image is for the simulated target only\n");
            return ExitBadArguments;
        }
        auto* serial =
            new PXSerialTarget(options.devicePath, options.baudRate, flowModeOf(options.flowWord));
        target.reset(serial);
        serial->start();
    } else {
        auto* simulated = new PXSimTarget(options.eventRegister);
        target.reset(simulated);
        std::fprintf(stderr,
                     "pellix: no serial device configured%s: serving a simulated "
                     "target\n",
                     options.comPort >= 0
                         ? qPrintable(QStringLiteral(" for COM%1 (--device, PELLIX_DEVICE_COM%1)")
                                          .arg(options.comPort))
                         : "");
        if (!options.imagePath.isEmpty() &&
            !loadLodImage(options.imagePath, simulated->chip().memory(), &message)) {
            std::fprintf(stderr, "pellix: %s\n", qPrintable(message));
            return ExitBadArguments;
        }
    }
    PXServer server(options, *target);
    if (!installSignalHandlers()) {
        std::fprintf(stderr, "pellix: cannot install signal handlers\n");
        return 1;
    }
    QSocketNotifier signalNotifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, &app, &QCoreApplication::quit);
    QObject::connect(&server, &PXServer::killRequested, &app, &QCoreApplication::quit,
                     Qt::QueuedConnection);

    if (!server.listen(&message)) {
        std::fprintf(stderr, "pellix: %s\n", qPrintable(message));
        return 1;
    }
    std::fprintf(stdout, "pellix: listening on %s:%u\n",
                 qPrintable(server.serverAddress().toString()), unsigned(server.serverPort()));
    std::fflush(stdout);
    if (options.verbose)
        std::fprintf(stderr,
                     "pellix: COM%lld, %lld baud, flow %s, frame size %d, latency %lld us, "
                     "event register 0x%08X\n",
                     static_cast<long long>(options.comPort),
                     static_cast<long long>(options.baudRate), qPrintable(options.flowWord),
                     options.frameSize, static_cast<long long>(options.latencyMicroseconds),
                     options.eventRegister);
    return app.exec() == 0 ? 0 : 1;
}
