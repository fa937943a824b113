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

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace {

constexpr int Workers = 16;
constexpr int Rounds = robust::Sanitized ? 8 : 40;
constexpr unsigned int EventRegister = 0xFFFFFF00u;
constexpr unsigned char FlowBase = 0x40;
// Sizes and start offsets that give 8-, 16-, 32-bit and block reads and writes.
constexpr int Sizes[] = {1, 2, 3, 4, 5, 7, 8, 13, 64, 333, 4096, 40000};
constexpr int Offsets[] = {0, 1, 2, 3};

unsigned int rangeBase(int worker)
{
    return 0x01000000u + unsigned(worker) * 0x00100000u;
}

unsigned char patternByte(int worker, int round, int i)
{
    return static_cast<unsigned char>(worker * 37 + round * 11 + i * 7 + (i >> 8));
}

// Takes events and bypass packets until told to stop and the queues are empty.
struct Consumers
{
    Consumers(std::vector<PXConnection*> connections, int perConnection)
    {
        for (PXConnection* connection : connections) {
            for (int i = 0; i < perConnection; ++i) {
                threads.emplace_back([this, connection, i] {
                    for (;;) {
                        const bool last = stop.load();
                        bool took = false;
                        if (i % 2 == 0) {
                            unsigned int event = 0;
                            if (connection->waitEvent(&event, 20) == 0) {
                                std::lock_guard<std::mutex> lock(mutex);
                                ++events[event];
                                took = true;
                            }
                        } else {
                            unsigned char flow = 0;
                            unsigned char buffer[64];
                            int length = 0;
                            const unsigned int r = connection->waitBypassPacket(
                                &flow, buffer, int(sizeof buffer), &length, 20);
                            if (r == 0) {
                                std::lock_guard<std::mutex> lock(mutex);
                                bypass.insert(
                                    std::string(reinterpret_cast<char*>(buffer), size_t(length)));
                                ++bypassCount;
                                took = true;
                            }
                        }
                        if (last && !took)
                            return;
                    }
                });
            }
        }
    }
    void finish()
    {
        stop.store(true);
        for (auto& t : threads)
            t.join();
        threads.clear();
    }
    ~Consumers() { finish(); }

    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    std::mutex mutex;
    std::map<unsigned int, int> events;
    std::set<std::string> bypass;
    int bypassCount = 0;
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
    std::vector<unsigned char> written(65536);
    std::vector<unsigned char> read(65536);
    for (int round = 0; round < Rounds; ++round) {
        const int size = Sizes[(worker + round) % std::size(Sizes)];
        const unsigned int address =
            rangeBase(worker) + unsigned(Offsets[(worker * 3 + round) % std::size(Offsets)]);
        for (int i = 0; i < size; ++i)
            written[size_t(i)] = patternByte(worker, round, i);
        if (connection.writeBlock(address, reinterpret_cast<unsigned int*>(written.data()), size) !=
            0)
            ++out.failedCalls;
        std::fill(read.begin(), read.begin() + size, 0);
        if (connection.readBlock(address, read.data(), size) != 0)
            ++out.failedCalls;
        else if (!std::equal(written.begin(), written.begin() + size, read.begin()))
            ++out.mismatches;

        switch (round % 4) {
        case 0: {
            unsigned char status = 0;
            if (connection.getStatus(&status) != 0 || status == 0)
                ++out.failedCalls;
            break;
        }
        case 1:
            if (connection.ping() != 0)
                ++out.failedCalls;
            break;
        case 2: {
            // A 32-bit write to the event register raises the event with that identifier.
            const unsigned int id = (unsigned(worker) << 16) | unsigned(round);
            if (connection.write32(EventRegister, id) != 0)
                ++out.failedCalls;
            else
                out.raisedEvents.push_back(id);
            break;
        }
        default: {
            unsigned char data[8];
            for (int i = 0; i < 8; ++i)
                data[i] = patternByte(worker, round, i);
            data[0] = static_cast<unsigned char>(worker);
            data[1] = static_cast<unsigned char>(round);
            if (connection.sendBypassPacket(flow, data, 8) != 0) {
                ++out.failedCalls;
            } else {
                // The echo's data as getBypass... delivers it whole: inner header, data,
                // checksum.
                std::string packet;
                packet += char(0xAD);
                packet += char(0);
                packet += char(9);
                packet += char(flow);
                packet.append(reinterpret_cast<char*>(data), 8);
                unsigned char sum = flow;
                for (unsigned char b : data)
                    sum ^= b;
                packet += char(sum);
                out.sentBypass.push_back(packet);
            }
            break;
        }
        }
    }
}

// Every connection that enabled events gets every event: `listeners` copies of each.
void checkDelivery(Consumers& consumers, const std::vector<WorkerResult>& results, int listeners)
{
    std::map<unsigned int, int> raised;
    std::set<std::string> sent;
    size_t sentCount = 0;
    for (const WorkerResult& r : results) {
        EXPECT_EQ(r.mismatches, 0);
        EXPECT_EQ(r.failedCalls, 0);
        for (unsigned int id : r.raisedEvents)
            raised[id] += listeners;
        sent.insert(r.sentBypass.begin(), r.sentBypass.end());
        sentCount += r.sentBypass.size();
    }
    EXPECT_EQ(consumers.events, raised);
    EXPECT_EQ(consumers.bypass, sent);
    EXPECT_EQ(size_t(consumers.bypassCount), sentCount);
}

} // namespace

