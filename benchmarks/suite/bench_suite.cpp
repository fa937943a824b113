// The benchmark suite: every measurement of the library beside its raw-socket baseline, in
// the same run and against the same server; one file per job (bench_latency, bench_transfers,
// bench_paired, bench_events, bench_scaling). The parser and the LOD reader have benchmark
// binaries of their own (benchmarks/parser, benchmarks/lod).
//
// Names are <measurement>/<client>; the clients are
//   Raw           a socket speaking the same frames (SuiteSupport.h), sleeping in recv() or
//                 polling: the floor
//   Connection    PXConnection (the caller writes and reads its own socket)
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
//   Paired/*[/FastServer]           both raw clients and a library client call by call, on
//                                   the simulator or the fast server; ratio to the faster raw
//                                   (see bench_paired.cpp). Paired/LoadVerify16MiB: PXST_LoadLod
//                                   with verification of a 16 MiB LOD image, the raw clients
//                                   writing and reading back the same bytes
//   Scale/*                         read32 and 1 MiB reads with 1-64 connections driven by
//                                   as many threads, and 1-16 threads on one connection
//
// PELLIX_BENCH_SMOKE=1 shrinks the data sets (the CI smoke run). PELLIX_BENCH_SAMPLES=<file>
// writes every latency sample as CSV for scripts/plot_latency.py.

#include "SuiteClients.h"

#include <QCoreApplication>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    suite::simulatorPort();
    suite::registerLatency();
    suite::registerTransfers();
    suite::registerPaired();
    suite::registerEvents();
    suite::registerScaling();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    suite::writeSamples();
    return 0;
}
