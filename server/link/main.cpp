// pellix-target: a simulated chip at the far end of a debug link, on a pseudo-terminal of its
// own (--pty) or on a serial device (--device). The server opens the other end with
// `pellix --device PATH`. See the server's README for the link's packets.

#include "PXChipLink.h"
#include "PXSimChip.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QString>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <string>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr int ExitBadArguments = 2;
volatile std::sig_atomic_t stopRequested = 0;

extern "C" void onStopSignal(int)
{
    stopRequested = 1;
}

const char Usage[] =
    "Usage: pellix-target (--pty [LINK] | --device PATH) [--flow none|xonxoff] [--baud B]\n"
    "                     [--event-register ADDRESS] [--verbose]\n"
    "A simulated chip on a debug link.\n"
    "  --pty [LINK]      make a pseudo-terminal and print its device as\n"
    "                    \"pellix-target: serial device PATH\"; with LINK, also make LINK a\n"
    "                    symbolic link to it (replacing an old one)\n"
    "  --device PATH     serve an existing terminal device\n"
    "  --flow MODE       none (default) or xonxoff (escaped bytes both ways)\n"
    "  --baud B          move at most B/10 bytes per second each way, as a real link\n"
    "  --event-register  address whose 32-bit writes raise events (default 0xFFFFFF00)\n"
    "  --verbose         a line per 1000 commands on standard error\n";

struct Options
{
    bool pty = false;
    std::string link;
    std::string device;
    bool escaped = false;
    long long baud = 0;
    quint32 eventRegister = PXSimChip::DefaultEventRegister;
    bool verbose = false;
};

bool parseArguments(int argc, char** argv, Options* options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc && std::strncmp(argv[i + 1], "--", 2) != 0;
        if (arg == "--pty") {
            options->pty = true;
            if (hasValue)
                options->link = argv[++i];
        } else if (arg == "--device" && hasValue) {
            options->device = argv[++i];
        } else if (arg == "--flow" && hasValue) {
            const std::string mode = argv[++i];
            if (mode != "none" && mode != "xonxoff")
                return false;
            options->escaped = mode == "xonxoff";
        } else if (arg == "--baud" && hasValue) {
            char* end = nullptr;
            options->baud = std::strtoll(argv[++i], &end, 10);
            if (*end != '\0' || options->baud <= 0)
                return false;
        } else if (arg == "--event-register" && hasValue) {
            char* end = nullptr;
            options->eventRegister = quint32(std::strtoul(argv[++i], &end, 0));
            if (*end != '\0')
                return false;
        } else if (arg == "--verbose") {
            options->verbose = true;
        } else {
            return false;
        }
    }
    return options->pty != !options->device.empty();
}

void makeRaw(int fd)
{
    termios settings{};
    if (::tcgetattr(fd, &settings) != 0)
        return;
    ::cfmakeraw(&settings);
    ::tcsetattr(fd, TCSANOW, &settings);
}

// LINK names the new device, replacing an old link in one step.
bool pointLink(const std::string& link, const char* device)
{
    const std::string temporary = link + ".new";
    ::unlink(temporary.c_str());
    return ::symlink(device, temporary.c_str()) == 0 &&
           ::rename(temporary.c_str(), link.c_str()) == 0;
}

// Bytes a direction may move now, at `rate` bytes per second (0: no limit).
class Budget
{
public:
    explicit Budget(long long rate) : bytesPerSecond(rate) { clock.start(); }

    long long available()
    {
        if (bytesPerSecond <= 0)
            return 1 << 20;
        const long long now = clock.nsecsElapsed();
        tokens = std::min<double>(tokens + double(now - last) * 1e-9 * double(bytesPerSecond),
                                  double(std::max<long long>(bytesPerSecond / 100, 64)));
        last = now;
        return (long long)tokens;
    }
    void spend(long long bytes) { tokens -= double(bytes); }

private:
    long long bytesPerSecond;
    QElapsedTimer clock;
    long long last = 0;
    double tokens = 0;
};

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (argc > 1 && std::strcmp(argv[1], "--help") == 0) {
        std::fputs(Usage, stdout);
        return 0;
    }
    if (!parseArguments(argc, argv, &options)) {
        std::fprintf(stderr, "pellix-target: bad arguments\n%s", Usage);
        return ExitBadArguments;
    }
    int fd = -1;
    int slave = -1;
    if (options.pty) {
        if (::openpty(&fd, &slave, nullptr, nullptr, nullptr) != 0) {
            std::fprintf(stderr, "pellix-target: openpty: %s\n", std::strerror(errno));
            return 1;
        }
        // The slave stays open here too, so that the master reads no hang-up while the server
        // has the device closed.
        makeRaw(slave);
        const char* name = ::ttyname(slave);
        if (!options.link.empty() && !pointLink(options.link, name)) {
            std::fprintf(stderr, "pellix-target: cannot link %s: %s\n", options.link.c_str(),
                         std::strerror(errno));
            return 1;
        }
        std::printf("pellix-target: serial device %s\n", name);
        std::fflush(stdout);
    } else {
        fd = ::open(options.device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (fd < 0) {
            std::fprintf(stderr, "pellix-target: cannot open %s: %s\n", options.device.c_str(),
                         std::strerror(errno));
            return 1;
        }
        makeRaw(fd);
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    struct sigaction action = {};
    action.sa_handler = onStopSignal;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    PXSimChip chip(options.eventRegister);
    PXChipLink link(chip, options.escaped);
    Budget in(options.baud / 10);
    Budget out(options.baud / 10);
    QByteArray pending;
    char buffer[65536];
    quint64 reported = 0;
    while (!stopRequested) {
        const long long mayRead = in.available();
        const long long mayWrite = out.available();
        pollfd watch{fd, 0, 0};
        if (mayRead > 0)
            watch.events |= POLLIN;
        if (!pending.isEmpty() && mayWrite > 0)
            watch.events |= POLLOUT;
        const bool throttled = (mayRead <= 0) || (!pending.isEmpty() && mayWrite <= 0);
        if (::poll(&watch, 1, throttled ? 1 : 200) < 0 && errno != EINTR)
            break;
        if ((watch.revents & POLLIN) != 0) {
            const ssize_t n =
                ::read(fd, buffer, size_t(std::min<long long>(mayRead, sizeof buffer)));
            if (n > 0) {
                in.spend(n);
                pending.append(link.feed(QByteArray::fromRawData(buffer, int(n))));
            } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
                break;
            }
        }
        if (!pending.isEmpty()) {
            const long long budget = std::min<long long>(out.available(), pending.size());
            if (budget > 0) {
                const ssize_t n = ::write(fd, pending.constData(), size_t(budget));
                if (n > 0) {
                    out.spend(n);
                    pending.remove(0, int(n));
                } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
                    break;
                }
            }
        }
        if (options.verbose && link.commands() / 1000 != reported) {
            reported = link.commands() / 1000;
            std::fprintf(stderr, "pellix-target: %llu commands, %llu ignored\n",
                         static_cast<unsigned long long>(link.commands()),
                         static_cast<unsigned long long>(link.ignored()));
        }
        if ((watch.revents & (POLLHUP | POLLERR)) != 0 && !options.pty)
            break;
    }
    if (!options.link.empty())
        ::unlink(options.link.c_str());
    return 0;
}
