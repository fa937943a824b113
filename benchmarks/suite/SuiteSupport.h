#ifndef PELLIX_BENCHMARKS_SUITESUPPORT_H
#define PELLIX_BENCHMARKS_SUITESUPPORT_H

// Shared pieces of the benchmark suite: the one simulator every benchmark talks to, the raw
// socket client that is the baseline of each measurement, the smoke-run switch, and the
// latency timer that records per-call samples.

#include "pellix/protocol/PXParser.h"
#include "pellix/protocol/PXFrames_p.h"

#include <benchmark/benchmark.h>

#include <QByteArray>

#include <chrono>
#include <vector>

namespace suite {

// Address whose 32-bit writes raise events in the simulator (its default).
constexpr unsigned int EventRegister = 0xFFFFFF00u;
// Where the block benchmarks read and write.
constexpr unsigned int DataAddress = 0x00100000u;
// Flow id of the bypass round trips (the simulator echoes it).
constexpr unsigned char BypassFlow = 0x42;

// True when PELLIX_BENCH_SMOKE is set: the CI only checks that every benchmark runs, so data
// sets shrink and the scaling sweeps stop early.
bool smoke();
// 1 MiB, or 64 KiB in a smoke run.
int blockSize();
// Events per burst: 1000 (under the queue cap of 1001), or 100 in a smoke run.
int eventBurst();

// The simulator of the whole run ("pellix --port 0" beside this binary), started on first use.
unsigned short simulatorPort();
// A server that does nothing but answer reads, writes and pings from a flat memory, one thread
// per client (pellix_bench_fast_server): against it a request costs almost only what the
// client and the kernel spend, so the client's own overhead shows in full.
unsigned short fastServerPort();
// A second simulator that answers every request 1 ms late (--latency 1000), standing in for a
// slow link behind the server; started on first use.
unsigned short slowSimulatorPort();

// A client on its own socket with TCP_NODELAY: frames built with pxproto, cut with PXParser,
// one request at a time. It is the least any client can do per request, so it is the floor
// each library path is compared to. It waits for replies in one of two ways:
//   Sleep  blocks in recv(): the thread sleeps, and waking it costs what waking a thread costs
//          on this machine (40-150 us on a virtual processor);
//   Poll   spins on non-blocking recv() until the reply is there: no wake-up at all, the
//          lowest latency a client can have, paid for with a processor while it waits.
// Whichever is faster on a machine is the honest floor. A failure aborts the run (it means the
// simulator is gone, and no figure of the run would be worth anything).
class RawClient
{
public:
    enum class Wait { Sleep, Poll };

    explicit RawClient(unsigned short port = simulatorPort(), Wait wait = Wait::Sleep);
    explicit RawClient(Wait wait) : RawClient(simulatorPort(), wait) {}
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    void send(const QByteArray& frame);
    // The next frame from the server (blocks).
    const QByteArray& next();
    // The next frame with this flow id; others are skipped.
    const QByteArray& nextOf(unsigned char flow);

    // One read request for `size` bytes (a block read above 4), its read-data replies copied
    // into `out`.
    void read(unsigned int address, void* out, int size);
    // One write request and its acknowledgement.
    void write(unsigned int address, const void* data, int size);
    // Reads or writes `size` bytes in requests of at most 32768 bytes, one after the other,
    // as the library's block calls cut them.
    void readBlock(unsigned int address, void* out, int size);
    void writeBlock(unsigned int address, const void* data, int size);
    void ping();

private:
    int fd = -1;
    Wait wait;
    PXParser parser{PXParser::ServerFrames};
    std::vector<unsigned char> inbox;
};

// Per-call timing of a latency benchmark: add() one sample per call, finish() sets the
// counters median_us and p99_us (averaged over threads in threaded runs) and hands the
// samples to the CSV dump.
class LatencySamples
{
public:
    // `name` labels the samples in the dump; threaded runs share it.
    LatencySamples(benchmark::State& state, const char* name);
    void add(std::chrono::steady_clock::duration elapsed)
    {
        samples.push_back(std::chrono::duration<double, std::micro>(elapsed).count());
    }
    void finish();

private:
    benchmark::State& state;
    const char* name;
    std::vector<double> samples;
};

// Processor time used by all threads of this process so far.
double processCpuSeconds();
// Context switches (voluntary and forced) of all threads of this process so far.
double processContextSwitches();

// Times `call` once per iteration into median/p99 counters and the sample dump.
template <typename Call>
void timeCalls(benchmark::State& state, const char* name, Call call)
{
    LatencySamples samples(state, name);
    const double cpuStart = processCpuSeconds();
    const double switchesStart = processContextSwitches();
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        call();
        samples.add(std::chrono::steady_clock::now() - start);
    }
    samples.finish();
    // Every thread of this process (the library's network thread too; not the simulator), per
    // call of all threads: in a threaded run every thread sees the whole process's time over
    // about the same interval, so each divides by all threads' calls and they are averaged.
    if (state.iterations() > 0)
        state.counters["cpu_us"] =
            benchmark::Counter((processCpuSeconds() - cpuStart) * 1e6 /
                                   (double(state.iterations()) * double(state.threads())),
                               benchmark::Counter::kAvgThreads);
    // Each is a thread going to sleep (or being put aside): what a wake-up costs is paid per
    // switch, so this counts the hand-offs of a call.
    if (state.iterations() > 0)
        state.counters["switches"] =
            benchmark::Counter((processContextSwitches() - switchesStart) /
                                   (double(state.iterations()) * double(state.threads())),
                               benchmark::Counter::kAvgThreads);
}

// Writes the recorded samples as CSV ("benchmark,us") to the file named by
// PELLIX_BENCH_SAMPLES, if set. Called once at exit.
void writeSamples();

// Raises `count` events: the event-register writes go out as one pipelined burst on the
// producer's socket, then their acknowledgements are drained.
void raiseEvents(RawClient& producer, int count);

} // namespace suite

#endif
