// Paired benchmarks: every iteration times a call of the sleeping raw client, one of the
// polling raw client and one of a library client, back to back in a rotating order, so that
// all three see the same load; the floor is the faster raw client of the run.

#include "SuiteClients.h"

#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>

using namespace suite;

namespace {

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

// A LOD image of 16 MiB of words (38 MB of text; 256 KiB in a smoke run), written once.
struct LodImage
{
    static constexpr unsigned int Address = 0x01000000u;
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
        std::fprintf(file, "@%08X\n", Address);
        for (unsigned int word : words)
            std::fprintf(file, "%08X\n", word);
        std::fclose(file);
    }
    int bytes() const { return int(words.size() * 4); }
};

// PXST_LoadLod with verification against a raw client writing the image's words and reading
// them back.
void pairedLoadVerify(benchmark::State& state, bool fast)
{
    static LodImage image;
    Clients& c = clients(fast);
    std::vector<unsigned int> back(image.words.size());
    paired(
        state, c.port, true,
        [&](RawClient& raw) {
            raw.writeBlock(LodImage::Address, image.words.data(), image.bytes());
            raw.readBlock(LodImage::Address, back.data(), image.bytes());
            if (back != image.words)
                state.SkipWithError("read-back differs");
        },
        [&] {
            unsigned int failed = 0;
            check(state, PXST_LoadLod(c.handle, image.path.constData(), 1, &failed), "load");
        });
    state.SetBytesProcessed(int64_t(state.iterations()) * image.bytes() * 3);
}

} // namespace

void suite::registerPaired()
{
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
        benchmark::RegisterBenchmark(("Paired/LoadVerify16MiB/CApi" + server).c_str(),
                                     pairedLoadVerify, fast)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
}
