// Shared by the fuzz targets: failing with a message; the ends of TCP connections (for the
// connection fuzzers a listening socket on 127.0.0.1, any free port, opened once per process,
// and the accepted peer of each client; for the simulator fuzzer its client; plain POSIX
// sockets, used from the fuzzing thread only, with poll() deadlines so that no input can hang
// the fuzzer), the requests the connection fuzzers make, and cutting a stream into frames.

#ifndef PELLIX_FUZZ_FUZZPEER_H
#define PELLIX_FUZZ_FUZZPEER_H

#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXParser.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QElapsedTimer>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

namespace fuzzpeer {

[[noreturn]] inline void fail(const char* what)
{
    std::fprintf(stderr, "fuzz: %s (errno %d)\n", what, errno);
    std::abort();
}

// A QCoreApplication for targets that need an event loop, made on first use.
inline void ensureApplication()
{
    static int argc = 1;
    static char* argv[] = {const_cast<char*>("fuzz"), nullptr};
    if (!QCoreApplication::instance())
        new QCoreApplication(argc, argv);
}

// Calls `call` again while it fails with EINTR (libFuzzer's own timers interrupt system
// calls: that is not the end).
template <class F>
auto retry(F call)
{
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

inline sockaddr_in loopback(quint16 port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// Calls `f` with every complete frame of `stream` (cut as a client cuts the server's bytes).
template <class F>
void forEachFrame(const QByteArray& stream, F f)
{
    PXParser parser(PXParser::ServerFrames);
    parser.feedData(stream);
    for (QByteArray frame = parser.getPacket(false); !frame.isEmpty();
         frame = parser.getPacket(false))
        f(frame);
}

// The listening socket (created on first use) and its port.
struct Listener
{
    int fd;
    quint16 port;
};
inline const Listener& listener()
{
    static const Listener instance = [] {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = loopback(0);
        socklen_t size = sizeof address;
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            ::listen(fd, 16) != 0 ||
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            fail("socket/bind/listen");
        return Listener{fd, ntohs(address.sin_port)};
    }();
    return instance;
}

// One end of a TCP connection on 127.0.0.1: a client accepted from the listener, or a client
// of a server.
class Peer
{
public:
    // Accepts the connection that a client has just made (its connect has completed, so the
    // kernel holds it in the backlog).
    Peer()
    {
        pollfd p{listener().fd, POLLIN, 0};
        if (retry([&] { return ::poll(&p, 1, 5000); }) == 1)
            fd = retry([] { return ::accept4(listener().fd, nullptr, nullptr, SOCK_CLOEXEC); });
        if (fd < 0)
            fail("no client to accept");
        const int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    // Connects to the server listening at `port`.
    explicit Peer(quint16 port) : fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_in address = loopback(port);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            fail("connect");
    }
    ~Peer() { close(true); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // Appends to `bytes` what has come within timeoutMs; false once the other end has closed.
    bool receive(QByteArray& bytes, int timeoutMs)
    {
        pollfd p{fd, POLLIN, 0};
        if (retry([&] { return ::poll(&p, 1, timeoutMs); }) != 1)
            return true;
        char buffer[65536];
        const ssize_t n = retry([&] { return ::read(fd, buffer, sizeof buffer); });
        bytes.append(buffer, n > 0 ? int(n) : 0);
        return n > 0;
    }

    // Reads frames until one with flow id `flow` has come; false after timeoutMs or when the
    // other end has closed.
    bool waitForFrame(unsigned char flow, int timeoutMs)
    {
        for (QByteArray bytes;; bytes.clear()) {
            for (QByteArray f = parser.getPacket(false); !f.isEmpty(); f = parser.getPacket(false))
                if (pxproto::flowId(f) == flow)
                    return true;
            if (!receive(bytes, timeoutMs) || bytes.isEmpty())
                return false;
            parser.feedData(bytes);
        }
    }

    // Writes `bytes` from `done` on: all of them (blocking) or, without `wait`, as many as the
    // socket takes now. Returns how far it got; it stops when the other end has gone.
    qsizetype send(const QByteArray& bytes, qsizetype done = 0, bool wait = true)
    {
        const int flags = MSG_NOSIGNAL | (wait ? 0 : MSG_DONTWAIT);
        for (ssize_t n = 1; n > 0 && done < bytes.size(); done += qMax<ssize_t>(n, 0))
            n = retry([&] {
                return ::send(fd, bytes.constData() + done, size_t(bytes.size() - done), flags);
            });
        return done;
    }

    // Closes: orderly (the other end sees the end of the stream), or with a reset that leaves
    // no TIME_WAIT entry behind (many inputs per second).
    void close(bool reset)
    {
        if (fd < 0)
            return;
        linger off{1, 0};
        if (reset)
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &off, sizeof off);
        ::close(fd);
        fd = -1;
    }

private:
    int fd = -1;
    PXParser parser{PXParser::ServerFrames};
};

// Bytes that complete whatever partial frame `stream` leaves at its end in a ServerFrames
// parser (zeros, which cannot start a frame of their own), so that a reply written after
// them is cut as a frame of its own.
inline QByteArray completion(const QByteArray& stream)
{
    PXParser parser(PXParser::ServerFrames);
    parser.feedData(stream);
    QByteArray filler;
    for (int round = 0; round < 4; ++round) {
        while (!parser.getPacket(false).isEmpty()) {
        }
        const int buffered = parser.bufferedSize();
        const int length =
            buffered < pxproto::HeaderSize ? 0 : pxproto::payloadLength(parser.buffered());
        const QByteArray zeros(buffered == 0 ? 0 : length + pxproto::HeaderSize - buffered, '\0');
        parser.feedData(zeros);
        filler += zeros;
    }
    return filler;
}

// Fails unless a request timed by `clock` ended at once with 0, 13 or (when `closedEnds`) 12:
// the reply sent after the input ends it, so a request that waited out its time-out missed a
// frame.
inline void checkEnded(const QElapsedTimer& clock, unsigned int result, bool closedEnds)
{
    if (clock.elapsed() > 3000)
        fail("request waited for its time-out");
    if (result != 0 && result != 13 && !(closedEnds && result == 12))
        fail("unexpected result code");
}

// The requests of the connection fuzzers: an input byte picks one from the target's list.
enum class Op { Read, ReadInternal, Write, Status, Ping, Break, Reconnect, None };
constexpr unsigned int ReadAddress = 0x1000;

// A request on a PXConnection or a PXNSConnection: its flow id as it reaches the server (0:
// none), the reply that ends it at once (a read data frame without data fails a read), and
// the call (None gives 0).
template <class Connection>
struct Request
{
    unsigned char flow;
    QByteArray terminator;
    std::function<unsigned int(Connection&)> call;
};

template <class Connection>
Request<Connection> request(Op op, int sizeIndex)
{
    using namespace pxproto;
    constexpr int ReadSizes[] = {1, 2, 4, 8, 16, 64, 300};
    const bool internal = op == Op::ReadInternal;
    // An internal read of up to 4 bytes is an internal single read.
    const int size = internal && ReadSizes[sizeIndex % 7] <= 4 ? 1 : ReadSizes[sizeIndex % 7];
    switch (op) {
    case Op::Read:
    case Op::ReadInternal:
        return {size > 4 ? request::BlockRead : request::Read, emptyFrame(reply::ReadData),
                [=](Connection& connection) {
                    std::vector<unsigned char> buffer(size_t(size), 0);
                    return connection.genericRead(ReadAddress, internal, buffer.data(), size);
                }};
    case Op::Write:
        return {request::Write, writeAck(),
                [](Connection& connection) { return connection.write32(ReadAddress, 0x12345678); }};
    case Op::Status:
        return {request::Status, statusReply(1), [](Connection& connection) {
                    unsigned char status = 0;
                    return connection.getStatus(&status);
                }};
    case Op::Ping:
        return {request::Ping, pingReply(), &Connection::ping};
    case Op::Break:
        return {request::Break, pxproto::completion(), &Connection::comBreak};
    case Op::Reconnect:
        return {request::ForceReconnect, pxproto::completion(), &Connection::forcePellixReconnect};
    default:
        return {0, QByteArray(), [](Connection&) { return 0u; }};
    }
}

} // namespace fuzzpeer

#endif
