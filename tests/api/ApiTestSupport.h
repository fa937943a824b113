#ifndef PELLIX_TESTS_APITESTSUPPORT_H
#define PELLIX_TESTS_APITESTSUPPORT_H

// Helpers of the C interface tests: a fake server that behaves like target memory and
// records the accesses it serves, a stand-in "pellix" for the launch tests, file helpers.

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

// One memory request as the server saw it: kind, access code, address, bytes.
struct Access
{
    enum Kind { Read, BlockRead, Write };
    Kind kind;
    unsigned char code;
    quint32 address;
    quint32 size;
    bool operator==(const Access& o) const
    {
        return kind == o.kind && code == o.code && address == o.address && size == o.size;
    }
};
std::ostream& operator<<(std::ostream& out, const Access& access);

// A plain read of 1, 2 or 4 bytes or a block read of any other size; a write of any size.
Access read(quint32 address, quint32 size);
Access write(quint32 address, quint32 size);

// What unwritten memory of the MemoryServer holds.
unsigned char patternByte(quint32 address);

// A FakeServer that answers like the simulator: reads (the pattern or what was written),
// writes, ping, status (a chosen byte, or silence), forced reconnection. Reads touching a
// poisoned address get data for a wrong address (failed at once); writes touching one get
// no acknowledgement.
class MemoryServer
{
public:
    MemoryServer();
    FakeServer& fake() { return server; }
    quint16 port() const { return server.port(); }
    void setStatus(int status); // -1: leave status requests unanswered
    void poison(quint32 address);
    QList<Access> accesses() const; // the memory requests received so far
    void clear() { server.clearReceived(); }

private:
    void respond(int client, const QByteArray& frame);

    mutable std::mutex mutex;
    std::map<quint32, unsigned char> written;
    std::set<quint32> poisoned;
    int statusByte = 5;
    FakeServer server;
};

// Writes `lines`, each ended by a line feed, to `path`; returns the path in local encoding.
QByteArray writeLines(const QString& path, const QStringList& lines);
QByteArray readFile(const QString& path);
// Puts an executable "pellix" into `folder` that records its arguments in arguments.txt and,
// with `runServer`, goes on to run the real simulator with them.
bool writeStandIn(const QString& folder, bool runServer);
// The stand-in's recorded arguments; empty when it never ran.
QStringList standInArguments(const QString& folder);
// True once nothing accepts connections on 127.0.0.1:`port` (within 10 s).
bool waitUntilNothingListens(quint16 port);

} // namespace apitest

#endif
