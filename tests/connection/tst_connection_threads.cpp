// PXConnection used from several threads at once: waiters and consumers of the queues,
// destruction while the server sends, the manager's creation. Run under ThreadSanitizer.
// (Mixed requests from many threads on one and on several connections:
// tests/robustness/tst_stress.)

#include "FakeServer.h"
#include "WaitUntil.h"

#include "pellix/connection/PXClientManager.h"
#include "pellix/connection/PXConnection.h"
#include "pellix/protocol/PXFrames_p.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <set>
#include <thread>
#include <vector>

namespace {

struct Opened
{
    Opened() { EXPECT_TRUE(connection.open("127.0.0.1", server.port())); }

    FakeServer server;
    PXConnection connection;
};

// Callback user data: calls, and calls after `destroyed` was set.
struct Watch
{
    std::atomic<int> calls{0}, lateCalls{0};
    std::atomic<bool> destroyed{false};
};

void watch(void* data)
{
    auto* w = static_cast<Watch*>(data);
    ++w->calls;
    w->lateCalls += w->destroyed.load() ? 1 : 0;
}

} // namespace

// The manager is made once even when the first calls race (its creation is hand-locked).
TEST(ConnectionThreads, InstanceRaceGivesOneManager)
{
    std::vector<std::thread> threads;
    std::vector<PXClientManager*> seen(8, nullptr);
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&seen, i] { seen[size_t(i)] = PXClientManager::Instance(); });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), seen[0]), 8);
    EXPECT_TRUE(seen[0]->isRunning());
}

// Each arriving event wakes one waiter: with wake-all, the waiters that lose the race would
// return 19 (which would show among the results).
TEST(ConnectionThreads, EachEventWakesOneWaiter)
{
    Opened o;
    o.connection.enableEvents(true);
    std::vector<std::future<unsigned int>> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.push_back(std::async(std::launch::async, [&] {
            unsigned int event = 0;
            const unsigned int result = o.connection.waitEvent(&event, 20000);
            return result == 0 ? event : result;
        }));
    for (int i = 0; i < 4; ++i)
        o.server.sendLater(pxproto::event(0x100 + quint32(i)), 100 * (i + 1));
    std::multiset<unsigned int> got;
    for (auto& waiter : waiters)
        got.insert(waiter.get());
    EXPECT_EQ(got, (std::multiset<unsigned int>{0x100, 0x101, 0x102, 0x103}));
}

// A consumer that polls the bypass queue races a waiter: the packet is taken exactly once,
// and a waiter that loses does not wait again (one wait, not repeated until its time-out).
TEST(ConnectionThreads, ConsumerRacingAWaiter)
{
    Opened o;
    unsigned char ids[] = {0x21};
    o.connection.setBypassFlowIds(ids, 1);
    for (int round = 0; round < 5; ++round) {
        std::atomic<bool> stop{false};
        std::atomic<int> popped{0};
        std::thread consumer([&] {
            unsigned char flow, buffer[16];
            int length;
            // Yields between polls: a loop that retakes dataMutex at once can starve the
            // network thread, which needs the same mutex to queue the packet.
            for (; !stop.load(); std::this_thread::yield())
                popped += o.connection.getBypassPacket(&flow, buffer, 16, &length) == 0;
        });
        unsigned char flow, buffer[16];
        int length = -1;
        o.server.sendLater(pxproto::bypassFrame(pxproto::debugPacket(0x21, "z", 1)), 50);
        QElapsedTimer clock;
        clock.start();
        const unsigned int result = o.connection.waitBypassPacket(&flow, buffer, 16, &length, 8000);
        const qint64 waited = clock.elapsed();
        if (result != 0)
            waitUntil([&] { return popped.load() > 0; });
        stop = true;
        consumer.join();
        EXPECT_TRUE(result == 0 || result == 8) << result;
        EXPECT_EQ((result == 0 ? 1 : 0) + popped.load(), 1);
        EXPECT_LT(waited, 5000);
    }
}

// Destroying a connection while the server floods it: the destructor returns only after the
// dispatch in progress, and no callback of the destroyed connection runs afterwards, the
// delayed one included (a second connection's later delayed call marks when it would have).
TEST(ConnectionThreads, DestroyWhileServerSends)
{
    FakeServer server;
    Watch dying, witnessed;
    unsigned char ids[] = {0x21};
    auto* connection = new PXConnection;
    ASSERT_TRUE(connection->open("127.0.0.1", server.port()));
    connection->enableEvents(true);
    connection->setEventCallback(watch, &dying);
    connection->setBypassFlowIds(ids, 1);
    connection->setBypassDelayCallback(watch, &dying, 30);
    QByteArray flood;
    for (int i = 0; i < 20000; ++i)
        flood += pxproto::event(quint32(i));
    server.send(flood + pxproto::bypassFrame(pxproto::debugPacket(0x21, "q", 1)));
    waitUntil([&] { return dying.calls.load() > 0; });
    delete connection;
    dying.destroyed = true;
    const int atDestruction = dying.calls.load();

    PXConnection witness;
    ASSERT_TRUE(witness.open("127.0.0.1", server.port()));
    ASSERT_TRUE(server.waitForConnections(2)); // so that "the most recent client" is the witness
    witness.setBypassFlowIds(ids, 1);
    witness.setBypassDelayCallback(watch, &witnessed, 100);
    server.send(pxproto::bypassFrame(pxproto::debugPacket(0x21, "w", 1)));
    EXPECT_TRUE(waitUntil([&] { return witnessed.calls.load() == 1; }));
    EXPECT_EQ(dying.lateCalls.load(), 0);
    EXPECT_EQ(dying.calls.load(), atDestruction);
}
