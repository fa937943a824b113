// The fastest server a client could have: it answers reads, writes, pings and status requests
// from a flat 16 MiB memory and nothing else, on one thread that spins on epoll while there is
// traffic (and sleeps after 50 ms without any), so that it never has to be woken. With it the
// time of a request is almost all the client's own and the kernel's, so a client's overhead
// shows in full; the pellix simulator spends tens of microseconds per request (and sleeps
// between requests), which hides what a client adds.
//
// Usage: pellix_bench_fast_server   prints "fast server: listening on 127.0.0.1:<port>"

#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXParser.h"

#include <QByteArray>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include <sys/epoll.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr quint32 MemoryMask = (16u << 20) - 1;
constexpr int ReplyFrameData = 4096;
std::vector<unsigned char> memory(MemoryMask + 1 + 65536);

// Blocking where the client does not take the bytes at once (large replies): every client of
// a benchmark reads its replies.
bool sendAll(int fd, const QByteArray& bytes)
{
    const char* p = bytes.constData();
    qsizetype left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::send(fd, p, size_t(left), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        left -= n;
    }
    return true;
}

// The replies to one request, appended to `out`.
void answer(const QByteArray& frame, QByteArray& out)
{
    const auto* p = reinterpret_cast<const unsigned char*>(frame.constData());
    const int length = int(frame.size()) - pxproto::HeaderSize;
    switch (p[3]) {
    case pxproto::request::Read: // also Write: told apart by the access code
        if (length == pxproto::SingleReadLength && p[4] < 0x80) {
            const quint32 address = pxproto::getLe32(p + 5) & MemoryMask;
            const int size = p[4] == pxproto::access::Read8    ? 1
                             : p[4] == pxproto::access::Read16 ? 2
                                                               : 4;
            out += pxproto::readData(pxproto::getLe32(p + 5), &memory[address], size);
        } else if (length >= 5) {
            const quint32 address = pxproto::getLe32(p + 5) & MemoryMask;
            std::memcpy(&memory[address], p + 9, size_t(length - 5));
            out += pxproto::writeAck();
        }
        return;
    case pxproto::request::BlockRead: {
        quint32 address = pxproto::getLe32(p + 5);
        quint32 count = pxproto::getLe32(p + 9);
        while (count > 0) {
            const int n = count > quint32(ReplyFrameData) ? ReplyFrameData : int(count);
            out += pxproto::readData(address, &memory[address & MemoryMask], n);
            address += quint32(n);
            count -= quint32(n);
        }
        return;
    }
    case pxproto::request::Ping:
        out += pxproto::pingReply();
        return;
    case pxproto::request::Status:
        out += pxproto::statusReply(1);
        return;
    default:
        return;
    }
}

struct Client
{
    PXParser parser{PXParser::ServerFrames};
};

} // namespace

int main()
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        ::listen(listener, 64) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        std::perror("fast server");
        return 1;
    }
    const int poller = ::epoll_create1(EPOLL_CLOEXEC);
    epoll_event watch{};
    watch.events = EPOLLIN;
    watch.data.fd = listener;
    ::epoll_ctl(poller, EPOLL_CTL_ADD, listener, &watch);
    std::printf("fast server: listening on 127.0.0.1:%u\n", unsigned(ntohs(address.sin_port)));
    std::fflush(stdout);

    std::map<int, std::unique_ptr<Client>> clients;
    std::vector<char> inbox(1 << 17);
    QByteArray out;
    auto lastActivity = std::chrono::steady_clock::now();
    for (;;) {
        const bool spin =
            std::chrono::steady_clock::now() - lastActivity < std::chrono::milliseconds(50);
        epoll_event ready[16];
        const int count = ::epoll_wait(poller, ready, 16, spin ? 0 : -1);
        if (count <= 0)
            continue;
        lastActivity = std::chrono::steady_clock::now();
        for (int i = 0; i < count; ++i) {
            const int fd = ready[i].data.fd;
            if (fd == listener) {
                const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
                if (client < 0)
                    continue;
                const int one = 1;
                ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                clients[client] = std::make_unique<Client>();
                watch.data.fd = client;
                ::epoll_ctl(poller, EPOLL_CTL_ADD, client, &watch);
                continue;
            }
            Client& client = *clients[fd];
            const ssize_t n = ::recv(fd, inbox.data(), inbox.size(), MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
                ::epoll_ctl(poller, EPOLL_CTL_DEL, fd, nullptr);
                ::close(fd);
                clients.erase(fd);
                continue;
            }
            if (n < 0)
                continue;
            client.parser.feedData(reinterpret_cast<const unsigned char*>(inbox.data()), int(n));
            out.clear();
            for (;;) {
                const QByteArray& frame = client.parser.getPacket(false);
                if (frame.isEmpty())
                    break;
                answer(frame, out);
            }
            if (!out.isEmpty() && !sendAll(fd, out)) {
                ::epoll_ctl(poller, EPOLL_CTL_DEL, fd, nullptr);
                ::close(fd);
                clients.erase(fd);
            }
        }
    }
}
