#ifndef PELLIX_TESTS_NSCONNECTIONTESTSUPPORT_H
#define PELLIX_TESTS_NSCONNECTIONTESTSUPPORT_H

#include "pellix/nsconnection/PXNSConnection.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QObject>

#include <cstdint>

// Records both arrival signals of a connection in one list, in emission order, so that the
// order across the two kinds can be checked. Connected directly: receivers run inside the
// emitting slot.
struct ArrivalLog
{
    struct Entry
    {
        bool isEvent;
        qint64 stamp;
        uint32_t event;
        QByteArray bypass;
        qint64 emittedAt;
    };

    explicit ArrivalLog(PXNSConnection& connection)
    {
        QObject::connect(
            &connection, &PXNSConnection::eventArrived, &context,
            [this](qint64 stamp, uint32_t event) {
                entries.append({true, stamp, event, {}, QDateTime::currentMSecsSinceEpoch()});
            });
        QObject::connect(
            &connection, &PXNSConnection::bypassArrived, &context,
            [this](qint64 stamp, const QByteArray& bypass) {
                entries.append({false, stamp, 0, bypass, QDateTime::currentMSecsSinceEpoch()});
            });
    }

    // "E<id>" for an event, "B<hex>" for a bypass packet, in emission order.
    QStringList names() const
    {
        QStringList out;
        for (const Entry& e : entries)
            out << (e.isEvent ? QStringLiteral("E%1").arg(e.event)
                              : QStringLiteral("B") + QString::fromLatin1(e.bypass.toHex()));
        return out;
    }

    QObject context;
    QList<Entry> entries;
};

#endif
