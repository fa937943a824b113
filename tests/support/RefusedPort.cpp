#include "RefusedPort.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

quint16 refusedPort()
{
    static const quint16 port = [] {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            return quint16(0);
        // The descriptor is kept open on purpose until the process ends.
        return quint16(ntohs(address.sin_port));
    }();
    return port;
}
