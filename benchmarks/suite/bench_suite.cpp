// The benchmark suite: every measurement of the library beside its raw-socket baseline, in
// the same run and against the same simulator.
//
// Names are <measurement>/<client>; the clients are
//   Raw           a blocking socket speaking the same frames (SuiteSupport.h): the floor
//   Connection    PXConnection (requests handed to the one network thread)
//   NSConnection  PXNSConnection (its own socket, waits by running the event loop)
//   CApi          the exported C functions on a PXConnection handle
//
//   Read32, Write32, Ping, Bypass   latency; counters median_us and p99_us over single calls
//   ReadBlock, WriteBlock           1 MiB per iteration in requests of 32 KiB; bytes/s
//   MaskedRead/all, /runs           64 KiB through PXST_ReadBlockMasked: a full mask, and 16
//                                   of every 64 bytes; Raw sends the same requests
//   Events/*                        bursts of 1000 events raised by pipelined writes on a raw
//                                   producer socket, taken by callback, waitEvent or signal;
//                                   Raw counts the event frames on a socket of its own
//   LoadVerify16MiB                 PXST_LoadLod with verification of a 16 MiB LOD image;
//                                   Raw writes and reads back the same bytes
//   Parser/frame:N/source:M         PXParser on 9-byte and 4 KiB frames in 64 KiB pieces, from
//                                   one hot 64 KiB buffer or a 4 MiB stream
//   LodParse                        LOD_NextLodPacket over a LOD file, bytes/s of text
//   Paired/*                        raw and library calls alternated in one loop, ratio of the
//                                   medians (see paired())
//   Scale/*                         read32 and 1 MiB reads with 1-64 connections driven by
//                                   as many threads, and 1-16 threads on one connection
//
// PELLIX_BENCH_SMOKE=1 shrinks the data sets (the CI smoke run). PELLIX_BENCH_SAMPLES=<file>
// writes every latency sample as CSV for scripts/plot_latency.py.

#include "SuiteSupport.h"

#include "pellix/api/PXLLibraryApi.h"
#include "pellix/connection/PXConnection.h"
#include "pellix/lod/LODFileLoader.h"
#include "pellix/nsconnection/PXNSConnection.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace suite;

