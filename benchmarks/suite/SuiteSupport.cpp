#include "SuiteSupport.h"

#include "SimulatorProcess.h"

#include <QtGlobal>
#include <cerrno>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace suite {

namespace {

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "benchmark suite: %s\n", what);
    std::abort();
}

// Samples per benchmark name kept for the dump; enough for a smooth distribution.
constexpr size_t MaxSamplesPerName = 200000;

std::mutex gSamplesMutex;
std::map<std::string, std::vector<double>> gSamples;

} // namespace

bool smoke()
{
    static const bool set = qEnvironmentVariableIsSet("PELLIX_BENCH_SMOKE");
    return set;
}

int blockSize()
{
    return smoke() ? 64 << 10 : 1 << 20;
}

int eventBurst()
{
    return smoke() ? 100 : 1000;
}

unsigned short simulatorPort()
{
    static SimulatorProcess process;
    if (!process.isListening())
        fail("the pellix simulator did not start");
    return process.port();
}

double processCpuSeconds()
{
    timespec now{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

unsigned short fastServerPort()
{
    static SimulatorProcess process =
        SimulatorProcess::program(QStringLiteral("pellix_bench_fast_server"), {});
    if (!process.isListening())
        fail("the fast server did not start");
    return process.port();
}

double processContextSwitches()
{
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_nvcsw) + double(usage.ru_nivcsw);
}

unsigned short slowSimulatorPort()
{
    static SimulatorProcess process({QStringLiteral("--latency"), QStringLiteral("1000")});
    if (!process.isListening())
        fail("the slow pellix simulator did not start");
    return process.port();
}

RawClient::RawClient(unsigned short port, Wait w) : wait(w), inbox(1 << 17)
{
    fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        fail("raw client cannot connect");
}

RawClient::~RawClient()
{
    ::close(fd);
}

void RawClient::send(const QByteArray& frame)
{
    const char* p = frame.constData();
    size_t left = size_t(frame.size());
    while (left > 0) {
        const ssize_t n = ::send(fd, p, left, 0);
        if (n <= 0)
            fail("raw client send failed");
        p += n;
        left -= size_t(n);
    }
}

const QByteArray& RawClient::next()
{
    for (;;) {
        const QByteArray& frame = parser.getPacket(false);
        if (!frame.isEmpty())
            return frame;
        const ssize_t n =
            ::recv(fd, inbox.data(), inbox.size(), wait == Wait::Poll ? MSG_DONTWAIT : 0);
        if (n < 0 && wait == Wait::Poll && (errno == EAGAIN || errno == EWOULDBLOCK))
            continue;
        if (n <= 0)
            fail("raw client lost the server");
        parser.feedData(inbox.data(), int(n));
    }
}

const QByteArray& RawClient::nextOf(unsigned char flow)
{
    for (;;) {
        const QByteArray& frame = next();
        if (pxproto::flowId(frame) == flow)
            return frame;
    }
}

void RawClient::read(unsigned int address, void* out, int size)
{
    send(pxproto::readRequest(address, false, size));
    auto* at = static_cast<unsigned char*>(out);
    int got = 0;
    while (got < size) {
        const QByteArray& frame = nextOf(pxproto::reply::ReadData);
        const int n = int(frame.size()) - 8;
        if (n <= 0 || n > size - got)
            fail("raw client got a misfit read-data frame");
        std::memcpy(at + got, frame.constData() + 8, size_t(n));
        got += n;
    }
}

void RawClient::write(unsigned int address, const void* data, int size)
{
    send(pxproto::writeRequest(address, false, data, size));
    nextOf(pxproto::reply::WriteAck);
}

void RawClient::readBlock(unsigned int address, void* out, int size)
{
    auto* at = static_cast<unsigned char*>(out);
    for (int done = 0; done < size; done += pxproto::MaxBlockChunk)
        read(address + unsigned(done), at + done, std::min(pxproto::MaxBlockChunk, size - done));
}

void RawClient::writeBlock(unsigned int address, const void* data, int size)
{
    const auto* at = static_cast<const unsigned char*>(data);
    for (int done = 0; done < size; done += pxproto::MaxBlockChunk)
        write(address + unsigned(done), at + done, std::min(pxproto::MaxBlockChunk, size - done));
}

void RawClient::ping()
{
    send(pxproto::ping());
    nextOf(pxproto::reply::Ping);
}

LatencySamples::LatencySamples(benchmark::State& s, const char* n) : state(s), name(n)
{
    samples.reserve(1 << 16);
}

void LatencySamples::finish()
{
    if (samples.empty())
        return;
    std::vector<double> sorted = samples;
    std::sort(sorted.begin(), sorted.end());
    const auto at = [&](double q) { return sorted[size_t(q * double(sorted.size() - 1))]; };
    state.counters["median_us"] = benchmark::Counter(at(0.5), benchmark::Counter::kAvgThreads);
    state.counters["p99_us"] = benchmark::Counter(at(0.99), benchmark::Counter::kAvgThreads);
    if (!qEnvironmentVariableIsSet("PELLIX_BENCH_SAMPLES"))
        return;
    std::lock_guard<std::mutex> lock(gSamplesMutex);
    std::vector<double>& kept = gSamples[name];
    const size_t room = MaxSamplesPerName - std::min(MaxSamplesPerName, kept.size());
    kept.insert(kept.end(), samples.begin(),
                samples.begin() + long(std::min(room, samples.size())));
}

void writeSamples()
{
    const QByteArray path = qgetenv("PELLIX_BENCH_SAMPLES");
    if (path.isEmpty())
        return;
    FILE* file = std::fopen(path.constData(), "w");
    if (!file) {
        std::fprintf(stderr, "benchmark suite: cannot write %s\n", path.constData());
        return;
    }
    std::fputs("benchmark,us\n", file);
    std::lock_guard<std::mutex> lock(gSamplesMutex);
    for (const auto& entry : gSamples)
        for (double us : entry.second)
            std::fprintf(file, "%s,%.3f\n", entry.first.c_str(), us);
    std::fclose(file);
}

void raiseEvents(RawClient& producer, int count)
{
    QByteArray burst;
    burst.reserve(count * 13);
    for (int i = 0; i < count; ++i) {
        const unsigned int id = unsigned(i);
        burst += pxproto::writeRequest(EventRegister, false, &id, 4);
    }
    producer.send(burst);
    for (int i = 0; i < count; ++i)
        producer.nextOf(pxproto::reply::WriteAck);
}

} // namespace suite
