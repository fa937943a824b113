// PXConnection against the simulator, with a raw blocking socket client speaking the same
// frames to the same simulator as the baseline.
//
//   Read32/Write32       round-trip latency; counter median_us is the median of single calls
//   ReadBlock/WriteBlock 1 MiB per iteration; bytes_per_second
//   Events               a burst of events raised by pipelined register writes on a second
//                        socket; taken with waitEvent on another thread, or counted by the
//                        event callback
//   BypassRoundTrip      send, echo, waitBypassPacket

#include "SimulatorProcess.h"

#include "pellix/connection/PXConnection.h"
#include "pellix/protocol/PXParser.h"
#include "pellix/protocol/PXProtocol.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr unsigned int EventRegister = 0xFFFFFF00u;
constexpr int BlockSize = 1 << 20;

SimulatorProcess& simulator()
{
    static SimulatorProcess process;
    return process;
}

PXConnection& connection()
{
    static PXConnection* c = [] {
        auto* created = new PXConnection;
        if (!created->open("127.0.0.1", simulator().port()))
            std::abort();
        return created;
    }();
    return *c;
}

// A blocking client on its own socket, TCP_NODELAY, frames built with pxproto and cut with
// PXParser: the least a client can do per request.
class RawClient
{
public:
    RawClient()
    {
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(simulator().port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
            std::abort();
        inbox.resize(1 << 17);
    }
    ~RawClient() { ::close(fd); }

    void send(const QByteArray& frame)
    {
        const char* p = frame.constData();
        qsizetype left = frame.size();
        while (left > 0) {
            const ssize_t n = ::send(fd, p, size_t(left), 0);
            if (n <= 0)
                std::abort();
            p += n;
            left -= n;
        }
    }

    // The next frame from the server.
    const QByteArray& next()
    {
        for (;;) {
            const QByteArray& frame = parser.getPacket(false);
            if (!frame.isEmpty())
                return frame;
            const ssize_t n = ::recv(fd, inbox.data(), size_t(inbox.size()), 0);
            if (n <= 0)
                std::abort();
            parser.feedData(reinterpret_cast<const unsigned char*>(inbox.constData()), int(n));
        }
    }

    // A read of `size` bytes into `out`, answered by any number of read-data frames.
    void read(quint32 address, unsigned char* out, int size)
    {
        send(pxproto::readRequest(address, false, size));
        int got = 0;
        while (got < size) {
            const QByteArray& frame = next();
            if (pxproto::flowId(frame) != pxproto::reply::ReadData)
                continue;
            const int n = int(frame.size()) - 8;
            std::memcpy(out + got, frame.constData() + 8, size_t(n));
            got += n;
        }
    }

    void write(quint32 address, const void* data, int size)
    {
        send(pxproto::writeRequest(address, false, data, size));
        while (pxproto::flowId(next()) != pxproto::reply::WriteAck) {
        }
    }

    int fd = -1;

private:
    PXParser parser;
    QByteArray inbox;
};

double median(std::vector<double>& values)
{
    if (values.empty())
        return 0;
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

template <typename Call>
void latency(benchmark::State& state, Call call)
{
    std::vector<double> samples;
    samples.reserve(1 << 16);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        call();
        const auto end = std::chrono::steady_clock::now();
        samples.push_back(std::chrono::duration<double, std::micro>(end - start).count());
    }
    state.counters["median_us"] = median(samples);
}

void Read32_Connection(benchmark::State& state)
{
    PXConnection& c = connection();
    unsigned int value = 0;
    latency(state, [&] {
        if (c.read32(0x1000, &value) != 0)
            state.SkipWithError("read32 failed");
    });
}

void Read32_Raw(benchmark::State& state)
{
    RawClient raw;
    unsigned int value = 0;
    latency(state, [&] { raw.read(0x1000, reinterpret_cast<unsigned char*>(&value), 4); });
}

void Write32_Connection(benchmark::State& state)
{
    PXConnection& c = connection();
    latency(state, [&] {
        if (c.write32(0x1000, 0x12345678) != 0)
            state.SkipWithError("write32 failed");
    });
}

void Write32_Raw(benchmark::State& state)
{
    RawClient raw;
    const unsigned int value = 0x12345678;
    latency(state, [&] { raw.write(0x1000, &value, 4); });
}

void ReadBlock_Connection(benchmark::State& state)
{
    PXConnection& c = connection();
    std::vector<unsigned char> buffer(BlockSize);
    for (auto _ : state)
        if (c.readBlock(0x100000, buffer.data(), BlockSize) != 0)
            state.SkipWithError("readBlock failed");
    state.SetBytesProcessed(state.iterations() * BlockSize);
}

void ReadBlock_Raw(benchmark::State& state)
{
    RawClient raw;
    std::vector<unsigned char> buffer(BlockSize);
    for (auto _ : state)
        for (int at = 0; at < BlockSize; at += pxproto::MaxBlockChunk)
            raw.read(0x100000 + quint32(at), buffer.data() + at, pxproto::MaxBlockChunk);
    state.SetBytesProcessed(state.iterations() * BlockSize);
}

void WriteBlock_Connection(benchmark::State& state)
{
    PXConnection& c = connection();
    std::vector<unsigned int> buffer(BlockSize / 4, 0x5A5A5A5A);
    for (auto _ : state)
        if (c.writeBlock(0x100000, buffer.data(), BlockSize) != 0)
            state.SkipWithError("writeBlock failed");
    state.SetBytesProcessed(state.iterations() * BlockSize);
}

void WriteBlock_Raw(benchmark::State& state)
{
    RawClient raw;
    std::vector<unsigned char> buffer(BlockSize, 0x5A);
    for (auto _ : state)
        for (int at = 0; at < BlockSize; at += pxproto::MaxBlockChunk)
            raw.write(0x100000 + quint32(at), buffer.data() + at, pxproto::MaxBlockChunk);
    state.SetBytesProcessed(state.iterations() * BlockSize);
}

// Raises `count` events at once: the writes are pipelined on a raw socket and their
// acknowledgements drained afterwards.
void raiseEvents(RawClient& producer, int count)
{
    QByteArray burst;
    for (int i = 0; i < count; ++i) {
        const unsigned int id = unsigned(i);
        burst += pxproto::writeRequest(EventRegister, false, &id, 4);
    }
    producer.send(burst);
    for (int i = 0; i < count; ++i)
        while (pxproto::flowId(producer.next()) != pxproto::reply::WriteAck) {
        }
}

constexpr int Burst = 1000;

void Events_WaitEvent(benchmark::State& state)
{
    PXConnection events;
    if (!events.open("127.0.0.1", simulator().port()))
        return state.SkipWithError("open failed");
    events.enableEvents(true);
    RawClient producer;
    for (auto _ : state) {
        std::atomic<int> taken{0};
        std::thread consumer([&] {
            unsigned int e;
            while (taken.load() < Burst && events.waitEvent(&e, 5000) == 0)
                ++taken;
        });
        raiseEvents(producer, Burst);
        consumer.join();
        if (taken.load() != Burst)
            state.SkipWithError("events lost");
    }
    state.SetItemsProcessed(state.iterations() * Burst);
}

void Events_Callback(benchmark::State& state)
{
    PXConnection events;
    if (!events.open("127.0.0.1", simulator().port()))
        return state.SkipWithError("open failed");
    std::atomic<int> seen{0};
    events.setEventCallback([](void* p) { ++*static_cast<std::atomic<int>*>(p); }, &seen);
    events.enableEvents(true);
    RawClient producer;
    for (auto _ : state) {
        const int target = seen.load() + Burst;
        raiseEvents(producer, Burst);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (seen.load() < target && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        if (seen.load() < target)
            state.SkipWithError("events lost");
        events.flushEvents();
    }
    state.SetItemsProcessed(state.iterations() * Burst);
}

void BypassRoundTrip(benchmark::State& state)
{
    PXConnection& c = connection();
    unsigned char ids[] = {0x42};
    c.setBypassFlowIds(ids, 1);
    unsigned char data[32] = {1, 2, 3};
    unsigned char buffer[64];
    unsigned char flow;
    int length;
    latency(state, [&] {
        c.sendBypassPacket(0x42, data, 32);
        if (c.waitBypassPacket(&flow, buffer, 64, &length, 5000) != 0)
            state.SkipWithError("no echo");
    });
}

} // namespace

BENCHMARK(Read32_Raw)->UseRealTime();
BENCHMARK(Read32_Connection)->UseRealTime();
BENCHMARK(Write32_Raw)->UseRealTime();
BENCHMARK(Write32_Connection)->UseRealTime();
BENCHMARK(ReadBlock_Raw)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(ReadBlock_Connection)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(WriteBlock_Raw)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(WriteBlock_Connection)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Events_WaitEvent)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Events_Callback)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BypassRoundTrip)->UseRealTime();

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (!simulator().isListening()) {
        std::fprintf(stderr, "the pellix simulator did not start\n");
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
