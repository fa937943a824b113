#include "PXToolCommands.h"

#include "PXToolText.h"

#include <pellix/api/PXLLibraryApi.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace pxtool {

namespace {

const std::vector<OptionDef>* optionsOf(const std::string& name)
{
    const Command* command = findCommand(name);
    return command ? &command->options : nullptr;
}

// The standard streams of pxtool, pointed at /dev/null for the lifetime of the object. A server
// that PXST_Open starts inherits them and outlives pxtool: it must not write into the caller's
// output nor keep a pipe open that a script reads pxtool's output from.
class DetachedStreams
{
public:
    DetachedStreams()
    {
        std::fflush(stdout);
        std::fflush(stderr);
        const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (null < 0)
            return;
        for (int fd = 0; fd < 3; ++fd) {
            saved[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 3);
            dup2(null, fd);
        }
        close(null);
    }
    ~DetachedStreams()
    {
        for (int fd = 0; fd < 3; ++fd) {
            if (saved[fd] >= 0) {
                dup2(saved[fd], fd);
                close(saved[fd]);
            }
        }
    }
    DetachedStreams(const DetachedStreams&) = delete;
    DetachedStreams& operator=(const DetachedStreams&) = delete;

private:
    int saved[3] = {-1, -1, -1};
};

// PXST_Open starts "pellix" from the application's folder, which may be the current folder
// in a program that has not created a Qt application object of its own: open from pxtool's
// folder, where the build and the installation put the server, and return to the caller's
// folder at once.
unsigned int openStartingServer(const std::string& programFolder, int port, int baud, int flowMode,
                                int* handle)
{
    const int previous = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool moved = previous >= 0 && !programFolder.empty() && chdir(programFolder.c_str()) == 0;
    unsigned int result = 0;
    {
        DetachedStreams detached;
        result = PXST_Open(port, baud, static_cast<PXLFlowMode>(flowMode), handle);
    }
    if (moved && fchdir(previous) != 0)
        std::perror("pxtool: cannot return to the working folder");
    if (previous >= 0)
        close(previous);
    return result;
}

int openConnection(Session& session, const Command& command, const std::string& programFolder)
{
    const Arguments& args = session.args;
    const bool bySocket = args.has("host") || args.has("tcp-port");
    if (bySocket && args.has("port"))
        return session.usage("--port cannot be combined with --host or --tcp-port");
    if (!args.has("port") && (args.has("baud") || args.has("flow")))
        return session.usage("--baud and --flow apply to a server started for --port N");
    char where[96];
    if (bySocket) {
        if (!args.has("tcp-port"))
            return session.usage("--host needs --tcp-port");
        std::uint64_t tcpPort = 0;
        if (!session.number(args.value("tcp-port"), "TCP port", 0xFFFF, &tcpPort))
            return ExitUsage;
        const std::string host = args.value("host", "127.0.0.1");
        const unsigned int result = PXST_OpenSocket(host.c_str(), int(tcpPort), &session.handle);
        std::snprintf(where, sizeof where, "no server at %s:%u", host.c_str(), unsigned(tcpPort));
        return result ? session.fail(result, where) : int(ExitOk);
    }
    if (!args.has("port"))
        return session.usage("give the target's port with --port N, or a server with --host "
                             "HOST --tcp-port PORT");
    std::uint64_t port = 0;
    std::uint64_t baud = 0;
    if (!session.number(args.value("port"), "port number", 0xFFFF, &port) ||
        (args.has("baud") && !session.number(args.value("baud"), "baud rate", 0x7FFFFFFF, &baud)))
        return ExitUsage;
    const int flowMode = args.has("flow") ? parseFlowMode(args.value("flow")) : 0;
    if (flowMode < 0)
        return session.usage("bad --flow '" + args.value("flow") +
                             "': expected none, hardware or xonxoff");
    const unsigned int tcpPort = unsigned((port + 7700) % 65536);
    const unsigned long long com = port;
    std::snprintf(where, sizeof where, "no server for COM%llu at 127.0.0.1:%u", com, tcpPort);
    unsigned int result = PXST_OpenSocket("127.0.0.1", int(tcpPort), &session.handle);
    if (result == 0 || command.connect == Connect::NoStart || args.has("no-start"))
        return result ? session.fail(result, where) : int(ExitOk);
    // PXST_Open would probe for 10 s for a server that it cannot start: say so at once.
    const std::string server = programFolder + "/pellix";
    if (access(server.c_str(), X_OK) != 0)
        return session.fail(PXST_RESULT_NO_CONNECTION,
                            std::string(where) + ", and no " + server + " to start");
    const int startBaud = args.has("baud") ? int(baud) : 921600;
    result = openStartingServer(programFolder, int(port), startBaud, flowMode, &session.handle);
    if (result)
        return session.fail(result, std::string(where) + ", none came up after starting " + server);
    static const char* const flowWords[] = {"none", "hardware", "xonxoff"};
    session.note("started pellix COM%llu %d %s (127.0.0.1:%u); stop it with 'pxtool --port %llu "
                 "kill'",
                 com, startBaud, flowWords[flowMode], tcpPort, com);
    return ExitOk;
}

} // namespace

int runTool(const std::vector<std::string>& argv, const std::string& programFolder)
{
    Session session;
    std::string error;
    if (!parseArguments(argv, globalOptions(), optionsOf, &session.args, &error))
        return session.usage(error);
    const Arguments& args = session.args;

    session.json = args.has("json");
    if (args.has("trace")) {
        // The library reads the rules when it first logs: before any call into it.
        const char* rules = std::getenv("QT_LOGGING_RULES");
        const std::string all = std::string(rules && *rules ? std::string(rules) + ";" : "") +
                                "pellix.frames.debug=true";
        setenv("QT_LOGGING_RULES", all.c_str(), 1);
    }
    if (args.command.empty()) {
        if (args.has("version")) {
            std::printf("pxtool " PELLIX_VERSION "\n");
            return ExitOk;
        }
        if (args.has("help")) {
            printToolHelp(stdout);
            return ExitOk;
        }
        return session.usage("no command given");
    }
    if (args.command == "help") {
        if (args.positional.empty()) {
            printToolHelp(stdout);
            return ExitOk;
        }
        const Command* command = findCommand(args.positional.front());
        if (!command)
            return session.usage("unknown command '" + args.positional.front() + "'");
        printCommandHelp(stdout, *command);
        return ExitOk;
    }
    const Command* command = findCommand(args.command);
    if (!command)
        return session.usage("unknown command '" + args.command + "'");
    session.command = command->name;
    if (args.has("help")) {
        printCommandHelp(stdout, *command);
        return ExitOk;
    }
    if (args.positional.size() < command->minArguments() ||
        args.positional.size() > command->maxArguments()) {
        const std::string expected =
            std::string("expected '") + command->name +
            (*command->synopsis ? std::string(" ") + command->synopsis : std::string()) + "'";
        return session.usage(args.positional.size() < command->minArguments()
                                 ? "missing argument: " + expected
                                 : "too many arguments: " + expected);
    }
    session.quiet = args.has("quiet");
    session.progress = !session.quiet && (args.has("progress") || isatty(STDERR_FILENO));

    session.connector = [&] { return openConnection(session, *command, programFolder); };
    const int status = command->run(session);
    if (session.handle > 0)
        PXST_Close(session.handle);
    return status;
}

} // namespace pxtool
