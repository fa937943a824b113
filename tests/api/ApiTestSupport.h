#ifndef PELLIX_TESTS_APITESTSUPPORT_H
#define PELLIX_TESTS_APITESTSUPPORT_H

// Helpers of the C interface tests: a fake server that behaves like target memory and
// records the accesses it serves, and small file helpers.

#include "FakeServer.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <map>
#include <mutex>
#include <ostream>
#include <set>

namespace apitest {

// One memory request as the server saw it.
struct Access
{
    enum Kind { Read, BlockRead, InternalRead, Write };
    Kind kind;
    unsigned char code; // access code of the request
    quint32 address;
    quint32 size; // bytes read or written
    bool operator==(const Access& other) const
    {
        return kind == other.kind && code == other.code && address == other.address &&
               size == other.size;
    }
};
std::ostream& operator<<(std::ostream& out, const Access& access);

// Shorthands for expected accesses: a plain read of 1, 2 or 4 bytes or a block read of more;
// a write of any size (its access code follows from the size).
Access read(quint32 address, quint32 size);
Access write(quint32 address, quint32 size);

// The memory requests among the frames a client sent, in order.
QList<Access> accesses(const QList<QByteArray>& frames);

// What unwritten memory of the MemoryServer holds.
unsigned char patternByte(quint32 address);

// A FakeServer that answers like the simulator: reads (from the pattern or what was written),
// writes (acknowledged), ping, status (a chosen byte), forced reconnection (completion).
// Reads that touch a poisoned address are answered with read data for a wrong address (the
// library fails them at once); writes that touch one are never acknowledged.
class MemoryServer
{
public:
    MemoryServer();

    FakeServer& fake() { return server; }
    quint16 port() const { return server.port(); }

    void setStatusByte(unsigned char status);
    // Leaves status requests unanswered.
    void setStatusSilent(bool silent);
    void poison(quint32 address);

    unsigned char byteAt(quint32 address) const;
    // The memory requests received so far, and forgetting them.
    QList<Access> accesses() const { return apitest::accesses(server.frames()); }
    void clear() { server.clearReceived(); }

private:
    void respond(FakeServer& fake, int client, const QByteArray& frame);
    bool touchesPoison(quint32 address, quint32 size) const;
    QByteArray readMemory(quint32 address, quint32 size) const;

    mutable std::mutex mutex;
    std::map<quint32, unsigned char> written;
    std::set<quint32> poisoned;
    unsigned char statusByte = 5;
    bool statusSilent = false;
    FakeServer server;
};

// Writes `lines`, each ended by a line feed, to `path`. Returns the path.
QString writeLines(const QString& path, const QStringList& lines);
QByteArray readFile(const QString& path);

} // namespace apitest

#endif
