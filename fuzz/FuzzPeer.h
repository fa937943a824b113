// Shared by the fuzz targets: failing with a message; the server end of one TCP connection
// for the connection fuzzers (a listening socket on 127.0.0.1, any free port, opened once per
// process, and the accepted peer of each client; plain POSIX sockets, used from the fuzzing
// thread only, with poll() deadlines so that no input can hang the fuzzer), the requests the
// connection fuzzers make, and cutting a stream into frames.

#ifndef PELLIX_FUZZ_FUZZPEER_H
#define PELLIX_FUZZ_FUZZPEER_H

#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXParser.h"

#include <QByteArray>
#include <QCoreApplication>

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
#include <utility>
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
    static char name[] = "fuzz";
    static char* argv[] = {name, nullptr};
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
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    quint16 port = 0;
    Listener()
    {
        sockaddr_in address = loopback(0);
        socklen_t size = sizeof address;
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            ::listen(fd, 16) != 0 ||
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            fail("socket/bind/listen");
        port = ntohs(address.sin_port);
    }
};
inline const Listener& listener()
{
    static const Listener instance;
    return instance;
}

// One accepted client.
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
    ~Peer() { close(true); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // Reads client frames until one with flow id `flow` has come; false after timeoutMs or
    // when the client has closed.
    bool waitForFrame(unsigned char flow, int timeoutMs)
    {
        for (;;) {
            for (QByteArray f = parser.getPacket(false); !f.isEmpty(); f = parser.getPacket(false))
                if (pxproto::flowId(f) == flow)
                    return true;
            pollfd p{fd, POLLIN, 0};
            unsigned char bytes[4096];
            const ssize_t n = retry([&] { return ::poll(&p, 1, timeoutMs); }) == 1
                                  ? retry([&] { return ::read(fd, bytes, sizeof bytes); })
                                  : 0;
            if (n <= 0)
                return false;
            parser.feedData(bytes, int(n));
        }
    }

    // Writes everything (blocking); false when the client has gone.
    bool send(const QByteArray& bytes)
    {
        for (qsizetype done = 0, n = 1; done < bytes.size(); done += n)
            if ((n = retry([&] {
                     return ::send(fd, bytes.constData() + done, size_t(bytes.size() - done),
                                   MSG_NOSIGNAL);
                 })) <= 0)
                return false;
        return true;
    }

    // Closes: orderly (the client sees the end of the stream), or with a reset that leaves no
    // TIME_WAIT entry behind (many inputs per second).
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
        if (buffered == 0)
            break;
        const QByteArray head = parser.buffered();
        const QByteArray zeros((buffered < pxproto::HeaderSize ? 0 : pxproto::payloadLength(head)) +
                                   pxproto::HeaderSize - buffered,
                               '\0');
        parser.feedData(zeros);
        filler += zeros;
    }
    return filler;
}

// The requests of the connection fuzzers: an input byte picks one from the target's list.
enum class Op { Read, ReadInternal, Write, Status, Ping, Break, Reconnect, None };
constexpr unsigned int ReadAddress = 0x1000;

// A request as it reaches the server (flow id 0: none), the reply that ends it at once (a read
// data frame without data fails a read), and the size a read asks for.
struct Request
{
    unsigned char flow;
    QByteArray terminator;
    int readSize;
};

inline Request request(Op op, int sizeIndex)
{
    using namespace pxproto;
    constexpr int ReadSizes[] = {1, 2, 4, 8, 16, 64, 300};
    int size = ReadSizes[sizeIndex % 7];
    if (op == Op::ReadInternal && size <= 4)
        size = 1; // internal single read
    if (op == Op::Read || op == Op::ReadInternal)
        return {size > 4 ? request::BlockRead : request::Read, emptyFrame(reply::ReadData), size};
    // clang-format off
    const std::pair<unsigned char, QByteArray> others[] = { // from Op::Write on
        {request::Write, writeAck()}, {request::Status, statusReply(1)},
        {request::Ping, pingReply()}, {request::Break, pxproto::completion()},
        {request::ForceReconnect, pxproto::completion()}, {0, QByteArray()}};
    // clang-format on
    const auto& [flow, terminator] = others[int(op) - int(Op::Write)];
    return {flow, terminator, size};
}

// Makes the request on a PXConnection or a PXNSConnection; None gives 0.
template <class Connection>
unsigned int perform(Connection& connection, Op op, int readSize)
{
    std::vector<unsigned char> buffer(size_t(readSize), 0);
    unsigned char status = 0;
    switch (op) {
    case Op::Read:
    case Op::ReadInternal:
        return connection.genericRead(ReadAddress, op == Op::ReadInternal, buffer.data(), readSize);
    case Op::Write:
        return connection.write32(ReadAddress, 0x12345678);
    case Op::Status:
        return connection.getStatus(&status);
    case Op::Ping:
        return connection.ping();
    case Op::Break:
        return connection.comBreak();
    case Op::Reconnect:
        return connection.forcePellixReconnect();
    default:
        return 0;
    }
}

// Calls that take sizes, counts and an enumeration value from the caller, with `bytes` (8 of
// them) giving an int from the whole range, negatives included, and a 32-bit flow mode. What
// no frame carries must be refused (6 for bypass lists and packets, 13 for reads and writes)
// without touching memory outside the buffer; what fits is sent (0); 12 is accepted from a
// connection that has been closed.
template <typename Connection>
void hostileCalls(Connection& connection, const uint8_t* bytes)
{
    int value;
    quint32 mode;
    std::memcpy(&value, bytes, sizeof value);
    std::memcpy(&mode, bytes + 4, sizeof mode);
    static std::vector<unsigned char> buffer(pxproto::MaxPayloadLength);
    const auto expect = [](unsigned int result, bool fits, unsigned int refused) {
        if (result != (fits ? 0u : refused) && result != 12)
            fail("a size or count outside what a frame carries was not refused");
    };
    expect(connection.setBypassFlowIds(buffer.data(), value),
           value >= 0 && value <= pxproto::MaxFlowIds, 6);
    expect(connection.sendBypassPacket(0x21, buffer.data(), value),
           value >= 0 && value <= pxproto::MaxBypassData, 6);
    // Sizes that fit would wait for replies the peer does not send: only the refused ones.
    if (value < 0 || value > pxproto::MaxWriteData)
        expect(connection.genericWrite(ReadAddress, false, buffer.data(), value), false, 13);
    if (value < 1)
        expect(connection.genericRead(ReadAddress, false, buffer.data(), value), false, 13);
    expect(connection.setFlowMode(static_cast<PXLFlowMode>(mode)), true, 0);
}

} // namespace fuzzpeer

#endif
