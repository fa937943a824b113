// Cost of the frame trace at a send or receive site: with the category off (the default) the
// site must cost a test of the category and nothing more, whatever the frame's size; with it
// on, the hexadecimal formatting (into a message handler that drops the line).
//
// Argument: frame size in bytes.

#include "pellix/log/PXFrameTrace_p.h"

#include <QByteArray>

#include <benchmark/benchmark.h>

namespace {

void dropMessage(QtMsgType, const QMessageLogContext&, const QString& message)
{
    benchmark::DoNotOptimize(message.size());
}

void traceSite(benchmark::State& state, bool on)
{
    const QByteArray frame(int(state.range(0)), '\x5A');
    const QtMessageHandler previous = qInstallMessageHandler(dropMessage);
    QLoggingCategory::setFilterRules(on ? "pellix.frames.debug=true" : "");
    if (pellixFrames().isDebugEnabled() != on)
        state.SkipWithError("the category is not as asked");
    for (auto _ : state) {
        PX_TRACE_FRAME(7, true, frame.constData(), frame.size());
        benchmark::ClobberMemory();
    }
    QLoggingCategory::setFilterRules(QString());
    qInstallMessageHandler(previous);
    state.SetBytesProcessed(qint64(state.iterations()) * frame.size());
}

void traceOff(benchmark::State& state)
{
    traceSite(state, false);
}

void traceOn(benchmark::State& state)
{
    traceSite(state, true);
}

BENCHMARK(traceOff)->ArgName("frame")->Arg(9)->Arg(4096);
BENCHMARK(traceOn)->ArgName("frame")->Arg(9)->Arg(4096);

} // namespace

BENCHMARK_MAIN();
