// PXConnection's dispatch fed arbitrary server bytes while a request is outstanding.
//
// Input: byte 0 picks the request, byte 1 the set-up (events, bypass, callbacks, delayed
// callback), byte 2 the buffer size used to drain the bypass queue; the rest is what the
// server sends once the request has reached it. The server then completes any partial frame
// with zeros and sends the reply that ends the request at once (a reply that fails a read),
// so every input takes milliseconds. Checked: the request ends with 0 or 13, the queues
// never hold more than 1001 entries, drained packets fit their buffers (AddressSanitizer
// watches every copy), no callback runs after the connection is gone.

#include "FuzzPeer.h"

#include "pellix/connection/PXConnection.h"

#include <QElapsedTimer>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

constexpr unsigned int ReadAddress = 0x1000;
constexpr int ReadSizes[] = {1, 2, 4, 8, 16, 64, 300};

std::atomic<int> callbackCalls{0};
std::atomic<bool> connectionAlive{false};

void countCall(void*)
{
    if (!connectionAlive.load())
        std::abort(); // a callback of a destroyed connection
    callbackCalls.fetch_add(1);
}

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "connection fuzz: %s\n", what);
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3 || size > 60000)
        return 0;
    const int kind = data[0] % 6;
    const int setup = data[1];
    const int drainSize = data[2] % 40;
    const QByteArray stream(reinterpret_cast<const char*>(data + 3), int(size - 3));

    int listener = -1;
    const quint16 port = fuzzpeer::listenPort(&listener);
    auto* connection = new PXConnection;
    connectionAlive.store(true);
    if (!connection->open(QStringLiteral("127.0.0.1"), port))
        fail("open");
    {
        fuzzpeer::Peer peer;
        if (setup & 1)
            connection->enableEvents(true);
        if (setup & 2) {
            unsigned char ids[] = {0x21, 0x22};
            connection->setBypassFlowIds(ids, 2);
        }
        if (setup & 4) {
            connection->setEventCallback(countCall, nullptr);
            connection->setBypassCallback(countCall, nullptr);
        }
        if (setup & 8)
            connection->setBypassDelayCallback(countCall, nullptr, 1);

        // The request, on a thread of its own; the server answers once it has seen it.
        unsigned char expectedFlow = 0;
        QByteArray terminator;
        int readSize = ReadSizes[(setup >> 4) % 7];
        std::vector<unsigned char> readBuffer(size_t(readSize), 0);
        switch (kind) {
        case 0:
        case 1:
            expectedFlow = readSize > 4 ? pxproto::request::BlockRead : pxproto::request::Read;
            if (kind == 1 && readSize <= 4)
                readSize = 1; // internal single read
            terminator = pxproto::frame(pxproto::reply::ReadData, nullptr, 0);
            break;
        case 2:
            expectedFlow = pxproto::request::Write;
            terminator = pxproto::writeAck();
            break;
        case 3:
            expectedFlow = pxproto::request::Status;
            terminator = pxproto::statusReply(0);
            break;
        case 4:
            expectedFlow = pxproto::request::Ping;
            terminator = pxproto::pingReply();
            break;
        default:
            expectedFlow = pxproto::request::ForceReconnect;
            terminator = pxproto::completion();
            break;
        }
        unsigned int result = 99;
        std::thread requester([&] {
            unsigned int value = 0x12345678;
            unsigned char status = 0;
            switch (kind) {
            case 0:
                result = connection->genericRead(ReadAddress, false, readBuffer.data(), readSize);
                break;
            case 1:
                result = connection->genericRead(ReadAddress, true, readBuffer.data(), readSize);
                break;
            case 2:
                result = connection->write32(ReadAddress, value);
                break;
            case 3:
                result = connection->getStatus(&status);
                break;
            case 4:
                result = connection->ping();
                break;
            default:
                result = connection->forcePellixReconnect();
                break;
            }
        });
        QElapsedTimer clock;
        clock.start();
        if (!peer.waitForFrame(expectedFlow, 3000))
            fail("request never reached the server");
        peer.send(stream);
        peer.send(fuzzpeer::completion(stream) + terminator);
        requester.join();
        // The terminator ends the request at once; a request that waited out a time-out
        // missed a frame.
        if (clock.elapsed() > 3000)
            fail("request waited for its time-out");
        if (result != 0 && result != 13)
            fail("unexpected result code");

        // Drain the queues with a small buffer.
        unsigned char buffer[40];
        unsigned char flowId = 0;
        int length = 0;
        int taken = 0;
        unsigned int event = 0;
        while (connection->popEvent(&event) == 0)
            if (++taken > 1001)
                fail("event queue above its cap");
        taken = 0;
        for (int round = 0;; ++round) {
            unsigned int r;
            switch (round % 3) {
            case 0:
                r = connection->getBypassPacket(&flowId, buffer, drainSize, &length);
                break;
            case 1:
                r = connection->getBypassData(buffer, drainSize, &length);
                if (r == 5) // too small: take it with the whole buffer, or as a cut packet
                    r = length <= int(sizeof buffer)
                            ? connection->getBypassData(buffer, int(sizeof buffer), &length)
                            : connection->getBypassPacket(&flowId, buffer, drainSize, &length);
                break;
            default:
                r = connection->waitBypassPacket(&flowId, buffer, drainSize, &length, 0);
                break;
            }
            if (r == 8 && length == 0) {
                unsigned char probe[4];
                if (connection->getBypassData(probe, 0, &length) == 8)
                    break; // empty (a short stored packet also gives 8: go on)
                continue;
            }
            if (length < 0 || length > int(sizeof buffer))
                fail("bypass length out of range");
            if (++taken > 1001)
                fail("bypass queue above its cap");
        }
        peer.closeAbort();
    }
    delete connection;
    connectionAlive.store(false);
    return 0;
}
