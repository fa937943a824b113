// Scaling: read32 and 1 MiB reads with 1 to 64 connections driven by as many threads through
// the one network thread, and 1 to 16 threads sharing one connection.

#include "SuiteClients.h"

#include <vector>

using namespace suite;

namespace {

// Every thread its own client; latency counters are averaged over the threads, and
// items/s is the sum of calls per second.
void scaleRead32Raw(benchmark::State& state)
{
    RawClient raw;
    unsigned int value = 0;
    timeCalls(state, "Scale/Read32/Raw", [&] { raw.read(LatencyAddress, &value, 4); });
    state.SetItemsProcessed(state.iterations());
}

void scaleRead32Connections(benchmark::State& state)
{
    PXConnection c;
    if (!c.open(QStringLiteral("127.0.0.1"), simulatorPort()))
        return state.SkipWithError("open failed");
    unsigned int value = 0;
    timeCalls(state, "Scale/Read32/Connections",
              [&] { check(state, c.read32(LatencyAddress, &value), "read32"); });
    state.SetItemsProcessed(state.iterations());
}

// Every thread on the one shared connection.
void scaleRead32Shared(benchmark::State& state)
{
    PXConnection& c = connection();
    unsigned int value = 0;
    timeCalls(state, "Scale/Read32/SharedConnection",
              [&] { check(state, c.read32(LatencyAddress, &value), "read32"); });
    state.SetItemsProcessed(state.iterations());
}

void scaleReadBlockRaw(benchmark::State& state)
{
    RawClient raw;
    blocks(state, [&](unsigned int* data, int size) { raw.readBlock(DataAddress, data, size); });
}

void scaleReadBlockConnections(benchmark::State& state)
{
    PXConnection c;
    if (!c.open(QStringLiteral("127.0.0.1"), simulatorPort()))
        return state.SkipWithError("open failed");
    blocks(state, [&](unsigned int* data, int size) {
        check(state, c.readBlock(DataAddress, reinterpret_cast<unsigned char*>(data), size),
              "readBlock");
    });
}

} // namespace

void suite::registerScaling()
{
    const std::vector<int> connections =
        smoke() ? std::vector<int>{1, 4} : std::vector<int>{1, 4, 16, 64};
    const std::vector<int> sharing =
        smoke() ? std::vector<int>{1, 4} : std::vector<int>{1, 2, 4, 8, 16};
    const std::vector<int> blockConnections =
        smoke() ? std::vector<int>{1, 4} : std::vector<int>{1, 4, 16};
    for (int n : connections) {
        latency("Scale/Read32/Raw", scaleRead32Raw)->Threads(n);
        latency("Scale/Read32/Connections", scaleRead32Connections)->Threads(n);
    }
    for (int n : sharing)
        latency("Scale/Read32/SharedConnection", scaleRead32Shared)->Threads(n);
    for (int n : blockConnections) {
        throughput("Scale/ReadBlock/Raw", scaleReadBlockRaw)->Threads(n);
        throughput("Scale/ReadBlock/Connections", scaleReadBlockConnections)->Threads(n);
    }
}
