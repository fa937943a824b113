// Events: bursts raised by pipelined event-register writes on a raw producer socket, taken by
// callback, waitEvent or the Qt signal, beside a raw socket that counts the event frames; and
// the paired burst benchmark, library and raw receiver timed on the same bursts.

#include "SuiteClients.h"

#include <QCoreApplication>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

using namespace suite;

namespace {

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

} // namespace

void suite::registerEvents()
{
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
}
