// Throughput of PXParser cutting a stream of server frames, fed in 64 KiB pieces as a socket
// delivers them, and as one 4 MiB piece (which must cost no more per byte: the parser is
// linear in what it buffers).
//
// Arguments: frame size in bytes, piece size in bytes, and how the pieces come: 1 as
// QByteArrays (what a socket's readAll() hands over), 0 as pointer and size.

#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXParser.h"

#include <benchmark/benchmark.h>

namespace {

constexpr int kStreamSize = 4 << 20;

// Read-data frames of `frameSize` bytes filling about kStreamSize bytes.
QByteArray makeStream(int frameSize)
{
    const QByteArray data(frameSize - 8, '\x5A');
    const QByteArray frame = pxproto::readData(0x1000, data.constData(), int(data.size()));
    QByteArray stream;
    stream.reserve(kStreamSize + frameSize);
    while (stream.size() + frameSize <= kStreamSize)
        stream += frame;
    return stream;
}

void cutStream(benchmark::State& state)
{
    const int frameSize = int(state.range(0));
    const int pieceSize = int(state.range(1));
    const bool arrays = state.range(2) != 0;
    const QByteArray stream = makeStream(frameSize);
    const int size = int(stream.size());
    QList<QByteArray> pieces;
    for (int at = 0; at < size; at += pieceSize)
        pieces << stream.mid(at, pieceSize);
    PXParser parser(PXParser::ServerFrames);
    qint64 frames = 0;
    for (auto _ : state) {
        for (const QByteArray& piece : pieces) {
            if (arrays)
                parser.feedData(piece);
            else
                parser.feedData(reinterpret_cast<const unsigned char*>(piece.constData()),
                                int(piece.size()));
            for (;;) {
                const QByteArray& packet = parser.getPacket(false);
                if (packet.isEmpty())
                    break;
                benchmark::DoNotOptimize(packet.constData());
                ++frames;
            }
        }
    }
    if (frames != qint64(state.iterations()) * (size / frameSize))
        state.SkipWithError("frames lost");
    state.SetItemsProcessed(frames);
    state.SetBytesProcessed(qint64(state.iterations()) * size);
}

BENCHMARK(cutStream)
    ->ArgNames({"frame", "piece", "array"})
    ->ArgsProduct({{9, 4096}, {64 << 10, kStreamSize}, {1, 0}})
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
