// Throughput of 1 MiB block reads and writes per client and of masked reads through the C
// interface.

#include "SuiteClients.h"

#include <cstdio>
#include <random>
#include <string>

using namespace suite;

namespace {

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

} // namespace

void suite::registerTransfers()
{
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
}