namespace {

// ---- the library clients, opened once ------------------------------------------------------

PXConnection* openConnection(unsigned short port)
{
    auto* created = new PXConnection;
    if (!created->open(QStringLiteral("127.0.0.1"), port))
        std::abort();
    return created;
}

PXConnection& connection()
{
    static PXConnection* c = openConnection(simulatorPort());
    return *c;
}

// Lives on the main thread, where single-threaded benchmarks run.
PXNSConnection* openNSConnection(unsigned short port)
{
    auto* created = new PXNSConnection;
    if (!created->open(QStringLiteral("127.0.0.1"), port))
        std::abort();
    return created;
}

PXNSConnection& nsConnection()
{
    static PXNSConnection* c = openNSConnection(simulatorPort());
    return *c;
}

int openHandle(unsigned short port)
{
    int h = 0;
    if (PXST_OpenSocket("127.0.0.1", port, &h) != PXST_RESULT_OK)
        std::abort();
    return h;
}

int apiHandle()
{
    static const int handle = openHandle(simulatorPort());
    return handle;
}

// The three library clients of the paired benchmarks, on the simulator or the fast server.
enum class Client { Connection, NSConnection, CApi };

struct Clients
{
    unsigned short port;
    PXConnection* connection;
    PXNSConnection* ns;
    int handle;
};

Clients& clients(bool fast)
{
    static Clients simulator{simulatorPort(), &connection(), &nsConnection(), apiHandle()};
    if (!fast)
        return simulator;
    static Clients server{fastServerPort(), openConnection(fastServerPort()),
                          openNSConnection(fastServerPort()), openHandle(fastServerPort())};
    return server;
}

void check(benchmark::State& state, unsigned int result, const char* what)
{
    if (result != 0)
        state.SkipWithError(what);
}

// ---- latency --------------------------------------------------------------------------------

constexpr unsigned int LatencyAddress = 0x1000;

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

// ---- block throughput -------------------------------------------------------------------------

template <typename Transfer>
void blocks(benchmark::State& state, Transfer transfer)
{
    const int size = blockSize();
    std::vector<unsigned int> buffer(size_t(size) / 4, 0x5A5A5A5Au);
    for (auto _ : state)
        transfer(buffer.data(), size);
    state.SetBytesProcessed(int64_t(state.iterations()) * size);
}

void readBlockRaw(benchmark::State& state)
{
    RawClient raw;
    blocks(state, [&](unsigned int* data, int size) { raw.readBlock(DataAddress, data, size); });
}

void readBlockConnection(benchmark::State& state)
{
    PXConnection& c = connection();
    blocks(state, [&](unsigned int* data, int size) {
        check(state, c.readBlock(DataAddress, reinterpret_cast<unsigned char*>(data), size),
              "readBlock");
    });
}

void readBlockNS(benchmark::State& state)
{
    PXNSConnection& c = nsConnection();
    blocks(state, [&](unsigned int* data, int size) {
        check(state, c.readBlock(DataAddress, reinterpret_cast<unsigned char*>(data), size),
              "readBlock");
    });
}

void readBlockApi(benchmark::State& state)
{
    const int h = apiHandle();
    blocks(state, [&](unsigned int* data, int size) {
        check(state, PXST_ReadBlock(h, DataAddress, data, unsigned(size)), "readBlock");
    });
}

void writeBlockRaw(benchmark::State& state)
{
    RawClient raw;
    blocks(state, [&](unsigned int* data, int size) { raw.writeBlock(DataAddress, data, size); });
}

void writeBlockConnection(benchmark::State& state)
{
    PXConnection& c = connection();
    blocks(state, [&](unsigned int* data, int size) {
        check(state, c.writeBlock(DataAddress, data, size), "writeBlock");
    });
}

// PXNSConnection does not wait for acknowledgements; the ping after the block makes the time
// cover the server's taking of every byte.
void writeBlockNS(benchmark::State& state)
{
    PXNSConnection& c = nsConnection();
    blocks(state, [&](unsigned int* data, int size) {
        check(state, c.writeBlock(DataAddress, data, size), "writeBlock");
        check(state, c.ping(), "ping");
    });
}

void writeBlockApi(benchmark::State& state)
{
    const int h = apiHandle();
    blocks(state, [&](unsigned int* data, int size) {
        check(state, PXST_WriteBlock(h, DataAddress, data, unsigned(size)), "writeBlock");
    });
}

// ---- masked reads ------------------------------------------------------------------------------

constexpr int MaskRun = 16;
constexpr int MaskPeriod = 64;

int maskedSize()
{
    return smoke() ? 4096 : 65536;
}

// Full mask: the whole range is one run, which PXST_ReadBlockMasked reads with one block read
// request (no 32 KiB cut). Runs: MaskRun selected bytes of every MaskPeriod, each run one
// 16-byte block read.
std::vector<unsigned char> mask(bool full)
{
    std::vector<unsigned char> m(size_t(maskedSize()), 0xFF);
    if (!full)
        for (size_t i = 0; i < m.size(); ++i)
            m[i] = i % MaskPeriod < MaskRun ? 0xFF : 0x00;
    return m;
}

void maskedRaw(benchmark::State& state, bool full)
{
    RawClient raw;
    std::vector<unsigned char> buffer(static_cast<size_t>(maskedSize()));
    for (auto _ : state) {
        if (full) {
            raw.read(DataAddress, buffer.data(), maskedSize());
            continue;
        }
        std::memset(buffer.data(), 0, buffer.size());
        for (int at = 0; at < maskedSize(); at += MaskPeriod)
            raw.read(DataAddress + unsigned(at), buffer.data() + at, MaskRun);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * maskedSize());
}

void maskedApi(benchmark::State& state, bool full)
{
    const int h = apiHandle();
    std::vector<unsigned char> m = mask(full);
    std::vector<unsigned char> buffer(m.size());
    for (auto _ : state)
        check(state,
              PXST_ReadBlockMasked(h, DataAddress, buffer.data(), unsigned(m.size()), m.data()),
              "masked read");
    state.SetBytesProcessed(int64_t(state.iterations()) * maskedSize());
}

// ---- events
// --------------------------------------------------------------------------------------

// Raises a burst per iteration and waits (yielding) until `seen` has grown by the burst.
void eventBursts(benchmark::State& state, const std::atomic<int>& seen,
                 const std::function<void()>& afterBurst = {})
{
    RawClient producer;
    const int burst = eventBurst();
    for (auto _ : state) {
        const int target = seen.load() + burst;
        raiseEvents(producer, burst);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (seen.load() < target && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        if (seen.load() < target)
            return state.SkipWithError("events lost");
        if (afterBurst) {
            state.PauseTiming();
            afterBurst();
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * burst);
}

// A raw socket that asked for events; a thread counts the event frames it receives.
void eventsRaw(benchmark::State& state)
{
    RawClient consumer;
    consumer.send(pxproto::enableEvents(true));
    consumer.ping(); // the server has taken the request
    std::atomic<int> seen{0};
    std::atomic<bool> stop{false};
    std::thread counter([&] {
        while (!stop.load()) {
            const QByteArray& frame = consumer.next();
            if (pxproto::flowId(frame) == pxproto::reply::Event)
                seen.fetch_add(1, std::memory_order_relaxed);
        }
    });
    eventBursts(state, seen);
    // Wake the counter with one last frame so that it sees the stop flag.
    stop.store(true);
    RawClient waker;
    const unsigned int id = 0;
    waker.write(EventRegister, &id, 4);
    counter.join();
}

void countEvent(void* seen)
{
    static_cast<std::atomic<int>*>(seen)->fetch_add(1, std::memory_order_relaxed);
}

void eventsConnectionCallback(benchmark::State& state)
{
    PXConnection c;
    if (!c.open(QStringLiteral("127.0.0.1"), simulatorPort()))
        return state.SkipWithError("open failed");
    std::atomic<int> seen{0};
    c.setEventCallback(countEvent, &seen);
    c.enableEvents(true);
    c.ping();
    eventBursts(state, seen, [&] { c.flushEvents(); });
}

void eventsConnectionWait(benchmark::State& state)
{
    PXConnection c;
    if (!c.open(QStringLiteral("127.0.0.1"), simulatorPort()))
        return state.SkipWithError("open failed");
    c.enableEvents(true);
    c.ping();
    std::atomic<int> seen{0};
    std::atomic<bool> stop{false};
    std::thread consumer([&] {
        unsigned int event = 0;
        while (!stop.load())
            if (c.waitEvent(&event, 50) == 0)
                seen.fetch_add(1, std::memory_order_relaxed);
    });
    eventBursts(state, seen);
    stop.store(true);
    consumer.join();
}

void eventsApiCallback(benchmark::State& state)
{
    int h = 0;
    if (PXST_OpenSocket("127.0.0.1", simulatorPort(), &h) != PXST_RESULT_OK)
        return state.SkipWithError("open failed");
    std::atomic<int> seen{0};
    PXST_EventSetCallback(h, countEvent, &seen);
    PXST_EnableEvents(h, 1);
    PXST_Ping(h);
    eventBursts(state, seen, [&] { PXST_FlushEvents(h); });
    PXST_Close(h);
}

// The signal is counted on the main thread: the burst is raised first (the events wait in the
// socket), then the event loop runs until every signal came.
void eventsNS(benchmark::State& state)
{
    PXNSConnection c;
    if (!c.open(QStringLiteral("127.0.0.1"), simulatorPort()))
        return state.SkipWithError("open failed");
    int seen = 0;
    QObject::connect(&c, &PXNSConnection::eventArrived, [&] { ++seen; });
    c.enableEvents(true);
    c.ping();
    RawClient producer;
    const int burst = eventBurst();
    for (auto _ : state) {
        const int target = seen + burst;
        raiseEvents(producer, burst);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (seen < target && std::chrono::steady_clock::now() < deadline)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        if (seen < target)
            return state.SkipWithError("events lost");
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * burst);
}

// One burst reaches every socket that asked for events, so a raw receiver and the library see
// the same burst under the same load. Each side notes the moment its count reaches the end of
// the burst; the ratio is raw time over library time (the library's rate as a share of raw).
struct BurstClock
{
    std::atomic<int> seen{0};
    std::atomic<int> target{0};
    std::atomic<int64_t> doneAt{0};

    void count()
    {
        if (seen.fetch_add(1, std::memory_order_relaxed) + 1 ==
            target.load(std::memory_order_relaxed))
            doneAt.store(std::chrono::steady_clock::now().time_since_epoch().count(),
                         std::memory_order_release);
    }
};

void countBurst(void* clock)
{
    static_cast<BurstClock*>(clock)->count();
}

void pairedEvents(benchmark::State& state, bool api)
{
    BurstClock raw;
    BurstClock lib;
    RawClient consumer;
    consumer.send(pxproto::enableEvents(true));
    consumer.ping();
    std::atomic<bool> stop{false};
    std::thread counter([&] {
        while (!stop.load()) {
            const QByteArray& frame = consumer.next();
            if (pxproto::flowId(frame) == pxproto::reply::Event)
                raw.count();
        }
    });
    PXConnection c;
    int h = 0;
    if (api) {
        if (PXST_OpenSocket("127.0.0.1", simulatorPort(), &h) != PXST_RESULT_OK)
            std::abort();
        PXST_EventSetCallback(h, countBurst, &lib);
        PXST_EnableEvents(h, 1);
        PXST_Ping(h);
    } else {
        if (!c.open(QStringLiteral("127.0.0.1"), simulatorPort()))
            std::abort();
        c.setEventCallback(countBurst, &lib);
        c.enableEvents(true);
        c.ping();
    }
    RawClient producer;
    const int burst = eventBurst();
    std::vector<double> rawUs;
    std::vector<double> libUs;
    for (auto _ : state) {
        raw.doneAt.store(0);
        lib.doneAt.store(0);
        raw.target.store(raw.seen.load() + burst);
        lib.target.store(lib.seen.load() + burst);
        const auto start = std::chrono::steady_clock::now();
        raiseEvents(producer, burst);
        const auto deadline = start + std::chrono::seconds(5);
        while ((raw.doneAt.load(std::memory_order_acquire) == 0 ||
                lib.doneAt.load(std::memory_order_acquire) == 0) &&
               std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        if (raw.doneAt.load() == 0 || lib.doneAt.load() == 0) {
            state.SkipWithError("events lost");
            break;
        }
        const auto since = [&](int64_t at) {
            return double(at - start.time_since_epoch().count()) / 1000.0;
        };
        rawUs.push_back(since(raw.doneAt.load()));
        libUs.push_back(since(lib.doneAt.load()));
        state.PauseTiming();
        if (api)
            PXST_FlushEvents(h);
        else
            c.flushEvents();
        state.ResumeTiming();
    }
    stop.store(true);
    RawClient waker;
    const unsigned int id = 0;
    waker.write(EventRegister, &id, 4);
    counter.join();
    if (api)
        PXST_Close(h);
    const auto median = [](std::vector<double>& v) {
        if (v.empty())
            return 0.0;
        std::nth_element(v.begin(), v.begin() + long(v.size() / 2), v.end());
        return v[v.size() / 2];
    };
    const double r = median(rawUs);
    const double l = median(libUs);
    state.counters["raw_us"] = r;
    state.counters["lib_us"] = l;
    if (r > 0 && l > 0)
        state.counters["ratio"] = r / l;
    state.SetItemsProcessed(int64_t(state.iterations()) * burst);
}

// ---- LOD load with verification ------------------------------------------------------------

constexpr unsigned int ImageAddress = 0x01000000u;

struct LodImage
{
    QTemporaryDir dir;
    QByteArray path;
    std::vector<unsigned int> words;

    LodImage() : words(size_t(smoke() ? 256u << 10 : 16u << 20) / 4)
    {
        for (size_t i = 0; i < words.size(); ++i)
            words[i] = unsigned(i) * 2654435761u;
        path = dir.filePath(QStringLiteral("image.lod")).toLocal8Bit();
        FILE* file = std::fopen(path.constData(), "wb");
        if (!file)
            std::abort();
        std::fprintf(file, "@%08X\n", ImageAddress);
        for (unsigned int word : words)
            std::fprintf(file, "%08X\n", word);
        std::fclose(file);
    }
    int bytes() const { return int(words.size() * 4); }
};

LodImage& lodImage()
{
    static LodImage image;
    return image;
}

// The polling raw client: the faster floor for a transfer of this size.
void loadVerifyRaw(benchmark::State& state)
{
    LodImage& image = lodImage();
    RawClient raw(RawClient::Wait::Poll);
    std::vector<unsigned int> back(image.words.size());
    for (auto _ : state) {
        raw.writeBlock(ImageAddress, image.words.data(), image.bytes());
        raw.readBlock(ImageAddress, back.data(), image.bytes());
        if (back != image.words)
            return state.SkipWithError("read-back differs");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * image.bytes());
}

void loadVerifyApi(benchmark::State& state)
{
    LodImage& image = lodImage();
    const int h = apiHandle();
    for (auto _ : state) {
        unsigned int failed = 0;
        check(state, PXST_LoadLod(h, image.path.constData(), 1, &failed), "load");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * image.bytes());
}

// ---- parser and LOD reader
// -----------------------------------------------------------------------

// Cuts 4 MiB of read-data frames per iteration, fed in pieces of at most 64 KiB (whole frames,
// so that a piece can be fed again). source:65536 feeds the same 64 KiB again and again, as a
// socket loop that reads into one receive buffer does (the bytes are in cache); source:4194304
// walks a 4 MiB stream, which comes from memory.
void parser(benchmark::State& state)
{
    const int frameSize = int(state.range(0));
    const int sourceSize = smoke() ? std::min(int(state.range(1)), 256 << 10) : int(state.range(1));
    const int perIteration = smoke() ? 256 << 10 : 4 << 20;
    const int piece = (64 << 10) / frameSize * frameSize;
    const QByteArray data(frameSize - 8, '\x5A');
    const QByteArray frame = pxproto::readData(0x1000, data.constData(), int(data.size()));
    QByteArray source;
    while (source.size() + piece <= sourceSize)
        for (int i = 0; i < piece / frameSize; ++i)
            source += frame;
    const auto* bytes = reinterpret_cast<const unsigned char*>(source.constData());
    const int size = int(source.size());
    PXParser p(PXParser::ServerFrames);
    int64_t frames = 0;
    int64_t fed = 0;
    int at = 0;
    for (auto _ : state) {
        for (int done = 0; done < perIteration; done += piece) {
            p.feedData(bytes + at, piece);
            at = at + piece < size ? at + piece : 0;
            for (;;) {
                const QByteArray& packet = p.getPacket(false);
                if (packet.isEmpty())
                    break;
                benchmark::DoNotOptimize(packet.constData());
                ++frames;
            }
            fed += piece;
        }
    }
    if (frames != fed / frameSize)
        state.SkipWithError("frames lost");
    state.SetItemsProcessed(frames);
    state.SetBytesProcessed(fed);
}

struct LodText
{
    QTemporaryDir dir;
    std::string path;
    long bytes = 0;

    // Packets of 4096 random words with a comment line each, as a dump writes them.
    LodText()
    {
        path = dir.filePath(QStringLiteral("parse.lod")).toStdString();
        FILE* file = std::fopen(path.c_str(), "wb");
        if (!file)
            std::abort();
        constexpr unsigned int Words = 4096;
        const long target = smoke() ? 1L << 20 : 32L << 20;
        std::mt19937 random(1);
        LodPacket* packet = LOD_AllocateLodPacket(0, Words);
        unsigned int address = 0x10000000;
        while (bytes < target) {
            packet->address = address;
            for (unsigned int i = 0; i < Words; ++i)
                packet->words[i] = uint32_t(random());
            std::fputs("# block\n", file);
            LOD_DumpPacketLodFormat(file, packet);
            bytes = std::ftell(file);
            address += 4 * Words;
        }
        LOD_FreeLodPacket(packet);
        std::fclose(file);
    }
};

void lodParse(benchmark::State& state)
{
    static LodText text;
    for (auto _ : state) {
        LodFile* file = LOD_Open(text.path.c_str());
        if (!file)
            return state.SkipWithError("cannot open the LOD file");
        LodPacket* packet = nullptr;
        while (LOD_NextLodPacket(file, &packet) == 0 && packet) {
            benchmark::DoNotOptimize(packet->words[0]);
            LOD_FreeLodPacket(packet);
        }
        LOD_Close(file);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * text.bytes);
}

// ---- scaling ----------------------------------------------------------------------------------

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

// ---- paired: library and raw call by call -------------------------------------------------------

// On a shared machine the load changes from one second to the next, so a library figure and a
// raw figure taken a few seconds apart can differ for reasons of neither. Here every iteration
// times one call of each raw client (sleeping and polling) and one library call back to back,
// in a rotating order, and the ratio is taken between the medians of the sample sets: all saw
// the same load. The floor is the faster raw client of the run.
// Counters: raw_sleep_us, raw_poll_us, raw_us (the faster of the two), lib_us and ratio:
//   latency: ratio = lib_us / raw_us (lower is better)
//   blocks:  ratio = raw_us / lib_us, the library's throughput as a share of raw (higher is
//            better)
template <typename RawCall, typename Lib>
void paired(benchmark::State& state, unsigned short port, bool throughput, RawCall raw, Lib lib)
{
    RawClient sleeping(port, RawClient::Wait::Sleep);
    RawClient polling(port, RawClient::Wait::Poll);
    std::vector<double> samples[3];
    const std::function<void()> calls[3] = {[&] { raw(sleeping); }, [&] { raw(polling); }, lib};
    int first = 0;
    for (auto _ : state) {
        for (int k = 0; k < 3; ++k) {
            const int which = (first + k) % 3;
            const auto start = std::chrono::steady_clock::now();
            calls[which]();
            samples[which].push_back(
                std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                    .count());
        }
        first = (first + 1) % 3;
    }
    const auto median = [](std::vector<double>& v) {
        if (v.empty())
            return 0.0;
        std::nth_element(v.begin(), v.begin() + long(v.size() / 2), v.end());
        return v[v.size() / 2];
    };
    const double sleepUs = median(samples[0]);
    const double pollUs = median(samples[1]);
    const double rawUs = std::min(sleepUs, pollUs);
    const double libUs = median(samples[2]);
    state.counters["raw_sleep_us"] = sleepUs;
    state.counters["raw_poll_us"] = pollUs;
    state.counters["raw_us"] = rawUs;
    state.counters["lib_us"] = libUs;
    if (rawUs > 0 && libUs > 0)
        state.counters["ratio"] = throughput ? rawUs / libUs : libUs / rawUs;
}

void pairedRead32(benchmark::State& state, Client client, bool fast)
{
    Clients& c = clients(fast);
    unsigned int value = 0;
    paired(
        state, c.port, false, [&](RawClient& raw) { raw.read(LatencyAddress, &value, 4); },
        [&] {
            check(state,
                  client == Client::CApi         ? PXST_Read32(c.handle, LatencyAddress, &value)
                  : client == Client::Connection ? c.connection->read32(LatencyAddress, &value)
                                                 : c.ns->read32(LatencyAddress, &value),
                  "read32");
        });
}

void pairedWrite32(benchmark::State& state, Client client, bool fast)
{
    Clients& c = clients(fast);
    const unsigned int value = 0x12345678;
    paired(
        state, c.port, false, [&](RawClient& raw) { raw.write(LatencyAddress, &value, 4); },
        [&] {
            // PXNSConnection does not wait for acknowledgements: its write32 returns once the
            // request is handed to its socket, so its ratio says little (the block write below
            // ends with a ping and does compare).
            check(state,
                  client == Client::CApi         ? PXST_Write32(c.handle, LatencyAddress, value)
                  : client == Client::Connection ? c.connection->write32(LatencyAddress, value)
                                                 : c.ns->write32(LatencyAddress, value),
                  "write32");
        });
}

void pairedReadBlock(benchmark::State& state, Client client, bool fast)
{
    Clients& c = clients(fast);
    const int size = blockSize();
    std::vector<unsigned int> rawBuffer(size_t(size) / 4);
    std::vector<unsigned int> libBuffer(size_t(size) / 4);
    auto* bytes = reinterpret_cast<unsigned char*>(libBuffer.data());
    paired(
        state, c.port, true,
        [&](RawClient& raw) { raw.readBlock(DataAddress, rawBuffer.data(), size); },
        [&] {
            check(state,
                  client == Client::CApi
                      ? PXST_ReadBlock(c.handle, DataAddress, libBuffer.data(), unsigned(size))
                  : client == Client::Connection ? c.connection->readBlock(DataAddress, bytes, size)
                                                 : c.ns->readBlock(DataAddress, bytes, size),
                  "readBlock");
        });
    state.SetBytesProcessed(int64_t(state.iterations()) * size * 3);
}

void pairedWriteBlock(benchmark::State& state, Client client, bool fast)
{
    Clients& c = clients(fast);
    const int size = blockSize();
    std::vector<unsigned int> buffer(size_t(size) / 4, 0x5A5A5A5Au);
    paired(
        state, c.port, true,
        [&](RawClient& raw) { raw.writeBlock(DataAddress, buffer.data(), size); },
        [&] {
            check(state,
                  client == Client::CApi
                      ? PXST_WriteBlock(c.handle, DataAddress, buffer.data(), unsigned(size))
                  : client == Client::Connection
                      ? c.connection->writeBlock(DataAddress, buffer.data(), size)
                      : c.ns->writeBlock(DataAddress, buffer.data(), size) | c.ns->ping(),
                  "writeBlock");
        });
    state.SetBytesProcessed(int64_t(state.iterations()) * size * 3);
}

// ---- registration -------------------------------------------------------------------------------

using Function = void (*)(benchmark::State&);

benchmark::internal::Benchmark* latency(const char* name, Function f)
{
    return benchmark::RegisterBenchmark(name, f)->UseRealTime();
}

benchmark::internal::Benchmark* throughput(const char* name, Function f)
{
    return benchmark::RegisterBenchmark(name, f)->UseRealTime()->Unit(benchmark::kMillisecond);
}

void registerAll()
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
    throughput("ReadBlock/Raw", readBlockRaw);
    throughput("ReadBlock/Connection", readBlockConnection);
    throughput("ReadBlock/NSConnection", readBlockNS);
    throughput("ReadBlock/CApi", readBlockApi);
    throughput("WriteBlock/Raw", writeBlockRaw);
    throughput("WriteBlock/Connection", writeBlockConnection);
    throughput("WriteBlock/NSConnection", writeBlockNS);
    throughput("WriteBlock/CApi", writeBlockApi);
    for (const bool full : {true, false}) {
        const std::string pattern = full ? "all" : "runs";
        benchmark::RegisterBenchmark(("MaskedRead/" + pattern + "/Raw").c_str(), maskedRaw, full)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("MaskedRead/" + pattern + "/CApi").c_str(), maskedApi, full)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }

    // Paired/<measurement>/<client>[/FastServer]
    const std::pair<Client, const char*> pairedClients[] = {{Client::Connection, "Connection"},
                                                            {Client::CApi, "CApi"},
                                                            {Client::NSConnection, "NSConnection"}};
    for (const bool fast : {false, true}) {
        const std::string server = fast ? "/FastServer" : "";
        for (const auto& [client, name] : pairedClients) {
            const std::string suffix = std::string(name) + server;
            benchmark::RegisterBenchmark(("Paired/Read32/" + suffix).c_str(), pairedRead32, client,
                                         fast)
                ->UseRealTime();
            benchmark::RegisterBenchmark(("Paired/Write32/" + suffix).c_str(), pairedWrite32,
                                         client, fast)
                ->UseRealTime();
            benchmark::RegisterBenchmark(("Paired/ReadBlock/" + suffix).c_str(), pairedReadBlock,
                                         client, fast)
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond);
            benchmark::RegisterBenchmark(("Paired/WriteBlock/" + suffix).c_str(), pairedWriteBlock,
                                         client, fast)
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond);
        }
    }

    benchmark::RegisterBenchmark("Paired/Events/Connection", pairedEvents, false)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Paired/Events/CApi", pairedEvents, true)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    throughput("Events/Raw", eventsRaw);
    throughput("Events/Connection/Callback", eventsConnectionCallback);
    throughput("Events/Connection/WaitEvent", eventsConnectionWait);
    throughput("Events/CApi/Callback", eventsApiCallback);
    throughput("Events/NSConnection/Signal", eventsNS);

    throughput("LoadVerify16MiB/Raw", loadVerifyRaw);
    throughput("LoadVerify16MiB/CApi", loadVerifyApi);

    benchmark::RegisterBenchmark("Parser", parser)
        ->ArgNames({"frame", "source"})
        ->Args({9, 64 << 10})
        ->Args({4096, 64 << 10})
        ->Args({4096, 4 << 20})
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("LodParse", lodParse)->Unit(benchmark::kMillisecond);

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

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    simulatorPort();
    registerAll();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    writeSamples();
    return 0;
}
