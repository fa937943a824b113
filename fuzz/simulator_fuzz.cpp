// The simulator's handling of arbitrary client bytes, in-process: a fresh PXSimServer per
// input on the fuzzing thread's event loop, and a plain socket as its client. The input
// (after one byte that picks the frame size) is written as the client's stream, followed by
// the bytes that complete any partial frame and a ping. The client reads until every ping
// is answered, the end of the connection (a kill request) or 1 MiB of replies (a huge block read),
// and checks that everything the server says is a well-formed reply frame.

#include "FuzzPeer.h"

#include "front/PXServer.h"
#include "target/PXSimTarget.h"

#include <QElapsedTimer>

#include <fcntl.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace {

constexpr int FrameSizes[] = {PXServerOptions::DefaultFrameSize, 1, 7, 65531};
constexpr qint64 ReplyLimit = 1 << 20;
constexpr unsigned char ReplyFlows[] = {pxproto::reply::Ping,       pxproto::reply::Status,
                                        pxproto::reply::Completion, pxproto::reply::Event,
                                        pxproto::reply::WriteAck,   pxproto::reply::ReadData,
                                        pxproto::reply::Bypass};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 200000)
        return 0;
    using fuzzpeer::fail;
    fuzzpeer::ensureApplication();
    PXServerOptions options;
    options.frameSize = FrameSizes[data[0] % 4];
    const QByteArray input(reinterpret_cast<const char*>(data + 1), int(size - 1));
    const QByteArray stream = input + fuzzpeer::completion(input) + pxproto::ping();

    // Every ping without payload is answered, the last one only after everything before it.
    int pings = 0;
    fuzzpeer::forEachFrame(stream, [&pings](const QByteArray& frame) {
        pings +=
            pxproto::flowId(frame) == pxproto::request::Ping && pxproto::payloadLength(frame) == 0;
    });
    int pingReplies = 0;

    auto* target = new PXSimTarget(options.eventRegister);
    auto* server = new PXServer(options, *target);
    QString error;
    if (!server->listen(&error))
        fail("listen");

    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = fuzzpeer::loopback(server->serverPort());
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail("connect");
    ::fcntl(fd, F_SETFL, O_NONBLOCK);

    PXParser replies(PXParser::ServerFrames);
    qint64 written = 0, received = 0;
    bool ended = false, answered = false;
    QElapsedTimer clock;
    clock.start();
    while (!answered && !ended && received < ReplyLimit) {
        if (clock.elapsed() > 5000)
            fail("no answer to the final ping");
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        if (written < stream.size()) {
            const ssize_t n = ::send(fd, stream.constData() + written,
                                     size_t(stream.size() - written), MSG_NOSIGNAL);
            if (n > 0)
                written += n;
            else if (n < 0 && errno != EAGAIN && errno != EINTR)
                ended = true;
        }
        unsigned char bytes[65536];
        for (;;) {
            const ssize_t n = fuzzpeer::retry([&] { return ::read(fd, bytes, sizeof bytes); });
            if (n == 0 || (n < 0 && errno != EAGAIN))
                ended = true;
            if (n <= 0)
                break;
            received += n;
            replies.feedData(bytes, int(n));
            if (!replies.logs().isEmpty())
                fail("bytes outside reply frames");
            for (;;) {
                const QByteArray& frame = replies.getPacket(false);
                if (!replies.logs().isEmpty())
                    fail("bytes between reply frames");
                if (frame.isEmpty())
                    break;
                const unsigned char flow = pxproto::flowId(frame);
                if (std::find(std::begin(ReplyFlows), std::end(ReplyFlows), flow) ==
                    std::end(ReplyFlows))
                    fail("a frame of a flow the server never sends");
                if (flow == pxproto::reply::ReadData && pxproto::payloadLength(frame) <= 4)
                    fail("a read-data frame without data");
                if (flow == pxproto::reply::Ping && ++pingReplies == pings)
                    answered = true;
            }
        }
    }

    // Leave with a reset in the middle of whatever the server is still producing.
    linger off{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &off, sizeof off);
    ::close(fd);
    for (int i = 0; i < 3; ++i)
        QCoreApplication::processEvents();
    delete server;
    delete target;
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
