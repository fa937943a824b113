// Latency of single calls of every client beside the sleeping raw client: read32, write32,
// ping, a bypass round trip, one 32 KiB read, and read32 against a server that answers 1 ms
// late (what waiting costs in processor time when replies are slow).

#include "SuiteClients.h"

#include <QByteArray>
#include <QCoreApplication>

#include <atomic>
#include <chrono>
#include <thread>

using namespace suite;

namespace {

void read32Raw(benchmark::State& state)
{
    RawClient raw;
    unsigned int value = 0;
    timeCalls(state, "Read32/Raw", [&] { raw.read(LatencyAddress, &value, 4); });
}

void read32Connection(benchmark::State& state)
{
    PXConnection& c = connection();
    unsigned int value = 0;
    timeCalls(state, "Read32/Connection",
              [&] { check(state, c.read32(LatencyAddress, &value), "read32"); });
}

void read32NS(benchmark::State& state)
{
    PXNSConnection& c = nsConnection();
    unsigned int value = 0;
    timeCalls(state, "Read32/NSConnection",
              [&] { check(state, c.read32(LatencyAddress, &value), "read32"); });
}

void read32Api(benchmark::State& state)
{
    const int h = apiHandle();
    unsigned int value = 0;
    timeCalls(state, "Read32/CApi",
              [&] { check(state, PXST_Read32(h, LatencyAddress, &value), "read32"); });
}

// Against a server that answers 1 ms late: the library should then sleep while it waits
// rather than look for the reply (compare cpu_us with the raw client's).
void read32SlowRaw(benchmark::State& state)
{
    RawClient raw(slowSimulatorPort());
    unsigned int value = 0;
    timeCalls(state, "Read32/Raw/SlowServer", [&] { raw.read(LatencyAddress, &value, 4); });
}

void read32SlowConnection(benchmark::State& state)
{
    static PXConnection* c = [] {
        auto* created = new PXConnection;
        if (!created->open(QStringLiteral("127.0.0.1"), slowSimulatorPort()))
            std::abort();
        return created;
    }();
    unsigned int value = 0;
    timeCalls(state, "Read32/Connection/SlowServer",
              [&] { check(state, c->read32(LatencyAddress, &value), "read32"); });
}

void write32Raw(benchmark::State& state)
{
    RawClient raw;
    const unsigned int value = 0x12345678;
    timeCalls(state, "Write32/Raw", [&] { raw.write(LatencyAddress, &value, 4); });
}

void write32Connection(benchmark::State& state)
{
    PXConnection& c = connection();
    timeCalls(state, "Write32/Connection",
              [&] { check(state, c.write32(LatencyAddress, 0x12345678), "write32"); });
}

// PXNSConnection does not wait for write acknowledgements: this is the cost of handing the
// frame to the socket, not a round trip.
void write32NS(benchmark::State& state)
{
    PXNSConnection& c = nsConnection();
    timeCalls(state, "Write32/NSConnection",
              [&] { check(state, c.write32(LatencyAddress, 0x12345678), "write32"); });
    // Let the acknowledgements of the unacknowledged writes arrive before the next benchmark.
    c.ping();
}

void write32Api(benchmark::State& state)
{
    const int h = apiHandle();
    timeCalls(state, "Write32/CApi",
              [&] { check(state, PXST_Write32(h, LatencyAddress, 0x12345678), "write32"); });
}

void pingRaw(benchmark::State& state)
{
    RawClient raw;
    timeCalls(state, "Ping/Raw", [&] { raw.ping(); });
}

void pingConnection(benchmark::State& state)
{
    PXConnection& c = connection();
    timeCalls(state, "Ping/Connection", [&] { check(state, c.ping(), "ping"); });
}

void pingNS(benchmark::State& state)
{
    PXNSConnection& c = nsConnection();
    timeCalls(state, "Ping/NSConnection", [&] { check(state, c.ping(), "ping"); });
}

void pingApi(benchmark::State& state)
{
    const int h = apiHandle();
    timeCalls(state, "Ping/CApi", [&] { check(state, PXST_Ping(h), "ping"); });
}

constexpr int BypassSize = 32;

void bypassRaw(benchmark::State& state)
{
    RawClient raw;
    const unsigned char flows[] = {BypassFlow};
    raw.send(pxproto::setBypassFlowIds(flows, 1));
    unsigned char data[BypassSize] = {1, 2, 3};
    timeCalls(state, "Bypass/Raw", [&] {
        raw.send(pxproto::bypassSend(BypassFlow, data, BypassSize));
        raw.nextOf(pxproto::reply::Bypass);
    });
}

void bypassConnection(benchmark::State& state)
{
    PXConnection c;
    if (!c.open(QStringLiteral("127.0.0.1"), simulatorPort()))
        return state.SkipWithError("open failed");
    unsigned char flows[] = {BypassFlow};
    c.setBypassFlowIds(flows, 1);
    unsigned char data[BypassSize] = {1, 2, 3};
    unsigned char buffer[256];
    unsigned char flow = 0;
    int length = 0;
    timeCalls(state, "Bypass/Connection", [&] {
        c.sendBypassPacket(BypassFlow, data, BypassSize);
        check(state, c.waitBypassPacket(&flow, buffer, sizeof buffer, &length, 5000), "no echo");
    });
}

void bypassNS(benchmark::State& state)
{
    PXNSConnection c;
    if (!c.open(QStringLiteral("127.0.0.1"), simulatorPort()))
        return state.SkipWithError("open failed");
    unsigned char flows[] = {BypassFlow};
    c.setBypassFlowIds(flows, 1);
    int arrived = 0;
    QObject::connect(&c, &PXNSConnection::bypassArrived, [&] { ++arrived; });
    unsigned char data[BypassSize] = {1, 2, 3};
    timeCalls(state, "Bypass/NSConnection", [&] {
        const int target = arrived + 1;
        c.sendBypassPacket(BypassFlow, data, BypassSize);
        while (arrived < target)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    });
}

void bypassApi(benchmark::State& state)
{
    int h = 0;
    if (PXST_OpenSocket("127.0.0.1", simulatorPort(), &h) != PXST_RESULT_OK)
        return state.SkipWithError("open failed");
    unsigned char flows[] = {BypassFlow};
    PXST_BypassEnable(h, flows, 1);
    unsigned char data[BypassSize] = {1, 2, 3};
    unsigned char buffer[256];
    unsigned char flow = 0;
    int length = 0;
    timeCalls(state, "Bypass/CApi", [&] {
        PXST_BypassSendPacket(h, BypassFlow, data, BypassSize);
        check(state, PXST_BypassWaitPacket(h, &flow, buffer, sizeof buffer, &length, 5000),
              "no echo");
    });
    PXST_Close(h);
}

// One 32 KiB read (one request, eight reply frames): the latency of a block request, whose
// median and p99 show how steady the block throughput is.
void read32KiBRaw(benchmark::State& state)
{
    RawClient raw;
    std::vector<unsigned char> buffer(pxproto::MaxBlockChunk);
    timeCalls(state, "Read32KiB/Raw",
              [&] { raw.read(DataAddress, buffer.data(), pxproto::MaxBlockChunk); });
}

void read32KiBConnection(benchmark::State& state)
{
    PXConnection& c = connection();
    std::vector<unsigned char> buffer(pxproto::MaxBlockChunk);
    timeCalls(state, "Read32KiB/Connection", [&] {
        check(state, c.readBlock(DataAddress, buffer.data(), pxproto::MaxBlockChunk), "readBlock");
    });
}

} // namespace

void suite::registerLatency()
{
    latency("Read32/Raw", read32Raw);
    latency("Read32/Connection", read32Connection);
    latency("Read32/NSConnection", read32NS);
    latency("Read32/CApi", read32Api);
    latency("Read32/Raw/SlowServer", read32SlowRaw);
    latency("Read32/Connection/SlowServer", read32SlowConnection);
    latency("Write32/Raw", write32Raw);
    latency("Write32/Connection", write32Connection);
    latency("Write32/NSConnection", write32NS);
    latency("Write32/CApi", write32Api);
    latency("Ping/Raw", pingRaw);
    latency("Ping/Connection", pingConnection);
    latency("Ping/NSConnection", pingNS);
    latency("Ping/CApi", pingApi);
    latency("Bypass/Raw", bypassRaw);
    latency("Bypass/Connection", bypassConnection);
    latency("Bypass/NSConnection", bypassNS);
    latency("Bypass/CApi", bypassApi);

    latency("Read32KiB/Raw", read32KiBRaw);
    latency("Read32KiB/Connection", read32KiBConnection);
}
