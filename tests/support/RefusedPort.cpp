#include "RefusedPort.h"

#include <QHostAddress>
#include <QNetworkProxy>
#include <QTcpSocket>

quint16 refusedPort()
{
    // Bound (not shared with later binds), never listening, and kept until the process ends.
    // No proxy: looking one up would start a thread for nothing.
    static QTcpSocket* const socket = [] {
        auto* bound = new QTcpSocket;
        bound->setProxy(QNetworkProxy::NoProxy);
        bound->bind(QHostAddress::LocalHost, 0, QAbstractSocket::DontShareAddress);
        return bound;
    }();
    return socket->localPort();
}
