// The simulator's handling of arbitrary client bytes, in-process: a fresh PXSimServer per
// input on the fuzzing thread's event loop, and a plain socket as its client. The input
// (after one byte that picks the frame size) is written as the client's stream, followed by
// the bytes that complete any partial frame and a ping. The client reads until every ping
// is answered, the end of the connection (a kill request) or 1 MiB of replies (a huge block read),
// and checks that everything the server says is a well-formed reply frame.

#include "FuzzPeer.h"

#include "front/PXServer.h"
#include "target/PXSimTarget.h"

#include <QDeadlineTimer>

#include <cstdint>
#include <cstring>

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
    int pings = 0, pingReplies = 0;
    for (const QByteArray& frame : fuzzpeer::frames(stream))
        pings +=
            pxproto::flowId(frame) == pxproto::request::Ping && pxproto::payloadLength(frame) == 0;

    auto* target = new PXSimTarget(options.eventRegister);
    auto* server = new PXServer(options, *target);
    QString error;
    if (!server->listen(&error))
        fail("listen");

    fuzzpeer::Peer client(server->serverPort());
    PXParser replies(PXParser::ServerFrames);
    qint64 written = 0, received = 0;
    bool ended = false, answered = false;
    const QDeadlineTimer deadline(5000);
    while (!answered && !ended && received < ReplyLimit) {
        if (deadline.hasExpired())
            fail("no answer to the final ping");
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        written = client.send(stream, written, false);
        QByteArray bytes;
        ended = !client.receive(bytes, false);
        received += bytes.size();
        replies.feedData(bytes);
        if (!replies.logs().isEmpty())
            fail("bytes outside reply frames");
        for (;;) {
            const QByteArray& frame = replies.getPacket(false);
            if (!replies.logs().isEmpty())
                fail("bytes between reply frames");
            if (frame.isEmpty())
                break;
            const unsigned char flow = pxproto::flowId(frame);
            if (!std::memchr(ReplyFlows, flow, sizeof ReplyFlows))
                fail("a frame of a flow the server never sends");
            if (flow == pxproto::reply::ReadData && pxproto::payloadLength(frame) <= 4)
                fail("a read-data frame without data");
            if (flow == pxproto::reply::Ping && ++pingReplies == pings)
                answered = true;
        }
    }

    // Leave with a reset in the middle of whatever the server is still producing.
    client.close(true);
    for (int i = 0; i < 3; ++i)
        QCoreApplication::processEvents();
    delete server;
    delete target;
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
