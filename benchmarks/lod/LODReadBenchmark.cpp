#include "pellix/lod/LODFileLoader.h"

#include <benchmark/benchmark.h>

#include <QTemporaryDir>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>

namespace {

// 64 MiB of LOD text; 1 MiB in the CI smoke run (PELLIX_BENCH_SMOKE set), which only checks
// that the benchmark works.
const long kFileBytes = qEnvironmentVariableIsSet("PELLIX_BENCH_SMOKE") ? 1L << 20 : 64L << 20;

// One generated LOD file per packet size, kFileBytes of text each, written once per process
// into a temporary folder that lives until exit.
const std::string& lodFile(int wordsPerPacket, long* bytes)
{
    static QTemporaryDir dir;
    static std::map<int, std::pair<std::string, long>> files;
    auto found = files.find(wordsPerPacket);
    if (found == files.end()) {
        const std::string path =
            dir.filePath(QStringLiteral("bench-%1.lod").arg(wordsPerPacket)).toStdString();
        FILE* file = std::fopen(path.c_str(), "wb");
        std::mt19937 random(1);
        LodPacket* packet = LOD_AllocateLodPacket(0, unsigned(wordsPerPacket));
        long written = 0;
        uint32_t address = 0x10000000;
        while (written < kFileBytes) {
            packet->address = address;
            for (int i = 0; i < wordsPerPacket; ++i)
                packet->words[i] = static_cast<uint32_t>(random());
            std::fputs("# block\n", file);
            LOD_DumpPacketLodFormat(file, packet);
            std::fputs("\n", file);
            written = std::ftell(file);
            address += 4u * unsigned(wordsPerPacket);
        }
        LOD_FreeLodPacket(packet);
        std::fclose(file);
        found = files.emplace(wordsPerPacket, std::make_pair(path, written)).first;
    }
    *bytes = found->second.second;
    return found->second.first;
}

// Reads the whole file with LOD_NextLodPacket.
void BM_LodRead(benchmark::State& state)
{
    long bytes = 0;
    const std::string& path = lodFile(int(state.range(0)), &bytes);
    uint64_t words = 0;
    for (auto _ : state) {
        LodFile* file = LOD_Open(path.c_str());
        LodPacket* packet = nullptr;
        while (LOD_NextLodPacket(file, &packet) == 0 && packet) {
            words += uint64_t(packet->wordCount);
            benchmark::DoNotOptimize(packet->words[0]);
            LOD_FreeLodPacket(packet);
        }
        LOD_Close(file);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * bytes);
    state.counters["words"] = double(words) / double(state.iterations());
}
BENCHMARK(BM_LodRead)->Arg(4096)->Arg(4)->Unit(benchmark::kMillisecond);

// The same file read the plain way, each packet counted with countPacketWords() and then
// read again through fgetl() and strtoul(): the baseline the reader is measured against.
void BM_LodReadTwoPass(benchmark::State& state)
{
    long bytes = 0;
    const std::string& path = lodFile(int(state.range(0)), &bytes);
    char line[1027];
    for (auto _ : state) {
        FILE* file = std::fopen(path.c_str(), "rb");
        uint64_t sum = 0;
        while (fgetl(line, sizeof line, file)) {
            if (line[0] != '@')
                continue;
            int count = countPacketWords(file);
            while (count > 0 && fgetl(line, sizeof line, file)) {
                if (line[0] == '#')
                    continue;
                sum += std::strtoul(line, nullptr, 16);
                --count;
            }
        }
        benchmark::DoNotOptimize(sum);
        std::fclose(file);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * bytes);
}
BENCHMARK(BM_LodReadTwoPass)->Arg(4096)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
