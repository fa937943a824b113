// Link utilisation: bytes moved on the link's busier direction / (baud / 10 x seconds), for a
// block write, a block read and a LOD load with verification through the server's serial back
// end, with pellix-target moving at most 921600 / 10 bytes per second each way. On the link a
// block write is the data with 11 bytes of packet per request of at most 32 KiB; a read costs
// an 11-byte request and a 10-byte reply per 4 bytes, so the requests' direction is the busier.
// 1 MiB each (16 KiB in the smoke run); one iteration each, timed by hand.

#include "SimulatorProcess.h"

#include <pellix/api/PXLLibraryApi.h>
#include <pellix/lod/LODFileLoader.h>

#include <benchmark/benchmark.h>

#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr double Baud = 921600;
constexpr double BytesPerSecond = Baud / 10;
const int Size = qEnvironmentVariableIsSet("PELLIX_BENCH_SMOKE") ? 16 * 1024 : 1024 * 1024;

double writeLinkBytes(double bytes)
{
    return bytes + 11 * ((bytes + 32767) / 32768);
}
double readLinkBytes(double bytes)
{
    return bytes / 4 * 11;
}

// The target, the server on its pseudo-terminal and a handle, made once for the process.
struct Link
{
    QTemporaryDir dir;
    QProcess target;
    std::unique_ptr<SimulatorProcess> server;
    int handle = -1;

    Link()
    {
        const QString link = dir.filePath("link");
        target.start(SimulatorProcess::binaryFolder() + "/pellix-target",
                     {"--pty", link, "--baud", QString::number(qint64(Baud))});
        target.waitForReadyRead(10000);
        server = std::make_unique<SimulatorProcess>(SimulatorProcess::withArguments(
            {"COM0", QString::number(qint64(Baud)), "none", "--port", "0", "--device", link}));
        PXST_OpenSocket("127.0.0.1", server->port(), &handle);
        unsigned int status = 0;
        for (int i = 0; i < 100 && status != 1; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            PXST_PellixStatus(handle, &status);
        }
    }
    ~Link()
    {
        PXST_Close(handle);
        target.kill();
        target.waitForFinished();
    }
};

Link& link()
{
    static Link instance;
    return instance;
}

void report(benchmark::State& state, double seconds, double linkBytes)
{
    state.SetIterationTime(seconds);
    state.counters["data_KiB_per_s"] = Size / 1024.0 / seconds;
    state.counters["utilisation"] = linkBytes / (BytesPerSecond * seconds);
}

void BM_LinkBlockWrite(benchmark::State& state)
{
    std::vector<unsigned int> words(size_t(Size) / 4, 0x5C11AD13u);
    for (auto _ : state) {
        QElapsedTimer clock;
        clock.start();
        if (PXST_WriteBlock(link().handle, 0x100000, words.data(), unsigned(Size)) != 0)
            state.SkipWithError("block write failed");
        report(state, clock.nsecsElapsed() * 1e-9, writeLinkBytes(Size));
    }
}
BENCHMARK(BM_LinkBlockWrite)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_LinkBlockRead(benchmark::State& state)
{
    std::vector<unsigned int> words(size_t(Size) / 4);
    for (auto _ : state) {
        QElapsedTimer clock;
        clock.start();
        if (PXST_ReadBlock(link().handle, 0x100000, words.data(), unsigned(Size)) != 0)
            state.SkipWithError("block read failed");
        report(state, clock.nsecsElapsed() * 1e-9, readLinkBytes(Size));
    }
}
BENCHMARK(BM_LinkBlockRead)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

// A LOD load with verification against the link's own limit: writing the words, then reading
// them back. "of_limit" is that limit's time over the time taken (1.0: as fast as the link).
void BM_LinkLodLoadVerify(benchmark::State& state)
{
    const QByteArray path = QFile::encodeName(link().dir.filePath("image.lod"));
    FILE* file = std::fopen(path.constData(), "wb");
    LodPacket* packet = LOD_AllocateLodPacket(0x200000, unsigned(Size / 4));
    for (int i = 0; i < Size / 4; ++i)
        packet->words[i] = 0x11135CADu ^ unsigned(i * 2654435761u);
    LOD_DumpPacketLodFormat(file, packet);
    LOD_FreeLodPacket(packet);
    std::fclose(file);
    for (auto _ : state) {
        QElapsedTimer clock;
        clock.start();
        unsigned int fail = 0;
        if (PXST_LoadLod(link().handle, path.constData(), 1, &fail) != 0)
            state.SkipWithError("load with verification failed");
        const double seconds = clock.nsecsElapsed() * 1e-9;
        const double limit = (writeLinkBytes(Size) + readLinkBytes(Size)) / BytesPerSecond;
        report(state, seconds, writeLinkBytes(Size) + readLinkBytes(Size));
        state.counters["of_limit"] = limit / seconds;
    }
}
BENCHMARK(BM_LinkLodLoadVerify)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
