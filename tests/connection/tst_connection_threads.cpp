// PXConnection used from several threads at once: waiters and consumers of the queues,
// destruction while the server sends, the manager's creation. Run under ThreadSanitizer.
// (Mixed requests from many threads on one and on several connections:
// tests/robustness/tst_stress.)

#include "ConnectionChecks.h"
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

using ConnectionThreads = Connected<PXConnection>;

// The manager is made once even when the first calls race (its creation is hand-locked).
TEST(ClientManagerThreads, InstanceRaceGivesOneManager)
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

// Each arriving event wakes one waiter, long before its 20 s are out: with wake-all, the
// waiters that lose the race would return 19 (which would show among the results).
TEST_F(ConnectionThreads, EachEventWakesOneWaiter)
{
    connection.enableEvents(true);
    QElapsedTimer clock;
    clock.start();
    std::vector<std::future<unsigned int>> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.push_back(std::async(std::launch::async, [&] {
            unsigned int event = 0;
            const unsigned int result = connection.waitEvent(&event, 20000);
            return result == 0 ? event : result;
        }));
    for (int i = 0; i < 4; ++i)
        server.sendLater(pxproto::event(0x100 + quint32(i)), 100 * (i + 1));
    std::multiset<unsigned int> got;
    for (auto& waiter : waiters)
        got.insert(waiter.get());
    EXPECT_EQ(got, (std::multiset<unsigned int>{0x100, 0x101, 0x102, 0x103}));
    EXPECT_LT(clock.elapsed(), 5000);
}

// A consumer that polls the bypass queue races a waiter: the packet is taken exactly once,
// and a waiter that loses does not wait again (one wait, not repeated until its time-out).
TEST_F(ConnectionThreads, ConsumerRacingAWaiter)
{
    unsigned char ids[] = {0x21};
    connection.setBypassFlowIds(ids, 1);
    for (int round = 0; round < 5; ++round) {
        std::atomic<bool> stop{false};
        std::atomic<int> popped{0};
        std::thread consumer([&] {
            unsigned char flow, buffer[16];
            int length;
            // Yields between polls: a loop that retakes dataMutex at once can starve the
            // network thread, which needs the same mutex to queue the packet.
            for (; !stop.load(); std::this_thread::yield())
                popped += connection.getBypassPacket(&flow, buffer, 16, &length) == 0;
        });
        unsigned char flow, buffer[16];
        int length = -1;
        server.sendLater(pxproto::bypassFrame(pxproto::debugPacket(0x21, "z", 1)), 50);
        QElapsedTimer clock;
        clock.start();
        const unsigned int result = connection.waitBypassPacket(&flow, buffer, 16, &length, 8000);
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
TEST_F(ConnectionThreads, DestroyWhileServerSends)
{
    Calls dying, witnessed;
    unsigned char ids[] = {0x21};
    auto* flooded = new PXConnection;
    ASSERT_TRUE(flooded->open("127.0.0.1", server.port()));
    ASSERT_TRUE(server.waitForConnections(2));
    flooded->enableEvents(true);
    flooded->setEventCallback(record, &dying);
    flooded->setBypassFlowIds(ids, 1);
    flooded->setBypassDelayCallback(record, &dying, 30);
    QByteArray flood;
    for (int i = 0; i < 20000; ++i)
        flood += pxproto::event(quint32(i));
    server.send(flood + pxproto::bypassFrame(pxproto::debugPacket(0x21, "q", 1)), 1);
    waitUntil([&] { return dying.count.load() > 0; });
    delete flooded;
    const int atDestruction = dying.count.load();
    // The fixture's connection (client 0) is the witness.
    connection.setBypassFlowIds(ids, 1);
    connection.setBypassDelayCallback(record, &witnessed, 100);
    server.send(pxproto::bypassFrame(pxproto::debugPacket(0x21, "w", 1)), 0);
    EXPECT_TRUE(waitUntil([&] { return witnessed.count.load() == 1; }));
    EXPECT_EQ(dying.count.load(), atDestruction);
}
