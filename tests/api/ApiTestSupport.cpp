#include "ApiTestSupport.h"

#include "SimulatorProcess.h"

#include "pellix/protocol/PXProtocol.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QTcpSocket>
#include <QThread>

namespace apitest {

namespace req = pxproto::request;
namespace code = pxproto::access;

std::ostream& operator<<(std::ostream& out, const Access& access)
{
    static const char* const kinds[] = {"read", "block read", "write"};
    return out << kinds[access.kind] << " code 0x" << std::hex << int(access.code) << " at 0x"
               << access.address << std::dec << " of " << access.size << " byte(s)";
}

Access read(quint32 address, quint32 size)
{
    const unsigned char c = size == 1 ? code::Read8 : size == 2 ? code::Read16 : code::Read32;
    if (size == 1 || size == 2 || size == 4)
        return {Access::Read, c, address, size};
    return {Access::BlockRead, code::BlockRead, address, size};
}

Access write(quint32 address, quint32 size)
{
    return {Access::Write, pxproto::writeAccessCode(int(size), false), address, size};
}

// The memory request a frame carries, if any.
static bool decode(const QByteArray& frame, Access* access)
{
    const auto* p = reinterpret_cast<const unsigned char*>(frame.constData());
    const int length = pxproto::payloadLength(frame);
    const unsigned char flow = pxproto::flowId(frame);
    if (flow == req::BlockRead && length == pxproto::BlockReadLength)
        *access = {Access::BlockRead, p[4], pxproto::getLe32(p + 5), pxproto::getLe32(p + 9)};
    else if (flow == req::Read && length == pxproto::SingleReadLength && p[4] < 0x80)
        *access = {Access::Read, p[4], pxproto::getLe32(p + 5),
                   p[4] == code::Read16   ? 2u
                   : p[4] == code::Read32 ? 4u
                                          : 1u};
    else if (flow == req::Write && length >= pxproto::SingleReadLength && p[4] >= 0x80)
        *access = {Access::Write, p[4], pxproto::getLe32(p + 5), quint32(length - 5)};
    else
        return false;
    return true;
}

unsigned char patternByte(quint32 address)
{
    return static_cast<unsigned char>(address * 7u + 3u);
}

MemoryServer::MemoryServer()
{
    server.setResponder(
        [this](FakeServer&, int client, const QByteArray& frame) { respond(client, frame); });
}

void MemoryServer::setStatus(int status)
{
    std::lock_guard<std::mutex> lock(mutex);
    statusByte = status;
}

void MemoryServer::poison(quint32 address)
{
    std::lock_guard<std::mutex> lock(mutex);
    poisoned.insert(address);
}

QList<Access> MemoryServer::accesses() const
{
    QList<Access> out;
    Access a;
    for (const QByteArray& frame : server.frames()) {
        if (decode(frame, &a))
            out.append(a);
    }
    return out;
}

void MemoryServer::respond(int client, const QByteArray& frame)
{
    Access a;
    std::unique_lock<std::mutex> lock(mutex);
    if (!decode(frame, &a)) {
        const unsigned char flow = pxproto::flowId(frame);
        const int status = statusByte;
        lock.unlock();
        if (flow == req::Ping)
            server.send(pxproto::pingReply(), client);
        else if (flow == req::Status && status >= 0)
            server.send(pxproto::statusReply(static_cast<unsigned char>(status)), client);
        else if (flow == req::ForceReconnect)
            server.send(pxproto::completion(), client);
        return;
    }
    const auto p = poisoned.lower_bound(a.address);
    const bool bad = p != poisoned.end() && *p - a.address < a.size;
    if (a.kind == Access::Write) {
        for (quint32 i = 0; i < a.size && !bad; ++i)
            written[a.address + i] = static_cast<unsigned char>(frame[int(9 + i)]);
        lock.unlock();
        if (!bad)
            server.send(pxproto::writeAck(), client);
        return;
    }
    QByteArray data(int(a.size), Qt::Uninitialized);
    for (quint32 i = 0; i < a.size; ++i) {
        const auto it = written.find(a.address + i);
        data[int(i)] = char(it != written.end() ? it->second : patternByte(a.address + i));
    }
    lock.unlock();
    if (bad) {
        server.send(pxproto::readData(a.address + 1, data.constData(), 1), client);
        return;
    }
    // Larger reads come back in several frames, as a real server sends them.
    for (int offset = 0; offset < data.size(); offset += 4096) {
        const int n = qMin(4096, int(data.size()) - offset);
        server.send(pxproto::readData(a.address + quint32(offset), data.constData() + offset, n),
                    client);
    }
}

QByteArray writeLines(const QString& path, const QStringList& lines)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        for (const QString& line : lines)
            file.write(line.toLatin1() + '\n');
    }
    return path.toLocal8Bit();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeStandIn(const QString& folder, bool runServer)
{
    const QString record = folder + QStringLiteral("/arguments.txt");
    QStringList script{"#!/bin/sh", QStringLiteral("printf '%s\\n' \"$@\" > '%1.part'").arg(record),
                       QStringLiteral("mv '%1.part' '%1'").arg(record)};
    if (runServer)
        script << QStringLiteral("exec '%1/pellix' \"$@\"").arg(SimulatorProcess::binaryFolder());
    const QString path = folder + QStringLiteral("/pellix");
    writeLines(path, script);
    return QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

QStringList standInArguments(const QString& folder)
{
    return QString::fromLocal8Bit(readFile(folder + QStringLiteral("/arguments.txt")))
        .split('\n', Qt::SkipEmptyParts);
}

bool waitUntilNothingListens(quint16 port)
{
    const QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired()) {
        QTcpSocket probe;
        probe.connectToHost(QStringLiteral("127.0.0.1"), port);
        if (!probe.waitForConnected(1000))
            return true;
        probe.abort();
        QThread::msleep(20);
    }
    return false;
}

} // namespace apitest
