// pellix: the simulated host server. Listens for library clients and answers them from a
// simulated target; see README.md in this folder.

#include "PXSimImage.h"
#include "PXSimOptions.h"
#include "PXSimServer.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int ExitBadArguments = 2;
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

    PXSimOptions options;
    QString message;
    QStringList arguments = app.arguments();
    arguments.removeFirst();
    switch (parseSimOptions(arguments, &options, &message)) {
    case PXSimParseResult::Help:
        std::fprintf(stdout, "%s", qPrintable(message));
        return 0;
    case PXSimParseResult::Error:
        std::fprintf(stderr, "pellix: %s\nTry 'pellix --help'.\n", qPrintable(message));
        return ExitBadArguments;
    case PXSimParseResult::Run:
        break;
    }

    PXSimServer server(options);
    if (!options.imagePath.isEmpty() &&
        !loadLodImage(options.imagePath, server.memory(), &message)) {
        std::fprintf(stderr, "pellix: %s\n", qPrintable(message));
        return ExitBadArguments;
    }
    if (!installSignalHandlers()) {
        std::fprintf(stderr, "pellix: cannot install signal handlers\n");
        return 1;
    }
    QSocketNotifier signalNotifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, &app, &QCoreApplication::quit);
    QObject::connect(&server, &PXSimServer::killRequested, &app, &QCoreApplication::quit,
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
