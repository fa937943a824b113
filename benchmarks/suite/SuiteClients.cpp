#include "SuiteClients.h"

#include <cstdlib>

namespace suite {

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

benchmark::internal::Benchmark* latency(const char* name, Function f)
{
    return benchmark::RegisterBenchmark(name, f)->UseRealTime();
}

benchmark::internal::Benchmark* throughput(const char* name, Function f)
{
    return benchmark::RegisterBenchmark(name, f)->UseRealTime()->Unit(benchmark::kMillisecond);
}

} // namespace suite
