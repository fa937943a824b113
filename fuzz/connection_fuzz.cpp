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

#include <atomic>
#include <cstdint>
#include <thread>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using fuzzpeer::fail;
    if (size < 3 || size > 60000)
        return 0;
    const char op = "RIWSPC"[data[0] % 6];
    const int setup = data[1];
    const int drainSize = data[2] % 40;
    const QByteArray stream(reinterpret_cast<const char*>(data + 3), int(size - 3));
    static std::atomic<bool> connectionAlive{false};
    const auto countCall = [](void*) {
        if (!connectionAlive.load())
            fail("a callback of a destroyed connection");
    };

    auto* connection = new PXConnection;
    connectionAlive.store(true);
    if (!connection->open(QStringLiteral("127.0.0.1"), fuzzpeer::listener().port()))
        fail("open");
    fuzzpeer::Peer peer;
    if (setup & 1)
        connection->enableEvents(true);
    unsigned char bypassIds[] = {0x21, 0x22};
    if (setup & 2)
        connection->setBypassFlowIds(bypassIds, 2);
    if (setup & 4) {
        connection->setEventCallback(countCall, nullptr);
        connection->setBypassCallback(countCall, nullptr);
    }
    if (setup & 8)
        connection->setBypassDelayCallback(countCall, nullptr, 1);

    // The request, on a thread of its own; the server answers once it has seen it.
    const auto request = fuzzpeer::request<PXConnection>(op, setup >> 4);
    unsigned int result = 99;
    std::thread requester([&] { result = request.call(*connection); });
    const QDeadlineTimer deadline(3000);
    if (!peer.waitForFrame(request.flow, true))
        fail("request never reached the server");
    peer.send(stream);
    peer.send(fuzzpeer::completion(stream) + request.terminator);
    requester.join();
    fuzzpeer::checkEnded(deadline, result, false);

    // Drain the queues with a small buffer, taking bypass packets in turn in each way.
    unsigned char buffer[40], flowId = 0;
    int length = 0;
    unsigned int event = 0;
    for (int taken = 0; connection->popEvent(&event) == 0;)
        if (++taken > 1001)
            fail("event queue above its cap");
    for (int round = 0, taken = 0;; ++round) {
        unsigned int r =
            round % 3 == 0   ? connection->getBypassPacket(&flowId, buffer, drainSize, &length)
            : round % 3 == 1 ? connection->getBypassData(buffer, drainSize, &length)
                             : connection->waitBypassPacket(&flowId, buffer, drainSize, &length, 0);
        if (round % 3 == 1 && r == 5) // too small: take it whole, or as a cut packet
            r = length <= int(sizeof buffer)
                    ? connection->getBypassData(buffer, int(sizeof buffer), &length)
                    : connection->getBypassPacket(&flowId, buffer, drainSize, &length);
        if (r == 8 && length == 0) {
            if (connection->getBypassData(buffer, 0, &length) == 8)
                break; // empty (a short stored packet also gives 8: go on)
            continue;
        }
        if (length < 0 || length > int(sizeof buffer))
            fail("bypass length out of range");
        if (++taken > 1001)
            fail("bypass queue above its cap");
    }
    peer.close(true); // before the connection goes
    delete connection;
    connectionAlive.store(false);
    return 0;
}
