#include "RefusedPort.h"

#include <QHostAddress>
#include <QTcpSocket>

quint16 refusedPort()
{
    // Bound (not shared with later binds), never listening, and kept until the process ends.
    static QTcpSocket* const socket = [] {
        auto* bound = new QTcpSocket;
        bound->bind(QHostAddress::LocalHost, 0, QAbstractSocket::DontShareAddress);
        return bound;
    }();
    return socket->localPort();
}
