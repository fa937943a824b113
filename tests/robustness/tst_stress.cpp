// Many threads on PXConnection against the real simulator, and open/close churn. Built for
// ThreadSanitizer; the ctest time-out bounds a deadlock.

#include "SimulatorProcess.h"
#include "WaitUntil.h"

#include "pellix/connection/PXConnection.h"
#include "pellix/nsconnection/PXNSConnection.h"
#include "pellix/protocol/PXFrames_p.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PELLIX_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define PELLIX_SANITIZED
#endif
#endif
#ifdef PELLIX_SANITIZED
constexpr int Rounds = 8, Cycles = 300;
#else
constexpr int Rounds = 40, Cycles = 2000;
#endif

constexpr int Workers = 16;
constexpr unsigned int EventRegister = 0xFFFFFF00u;
constexpr unsigned char FlowBase = 0x40;
// Sizes that, with start offsets 0 to 3, give 8-, 16-, 32-bit and block reads and writes.
constexpr int Sizes[] = {1, 2, 3, 4, 5, 7, 8, 13, 64, 333, 4096, 40000};

int countEntries(const char* folder)
{
    return int(std::distance(std::filesystem::directory_iterator(folder), {}));
}

using Stress = ::testing::TestWithParam<int>;

} // namespace

// 16 workers on one connection, and on eight connections (two workers each, each connection
// with its own bypass flow); two consumers per connection take events and bypass packets
// meanwhile. Every connection enables events and so gets every event; every echo reaches a
// consumer exactly once (the totals stay below the queue caps, so nothing is dropped).
TEST_P(Stress, SixteenThreads)
{
    const int count = GetParam();
    SimulatorProcess simulator;
    ASSERT_TRUE(simulator.isListening());
    std::vector<PXConnection> connections(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        unsigned char flow = static_cast<unsigned char>(FlowBase + i);
        PXConnection& c = connections[size_t(i)];
        ASSERT_TRUE(c.open(QStringLiteral("127.0.0.1"), simulator.port()));
        ASSERT_EQ(c.setBypassFlowIds(&flow, 1) + c.enableEvents(true), 0u);
    }
    // Per connection one thread taking events and one taking bypass packets, until told to
    // stop and the queues are empty; what they take goes to `taken` (events as "E<id>"), what
    // the workers send to `expected`.
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::multiset<std::string> taken, expected;
    std::vector<std::thread> consumers;
    for (PXConnection& c : connections)
        for (const bool events : {true, false})
            consumers.emplace_back([&, events] {
                for (bool took = true, last = false; took || !last;) {
                    last = stop.load();
                    unsigned int event = 0;
                    unsigned char flow = 0, buffer[64];
                    int length = 0;
                    took = events ? c.waitEvent(&event, 20) == 0
                                  : c.waitBypassPacket(&flow, buffer, 64, &length, 20) == 0;
                    std::lock_guard<std::mutex> lock(mutex);
                    if (took)
                        taken.insert(
                            events ? "E" + std::to_string(event)
                                   : std::string(reinterpret_cast<char*>(buffer), size_t(length)));
                }
            });
    // Each worker owns 1 MiB and writes, then reads back, patterns that name the worker and
    // the round, with start offsets 0 to 3, so a reply matched to the wrong request shows as
    // wrong data. Then a status query, a ping, an event raised through the event register, and
    // a bypass packet. Failures are counted, not thrown, because they happen on workers.
    std::atomic<int> failures{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < Workers; ++w)
        workers.emplace_back([&, w] {
            PXConnection& c = connections[size_t(w * count / Workers)];
            const auto flow = static_cast<unsigned char>(FlowBase + w * count / Workers);
            std::vector<unsigned char> written(65536), read(65536);
            for (int round = 0; round < Rounds; ++round) {
                const int size = Sizes[(w + round) % std::size(Sizes)];
                const unsigned int address =
                    0x01000000u + unsigned(w) * 0x00100000u + unsigned((w * 3 + round) % 4);
                for (int i = 0; i < size; ++i)
                    written[size_t(i)] =
                        static_cast<unsigned char>(w * 37 + round * 11 + i * 7 + (i >> 8));
                // No need to clear `read`: what earlier rounds left there differs from every
                // byte of this round's pattern (round * 11 changes each byte).
                failures +=
                    c.writeBlock(address, reinterpret_cast<unsigned int*>(written.data()), size) ||
                    c.readBlock(address, read.data(), size) ||
                    !std::equal(written.begin(), written.begin() + size, read.begin());
                unsigned char status = 0;
                unsigned int id = (unsigned(w) << 16) | unsigned(round); // event and packet data
                failures += c.getStatus(&status) || status == 0 || c.ping() ||
                            c.write32(EventRegister, id) ||
                            c.sendBypassPacket(flow, reinterpret_cast<unsigned char*>(&id), 4);
                // Every event reaches every connection; every echo comes back whole (inner
                // header, data, checksum) on the connection that chose its flow.
                const QByteArray packet = pxproto::debugPacket(flow, &id, 4);
                std::lock_guard<std::mutex> lock(mutex);
                for (int i = 0; i < count; ++i)
                    expected.insert("E" + std::to_string(id));
                expected.emplace(packet.constData(), size_t(packet.size()));
            }
        });
    for (auto& t : workers)
        t.join();
    // Arrivals in flight when the workers stop are in once a ping round trip is done.
    for (PXConnection& c : connections)
        EXPECT_EQ(c.ping(), 0u);
    stop.store(true);
    for (auto& t : consumers)
        t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(taken, expected);
}

