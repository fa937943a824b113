// A C++ program on PXConnection: connects to a server, loads a block into target memory and
// reads it back, follows events through a callback, and exchanges bypass packets.
//
//   pellix-example-cpp [HOST TCP_PORT]   (default 127.0.0.1 7700)
//
// PXConnection calls block the calling thread until the reply; the sockets live on the
// library's network thread, so the program needs no event loop of its own.

#include <pellix/connection/PXConnection.h>

#include <QString>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

// The pellix simulator raises event V when V is written to this address.
constexpr unsigned int EventRegister = 0xFFFFFF00u;

bool check(const char* what, unsigned int result)
{
    if (result != 0)
        std::fprintf(stderr, "%s: result code %u\n", what, result);
    return result == 0;
}

// Runs on the library's network thread for every queued event: only count here; taking the
// event from the queue is the main thread's business.
void onEvent(void* userData)
{
    static_cast<std::atomic<int>*>(userData)->fetch_add(1);
}

bool run(PXConnection& connection)
{
    if (!check("ping", connection.ping()))
        return false;

    // A 64 KiB block: the connection cuts it into requests of at most 32 KiB.
    std::vector<unsigned int> image(16384);
    for (std::size_t i = 0; i < image.size(); ++i)
        image[i] = 0x9E3779B9u * unsigned(i + 1);
    std::vector<unsigned int> back(image.size());
    const int bytes = int(image.size() * 4);
    if (!check("writeBlock", connection.writeBlock(0x100000, image.data(), bytes)) ||
        !check("readBlock", connection.readBlock(
                                0x100000, reinterpret_cast<unsigned char*>(back.data()), bytes)))
        return false;
    const bool blockOk = back == image;
    std::printf("64 KiB block %s\n", blockOk ? "matches" : "differs");

    std::atomic<int> announced{0};
    connection.setEventCallback(onEvent, &announced);
    connection.enableEvents(true);
    for (unsigned int id = 1; id <= 3; ++id) {
        if (!check("raise event", connection.write32(EventRegister, id)))
            return false;
    }
    std::vector<unsigned int> events;
    unsigned int event = 0;
    while (events.size() < 3 && connection.waitEvent(&event, 5000) == 0)
        events.push_back(event);
    connection.setEventCallback(nullptr, nullptr);
    std::printf("events:");
    for (unsigned int e : events)
        std::printf(" %u", e);
    std::printf(" (%d announced by callback)\n", announced.load());

    unsigned char flows[] = {0x30, 0x31};
    connection.setBypassFlowIds(flows, 2);
    unsigned char hello[] = {'h', 'e', 'l', 'l', 'o'};
    if (!check("sendBypassPacket", connection.sendBypassPacket(0x31, hello, sizeof hello)))
        return false;
    unsigned char flow = 0;
    unsigned char packet[64];
    int length = 0;
    if (!check("waitBypassPacket",
               connection.waitBypassPacket(&flow, packet, sizeof packet, &length, 5000)))
        return false;
    // The packet comes whole: start byte, 16-bit length, flow id, data, checksum.
    const QString text = QString::fromLatin1(reinterpret_cast<char*>(packet) + 4, length - 5);
    std::printf("bypass flow 0x%02X: \"%s\"\n", flow, qPrintable(text));

    return blockOk && events == std::vector<unsigned int>{1, 2, 3} && flow == 0x31 &&
           text == QLatin1String("hello");
}

} // namespace

int main(int argc, char** argv)
{
    const QString host = argc > 2 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("127.0.0.1");
    const unsigned short port = argc > 2 ? static_cast<unsigned short>(std::atoi(argv[2])) : 7700;

    PXConnection connection;
    if (!connection.open(host, port)) {
        std::fprintf(stderr, "no server at %s:%u\n", qPrintable(host), unsigned(port));
        return 1;
    }
    const bool ok = run(connection);
    std::printf("example finished: %s\n", ok ? "OK" : "FAILED");
    return ok ? 0 : 1;
}
