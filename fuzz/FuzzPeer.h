// Shared by the fuzz targets: failing with a message; the ends of TCP connections (for the
// connection fuzzers a listening socket on 127.0.0.1, any free port, opened once per process,
// and the accepted peer of each client; for the simulator fuzzer its client; plain POSIX
// sockets, used from the fuzzing thread only, whose waits end after 3 s so that no input can
// hang the fuzzer), the requests the connection fuzzers make, and cutting a stream into frames.

#ifndef PELLIX_FUZZ_FUZZPEER_H
#define PELLIX_FUZZ_FUZZPEER_H

#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXParser.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDeadlineTimer>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
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

// The complete frames of `stream`, cut as a client cuts the server's bytes; the bytes of a
// partial frame at its end go to `rest`.
inline QList<QByteArray> frames(const QByteArray& stream, QByteArray* rest = nullptr)
{
    PXParser parser(PXParser::ServerFrames);
    parser.feedData(stream);
    QList<QByteArray> all;
    for (QByteArray frame; !(frame = parser.getPacket(false)).isEmpty();)
        all.append(frame);
    if (rest)
        *rest = parser.buffered();
    return all;
}

// `fd` (a new or accepted socket; fails when there is none), its receives (and accepts) given
// up after 3 s and its sends not held back to be merged.
inline int tuned(int fd)
{
    const timeval limit{3, 0};
    const int one = 1;
    if (fd < 0 || ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0)
        fail("socket/accept");
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

// The listening socket of the connection fuzzers, on 127.0.0.1 and any free port.
struct Listener
{
    int fd = tuned(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    Listener()
    {
        socklen_t size = sizeof address;
        if (::bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(fd, 16) != 0 ||
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            fail("bind/listen");
    }
    quint16 port() const { return ntohs(address.sin_port); }
};
// The listener, created on first use.
inline const Listener& listener()
{
    static const Listener instance;
    return instance;
}

// One end of a TCP connection on 127.0.0.1. System calls that libFuzzer's timers interrupt
// (EINTR) are made again.
class Peer
{
public:
    // Without `port`: accepts the connection that a client has just made to the listener (its
    // connect has completed, so the kernel holds it in the backlog). With it: connects to the
    // server listening there.
    explicit Peer(quint16 port = 0)
        : fd(tuned(
              port ? ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)
                   : TEMP_FAILURE_RETRY(::accept4(listener().fd, nullptr, nullptr, SOCK_CLOEXEC))))
    {
        const sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        if (port && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            fail("connect");
    }
    ~Peer() { close(true); }

    // Appends to `bytes` what has come (waiting for it, or not at all); false once the other
    // end has closed.
    bool receive(QByteArray& bytes, bool wait)
    {
        char buffer[65536];
        const ssize_t n =
            TEMP_FAILURE_RETRY(::recv(fd, buffer, sizeof buffer, wait ? 0 : MSG_DONTWAIT));
        bytes.append(buffer, n > 0 ? int(n) : 0);
        return n > 0 || (n < 0 && errno == EAGAIN);
    }

    // Reads frames until one with flow id `flow` has come; false when none has come (in time,
    // or at all without `wait`) or the other end has closed.
    bool waitForFrame(unsigned char flow, bool wait)
    {
        for (QByteArray bytes;; bytes.clear()) {
            for (QByteArray f; !(f = parser.getPacket(false)).isEmpty();)
                if (pxproto::flowId(f) == flow)
                    return true;
            if (!receive(bytes, wait) || bytes.isEmpty())
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
            n = TEMP_FAILURE_RETRY(
                ::send(fd, bytes.constData() + done, size_t(bytes.size() - done), flags));
        return done;
    }

    // Closes: orderly (the other end sees the end of the stream), or with a reset that leaves
    // no TIME_WAIT entry behind (many inputs per second). Once closed, nothing more happens.
    void close(bool reset)
    {
        const linger off{1, 0};
        if (reset)
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &off, sizeof off);
        ::close(fd);
        fd = -1;
    }

private:
    int fd = -1;
    PXParser parser{PXParser::ServerFrames};
};

// Bytes that complete whatever partial frame `stream` leaves at its end (zeros, which cannot
// start a frame of their own; they also complete a partial header), so that a reply written
// after them is cut as a frame of its own.
inline QByteArray completion(const QByteArray& stream)
{
    QByteArray partial;
    frames(stream, &partial);
    const QByteArray header = partial + QByteArray(pxproto::HeaderSize, '\0');
    const int frameSize = pxproto::payloadLength(header) + pxproto::HeaderSize;
    return QByteArray(partial.isEmpty() ? 0 : frameSize - int(partial.size()), '\0');
}

// Fails unless a request ended before `deadline` (3 s after it was made) with 0, 13 or (when
// `closedEnds`) 12: the reply sent after the input ends it, so a request that waited out its
// time-out missed a frame.
inline void checkEnded(const QDeadlineTimer& deadline, unsigned int result, bool closedEnds)
{
    if (deadline.hasExpired())
        fail("request waited for its time-out");
    if (result != 0 && result != 13 && !(closedEnds && result == 12))
        fail("unexpected result code");
}

constexpr unsigned int ReadAddress = 0x1000;

// A request of a connection fuzzer on a PXConnection or a PXNSConnection: its flow id as it
// reaches the server (0: none), the reply that ends it at once (a read data frame without data
// fails a read), and the call.
template <class Connection>
struct Request
{
    unsigned char flow;
    QByteArray terminator;
    std::function<unsigned int(Connection&)> call;
};

// The request named by `op` (an input byte picks it from the target's list): R read, I internal
// read (both of a size picked by `sizeIndex`), W write, S status, P ping, B break, C forced
// reconnection, anything else none (result 0).
template <class Connection>
Request<Connection> request(char op, int sizeIndex)
{
    using namespace pxproto;
    constexpr int ReadSizes[] = {1, 2, 4, 8, 16, 64, 300};
    const bool internal = op == 'I';
    // An internal read of up to 4 bytes is an internal single read.
    const int size = internal && ReadSizes[sizeIndex % 7] <= 4 ? 1 : ReadSizes[sizeIndex % 7];
    switch (op) {
    case 'R':
    case 'I':
        return {size > 4 ? request::BlockRead : request::Read, emptyFrame(reply::ReadData),
                [=](Connection& connection) {
                    std::vector<unsigned char> buffer(size_t(size), 0);
                    return connection.genericRead(ReadAddress, internal, buffer.data(), size);
                }};
    case 'W':
        return {request::Write, writeAck(),
                [](Connection& connection) { return connection.write32(ReadAddress, 0x12345678); }};
    case 'S':
        return {request::Status, statusReply(1), [](Connection& connection) {
                    unsigned char status = 0;
                    return connection.getStatus(&status);
                }};
    case 'P':
        return {request::Ping, pingReply(), &Connection::ping};
    case 'B':
        return {request::Break, pxproto::completion(), &Connection::comBreak};
    case 'C':
        return {request::ForceReconnect, pxproto::completion(), &Connection::forcePellixReconnect};
    default:
        return {0, QByteArray(), [](Connection&) { return 0u; }};
    }
}

} // namespace fuzzpeer

#endif