INSTANTIATE_TEST_SUITE_P(Connections, Stress, ::testing::Values(1, 8), [](const auto& p) {
    return std::string(p.param == 1 ? "OneConnection" : "EightConnections");
});

// Open/close churn. PXConnection opened, used and destroyed from four threads at once: under
// ThreadSanitizer this guards the hand-off of a detached socket to the network thread for
// deletion (a posted event of the library's own, not QObject::deleteLater(), whose event
// QtCore allocates on the closing thread unseen by the sanitizer). Then on the main thread
// PXConnection with callbacks set (the delayed one too), some reopened before they go, some
// opens failing; and PXNSConnection: events raised and signalled (or dropped with the object),
// a request, close or destroy. Afterwards the process has as many threads and descriptors as
// before (the network thread, made once, is in the baseline); LeakSanitizer checks at exit.
TEST(Churn, ConnectionsComeAndGo)
{
    SimulatorProcess simulator;
    ASSERT_TRUE(simulator.isListening());
    const QString host = QStringLiteral("127.0.0.1");
    {
        // Warm up: the network thread and its application object exist from here on.
        PXConnection first;
        PXNSConnection second(nullptr);
        ASSERT_TRUE(first.open(host, simulator.port()) && second.open(host, simulator.port()));
        ASSERT_EQ(first.ping() + second.ping(), 0u);
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    const int threads = countEntries("/proc/self/task");
    const int fds = countEntries("/proc/self/fd");
    std::atomic<int> failures{0};
    std::vector<std::thread> churners;
    for (int t = 0; t < 4; ++t)
        churners.emplace_back([&] {
            for (int i = 0; i < Cycles / 4; ++i) {
                PXConnection connection;
                failures += !connection.open(host, simulator.port()) || connection.ping() != 0;
            }
        });
    for (auto& t : churners)
        t.join();
    int arrivals = 0;
    for (int i = 0; i < Cycles; ++i) {
        auto* connection = new PXConnection;
        unsigned int value = 0;
        bool ok = connection->open(host, simulator.port());
        connection->setEventCallback([](void*) {}, nullptr);
        connection->setBypassDelayCallback([](void*) {}, nullptr, 1);
        ok = ok && (i % 3 == 0 ? connection->read32(0x100, &value) : connection->ping()) == 0;
        if (i % 10 == 0) // reopen: the old socket and delayed callback are retired
            ok = ok && connection->open(host, simulator.port());
        if (i % 50 == 0) // a failed open leaves no socket behind
            ok = ok && !connection->open(host, 1);
        delete connection;

        auto* ns = new PXNSConnection(nullptr);
        QObject::connect(ns, &PXNSConnection::eventArrived, ns,
                         [&arrivals](qint64, uint32_t) { ++arrivals; });
        ok = ok && ns->open(host, simulator.port());
        if (i % 3 == 0)
            ok = ok && ns->enableEvents(true) == 0 && ns->write32(EventRegister, unsigned(i)) == 0;
        failures += !(ok && ns->ping() == 0);
        if (i % 2 == 1)
            QCoreApplication::processEvents(); // signal what the ping held back
        else
            ns->close();
        delete ns;
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_GT(arrivals, 0);
    // Threads and descriptors settle asynchronously (sockets are deleted on the network
    // thread, or later on this one): poll until they are back, with a deadline.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(waitUntil([&] {
        QCoreApplication::processEvents();
        return countEntries("/proc/self/task") <= threads && countEntries("/proc/self/fd") <= fds;
    })) << "threads "
        << countEntries("/proc/self/task") << " (was " << threads << "), fds "
        << countEntries("/proc/self/fd") << " (was " << fds << ")";
}
