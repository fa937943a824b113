#ifndef PELLIX_BENCHMARKS_SUITECLIENTS_H
#define PELLIX_BENCHMARKS_SUITECLIENTS_H

// The library clients that the suite's benchmarks share (opened once, on the simulator of the
// run or on the fast server), the helpers every benchmark file uses, and the registration
// function of each file.

#include "SuiteSupport.h"

#include "pellix/api/PXLLibraryApi.h"
#include "pellix/connection/PXConnection.h"
#include "pellix/nsconnection/PXNSConnection.h"

#include <vector>

namespace suite {

// Where the latency benchmarks read and write.
constexpr unsigned int LatencyAddress = 0x1000;

PXConnection* openConnection(unsigned short port);
PXNSConnection* openNSConnection(unsigned short port);
int openHandle(unsigned short port);
// The clients on the simulator of the run. The PXNSConnection lives on the main thread,
// where single-threaded benchmarks run.
PXConnection& connection();
PXNSConnection& nsConnection();
int apiHandle();

// The three library clients of the paired benchmarks, on the simulator or the fast server.
enum class Client { Connection, NSConnection, CApi };

struct Clients
{
    unsigned short port;
    PXConnection* connection;
    PXNSConnection* ns;
    int handle;
};

Clients& clients(bool fast);

// Marks the benchmark failed when a library call did not return 0.
void check(benchmark::State& state, unsigned int result, const char* what);

// Moves blockSize() bytes per iteration with `transfer(words, bytes)`.
template <typename Transfer>
void blocks(benchmark::State& state, Transfer transfer)
{
    const int size = blockSize();
    std::vector<unsigned int> buffer(size_t(size) / 4, 0x5A5A5A5Au);
    for (auto _ : state)
        transfer(buffer.data(), size);
    state.SetBytesProcessed(int64_t(state.iterations()) * size);
}

using Function = void (*)(benchmark::State&);
// Registers a latency benchmark (real time) or a throughput one (real time, milliseconds).
benchmark::internal::Benchmark* latency(const char* name, Function f);
benchmark::internal::Benchmark* throughput(const char* name, Function f);

// Each benchmark file registers its benchmarks; main() calls them in this order.
void registerLatency();   // bench_latency.cpp
void registerTransfers(); // bench_transfers.cpp
void registerPaired();    // bench_paired.cpp
void registerEvents();    // bench_events.cpp
void registerScaling();   // bench_scaling.cpp

} // namespace suite

#endif
