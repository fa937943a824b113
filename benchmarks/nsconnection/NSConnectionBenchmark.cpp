// Round trips through PXNSConnection against the simulator, beside a plain blocking-socket
// client that sends the same frames one request at a time, to show what the event-loop
// waiting of the connection costs.
//
// The simulator ("pellix" beside this binary) is started once with --port 0 and default
// settings (read-data frames of at most 4096 bytes).

#include "pellix/nsconnection/PXNSConnection.h"
#include "pellix/protocol/PXParser.h"
#include "pellix/protocol/PXProtocol.h"

#include <QCoreApplication>
#include <QProcess>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

constexpr quint32 DataAddress = 0x100000;
constexpr int BlockSize = 1 << 20;

quint16 gPort = 0;

// Starts the simulator and learns its port from "pellix: listening on <address>:<port>".
bool startSimulator(QProcess& process)
{
    process.setProgram(QCoreApplication::applicationDirPath() + QStringLiteral("/pellix"));
    process.setArguments({QStringLiteral("--port"), QStringLiteral("0")});
    process.start();
    if (!process.waitForStarted(5000))
        return false;
    while (!process.canReadLine()) {
        if (!process.waitForReadyRead(5000))
            return false;
    }
    const QByteArray line = process.readLine().trimmed();
    gPort = quint16(line.mid(line.lastIndexOf(':') + 1).toUInt());
    return gPort != 0;
}

// A blocking client on a plain socket: writes one request, reads until its reply is whole.
class RawClient
{
public:
    RawClient()
    {
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        const int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(gPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~RawClient() { ::close(fd); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool isConnected() const { return connected; }

    // Sends the request for `size` bytes at `address` and copies the read-data frames into
    // `data` until all bytes are in. False on a misfit or a closed socket.
    bool read(quint32 address, unsigned char* data, int size)
    {
        const QByteArray request = pxproto::readRequest(address, false, size);
        if (::send(fd, request.constData(), size_t(request.size()), 0) != request.size())
            return false;
        int remaining = size;
        while (remaining > 0) {
            const QByteArray& frame = parser.getPacket(false);
            if (frame.isEmpty()) {
                const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
                if (n <= 0)
                    return false;
                parser.feedData(buffer, int(n));
                continue;
            }
            if (pxproto::flowId(frame) != pxproto::reply::ReadData)
                continue;
            const int count = pxproto::payloadLength(frame) - 4;
            if (count <= 0 || count > remaining ||
                pxproto::getLe32(frame.constData() + 4) != address)
                return false;
            std::copy_n(frame.constData() + 8, count, reinterpret_cast<char*>(data));
            data += count;
            address += quint32(count);
            remaining -= count;
        }
        return true;
    }

private:
    int fd = -1;
    bool connected = false;
    PXParser parser{PXParser::ServerFrames};
    unsigned char buffer[65536];
};

void NSRead32(benchmark::State& state)
{
    PXNSConnection connection;
    if (!connection.open(QStringLiteral("127.0.0.1"), gPort)) {
        state.SkipWithError("cannot connect to the simulator");
        return;
    }
    unsigned int value = 0;
    for (auto _ : state) {
        if (connection.read32(DataAddress, &value) != 0) {
            state.SkipWithError("read32 failed");
            break;
        }
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(NSRead32)->UseRealTime();

void RawRead32(benchmark::State& state)
{
    RawClient client;
    if (!client.isConnected()) {
        state.SkipWithError("cannot connect to the simulator");
        return;
    }
    unsigned int value = 0;
    for (auto _ : state) {
        if (!client.read(DataAddress, reinterpret_cast<unsigned char*>(&value), 4)) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(RawRead32)->UseRealTime();

void NSReadBlock1MiB(benchmark::State& state)
{
    PXNSConnection connection;
    if (!connection.open(QStringLiteral("127.0.0.1"), gPort)) {
        state.SkipWithError("cannot connect to the simulator");
        return;
    }
    std::vector<unsigned char> data(BlockSize);
    for (auto _ : state) {
        if (connection.readBlock(DataAddress, data.data(), BlockSize) != 0) {
            state.SkipWithError("readBlock failed");
            break;
        }
        benchmark::DoNotOptimize(data.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * BlockSize);
}
BENCHMARK(NSReadBlock1MiB)->UseRealTime()->Unit(benchmark::kMillisecond);

// The same 32 block reads of 32768 bytes that readBlock sends, one at a time.
void RawReadBlock1MiB(benchmark::State& state)
{
    RawClient client;
    if (!client.isConnected()) {
        state.SkipWithError("cannot connect to the simulator");
        return;
    }
    std::vector<unsigned char> data(BlockSize);
    for (auto _ : state) {
        for (int offset = 0; offset < BlockSize; offset += pxproto::MaxBlockChunk) {
            if (!client.read(DataAddress + quint32(offset), data.data() + offset,
                             pxproto::MaxBlockChunk)) {
                state.SkipWithError("read failed");
                break;
            }
        }
        benchmark::DoNotOptimize(data.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * BlockSize);
}
BENCHMARK(RawReadBlock1MiB)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    QProcess simulator;
    if (!startSimulator(simulator)) {
        std::fprintf(stderr, "cannot start the simulator beside this binary\n");
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    simulator.terminate();
    simulator.waitForFinished(5000);
    return 0;
}
