// Transfer rates through the C interface into the simulator, over loopback TCP:
//   LoadLodVerify16MiB: PXST_LoadLod with verification of a 16 MiB image (one LOD packet);
//                       bytes counted once per image, so MB/s is image size over the time of
//                       the load and the read-back together.
//   WriteBlock16MiB / ReadBlock16MiB: the raw block calls for the same amount of data.

#include "SimulatorProcess.h"

#include "pellix/api/PXLLibraryApi.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <vector>

namespace {

constexpr unsigned int ImageBytes = 16u * 1024u * 1024u;
constexpr unsigned int ImageAddress = 0x01000000u;

// One simulator and one open handle for the whole run.
struct Session
{
    SimulatorProcess simulator;
    int handle = 0;
    QTemporaryDir dir;
    QByteArray image;
    std::vector<unsigned int> words;

    Session() : words(ImageBytes / 4)
    {
        for (size_t i = 0; i < words.size(); ++i)
            words[i] = static_cast<unsigned int>(i) * 2654435761u;
        if (!simulator.isListening() ||
            PXST_OpenSocket("127.0.0.1", simulator.port(), &handle) != PXST_RESULT_OK)
            handle = 0;
        image = dir.filePath("image.lod").toLocal8Bit();
        if (FILE* file = std::fopen(image.constData(), "wb")) {
            std::fprintf(file, "@%08X\n", ImageAddress);
            for (unsigned int word : words)
                std::fprintf(file, "%08X\n", word);
            std::fclose(file);
        }
    }
    ~Session()
    {
        if (handle > 0)
            PXST_Close(handle);
    }
};

Session& session()
{
    static Session s;
    return s;
}

void LoadLodVerify16MiB(benchmark::State& state)
{
    Session& s = session();
    if (s.handle <= 0) {
        state.SkipWithError("simulator not reachable");
        return;
    }
    for (auto _ : state) {
        unsigned int fail = 0;
        const unsigned int result = PXST_LoadLod(s.handle, s.image.constData(), 1, &fail);
        if (result != PXST_RESULT_OK) {
            state.SkipWithError(PXST_ResultText(result));
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * ImageBytes);
}
BENCHMARK(LoadLodVerify16MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

void WriteBlock16MiB(benchmark::State& state)
{
    Session& s = session();
    if (s.handle <= 0) {
        state.SkipWithError("simulator not reachable");
        return;
    }
    for (auto _ : state) {
        const unsigned int result =
            PXST_WriteBlock(s.handle, ImageAddress, s.words.data(), ImageBytes);
        if (result != PXST_RESULT_OK) {
            state.SkipWithError(PXST_ResultText(result));
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * ImageBytes);
}
BENCHMARK(WriteBlock16MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

void ReadBlock16MiB(benchmark::State& state)
{
    Session& s = session();
    if (s.handle <= 0) {
        state.SkipWithError("simulator not reachable");
        return;
    }
    std::vector<unsigned int> back(s.words.size());
    for (auto _ : state) {
        const unsigned int result = PXST_ReadBlock(s.handle, ImageAddress, back.data(), ImageBytes);
        if (result != PXST_RESULT_OK) {
            state.SkipWithError(PXST_ResultText(result));
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * ImageBytes);
}
BENCHMARK(ReadBlock16MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