// 16 workers on one connection, two consumers taking events and bypass packets meanwhile.
TEST(Stress, SixteenThreadsOneConnection)
{
    SimulatorProcess simulator;
    ASSERT_TRUE(simulator.isListening());
    PXConnection connection;
    ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), simulator.port()));
    ASSERT_EQ(connection.enableEvents(true), 0u);
    unsigned char flow = FlowBase;
    ASSERT_EQ(connection.setBypassFlowIds(&flow, 1), 0u);

    std::vector<WorkerResult> results(Workers);
    {
        Consumers consumers({&connection}, 2);
        std::vector<std::thread> workers;
        for (int w = 0; w < Workers; ++w)
            workers.emplace_back([&, w] { work(connection, w, flow, results[size_t(w)]); });
        for (auto& t : workers)
            t.join();
        // Arrivals in flight when the workers stop are in once a ping round trip is done.
        ASSERT_EQ(connection.ping(), 0u);
        consumers.finish();
        checkDelivery(consumers, results, 1);
    }
}

// 16 workers on eight connections (two each), each connection with its own bypass flow and
// its own consumers; every connection enables events and so gets every event.
TEST(Stress, SixteenThreadsEightConnections)
{
    SimulatorProcess simulator;
    ASSERT_TRUE(simulator.isListening());
    std::vector<std::unique_ptr<PXConnection>> connections;
    std::vector<PXConnection*> raw;
    for (int i = 0; i < 8; ++i) {
        connections.push_back(std::make_unique<PXConnection>());
        ASSERT_TRUE(connections.back()->open(QStringLiteral("127.0.0.1"), simulator.port()));
        unsigned char flow = static_cast<unsigned char>(FlowBase + i);
        ASSERT_EQ(connections.back()->setBypassFlowIds(&flow, 1), 0u);
        ASSERT_EQ(connections.back()->enableEvents(true), 0u);
        raw.push_back(connections.back().get());
    }

    std::vector<WorkerResult> results(Workers);
    {
        Consumers consumers(raw, 2);
        std::vector<std::thread> workers;
        for (int w = 0; w < Workers; ++w)
            workers.emplace_back([&, w] {
                work(*raw[size_t(w / 2)], w, static_cast<unsigned char>(FlowBase + w / 2),
                     results[size_t(w)]);
            });
        for (auto& t : workers)
            t.join();
        for (PXConnection* c : raw)
            ASSERT_EQ(c->ping(), 0u);
        consumers.finish();
        checkDelivery(consumers, results, 8);
    }
}
