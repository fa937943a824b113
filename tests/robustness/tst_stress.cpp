// Many threads on PXConnection against the real simulator, with consumers taking events and
// bypass packets at the same time. Each worker owns an address range and writes, then reads
// back, patterns that name the worker and the round, with sizes and alignments that exercise
// every way a block is cut, so a reply matched to the wrong request shows as wrong data.
// Every raised event and every echoed bypass packet must reach a consumer exactly once: the
// totals stay below the queue caps, so the rules drop nothing. Built for ThreadSanitizer;
// the ctest time-out bounds a deadlock.

#include "RobustnessSupport.h"
#include "SimulatorProcess.h"

#include "pellix/connection/PXConnection.h"
#include "pellix/protocol/PXProtocol.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace {

constexpr int Workers = 16;
constexpr int Rounds = robust::Sanitized ? 8 : 40;
constexpr unsigned int EventRegister = 0xFFFFFF00u;
constexpr unsigned char FlowBase = 0x40;
// Sizes that, with start offsets 0 to 3, give 8-, 16-, 32-bit and block reads and writes.
constexpr int Sizes[] = {1, 2, 3, 4, 5, 7, 8, 13, 64, 333, 4096, 40000};
unsigned char patternByte(int worker, int round, int i)
{
    return static_cast<unsigned char>(worker * 37 + round * 11 + i * 7 + (i >> 8));
}

// Per connection one thread taking events and one taking bypass packets, until told to stop
// and the queues are empty.
struct Consumers
{
    explicit Consumers(std::vector<PXConnection>& connections)
    {
        for (PXConnection& c : connections)
            for (int kind = 0; kind < 2; ++kind)
                threads.emplace_back([this, connection = &c, kind] {
                    for (bool took = true, last = false; took || !last;) {
                        last = stop.load();
                        unsigned int event = 0;
                        unsigned char flow = 0, buffer[64];
                        int length = 0;
                        took = kind == 0 ? connection->waitEvent(&event, 20) == 0
                                         : connection->waitBypassPacket(
                                               &flow, buffer, int(sizeof buffer), &length, 20) == 0;
                        std::lock_guard<std::mutex> lock(mutex);
                        if (took && kind == 0)
                            events.insert(event);
                        else if (took)
                            bypass.emplace(reinterpret_cast<char*>(buffer), size_t(length));
                    }
                });
    }
    ~Consumers() { finish(); }
    void finish()
    {
        stop.store(true);
        for (auto& t : threads)
            t.join();
        threads.clear();
    }

    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    std::mutex mutex;
    std::multiset<unsigned int> events;
    std::multiset<std::string> bypass;
};

// The memory, query, event and bypass work of one worker; failures are counted, not thrown,
// because they happen on worker threads.
struct WorkerResult
{
    int mismatches = 0;
    int failedCalls = 0;
    std::vector<unsigned int> raisedEvents;
    std::vector<std::string> sentBypass;
};

void work(PXConnection& connection, int worker, unsigned char flow, WorkerResult& out)
{
    std::vector<unsigned char> written(65536), read(65536);
    for (int round = 0; round < Rounds; ++round) {
        const int size = Sizes[(worker + round) % std::size(Sizes)];
        // Each worker has its own 1 MiB; start offsets 0 to 3.
        const unsigned int address =
            0x01000000u + unsigned(worker) * 0x00100000u + unsigned((worker * 3 + round) % 4);
        for (int i = 0; i < size; ++i)
            written[size_t(i)] = patternByte(worker, round, i);
        std::fill(read.begin(), read.begin() + size, 0);
        if (connection.writeBlock(address, reinterpret_cast<unsigned int*>(written.data()), size) ||
            connection.readBlock(address, read.data(), size))
            ++out.failedCalls;
        else if (!std::equal(written.begin(), written.begin() + size, read.begin()))
            ++out.mismatches;

        unsigned char status = 0;
        // A 32-bit write to the event register raises the event with that identifier.
        const unsigned int id = (unsigned(worker) << 16) | unsigned(round);
        unsigned char data[8] = {static_cast<unsigned char>(worker),
                                 static_cast<unsigned char>(round)};
        for (int i = 2; i < 8; ++i)
            data[i] = patternByte(worker, round, i);
        // The echo as getBypass... delivers it whole: inner header, data, checksum.
        const QByteArray packet = pxproto::debugPacket(flow, data, 8);
        switch (round % 4) {
        case 0:
            out.failedCalls += connection.getStatus(&status) != 0 || status == 0;
            break;
        case 1:
            out.failedCalls += connection.ping() != 0;
            break;
        case 2:
            if (connection.write32(EventRegister, id) != 0)
                ++out.failedCalls;
            else
                out.raisedEvents.push_back(id);
            break;
        default:
            if (connection.sendBypassPacket(flow, data, 8) != 0)
                ++out.failedCalls;
            else
                out.sentBypass.emplace_back(packet.constData(), size_t(packet.size()));
        }
    }
}

// Every connection that enabled events gets every event: `listeners` copies of each.
void checkDelivery(Consumers& consumers, const std::vector<WorkerResult>& results, int listeners)
{
    std::multiset<unsigned int> raised;
    std::multiset<std::string> sent;
    for (const WorkerResult& r : results) {
        EXPECT_EQ(r.mismatches, 0);
        EXPECT_EQ(r.failedCalls, 0);
        for (int i = 0; i < listeners; ++i)
            raised.insert(r.raisedEvents.begin(), r.raisedEvents.end());
        sent.insert(r.sentBypass.begin(), r.sentBypass.end());
    }
    EXPECT_EQ(consumers.events, raised);
    EXPECT_EQ(consumers.bypass, sent);
}

} // namespace

// 16 workers on one connection, and on eight connections (two workers each, each connection
// with its own bypass flow); two consumers per connection take events and bypass packets
// meanwhile. Every connection enables events and so gets every event.
class Stress : public ::testing::TestWithParam<int>
{};

TEST_P(Stress, SixteenThreads)
{
    const int count = GetParam();
    SimulatorProcess simulator;
    ASSERT_TRUE(simulator.isListening());
    std::vector<PXConnection> connections(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        PXConnection& c = connections[size_t(i)];
        unsigned char flow = static_cast<unsigned char>(FlowBase + i);
        ASSERT_TRUE(c.open(QStringLiteral("127.0.0.1"), simulator.port()));
        ASSERT_EQ(c.setBypassFlowIds(&flow, 1) + c.enableEvents(true), 0u);
    }
    std::vector<WorkerResult> results(Workers);
    Consumers consumers(connections);
    std::vector<std::thread> workers;
    for (int w = 0; w < Workers; ++w) {
        const int i = w * count / Workers;
        workers.emplace_back([&, w, i] {
            work(connections[size_t(i)], w, static_cast<unsigned char>(FlowBase + i),
                 results[size_t(w)]);
        });
    }
    for (auto& t : workers)
        t.join();
    // Arrivals in flight when the workers stop are in once a ping round trip is done.
    for (PXConnection& c : connections)
        ASSERT_EQ(c.ping(), 0u);
    consumers.finish();
    checkDelivery(consumers, results, count);
}

INSTANTIATE_TEST_SUITE_P(Connections, Stress, ::testing::Values(1, 8),
                         [](const ::testing::TestParamInfo<int>& p) {
                             return std::string(p.param == 1 ? "OneConnection"
                                                             : "EightConnections");
                         });
