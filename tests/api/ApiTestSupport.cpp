#include "ApiTestSupport.h"

#include "pellix/protocol/PXProtocol.h"

#include <QFile>

namespace apitest {

namespace req = pxproto::request;
namespace code = pxproto::access;

std::ostream& operator<<(std::ostream& out, const Access& access)
{
    static const char* const kinds[] = {"read", "block read", "internal read", "write"};
    return out << kinds[access.kind] << " code 0x" << std::hex << int(access.code) << " at 0x"
               << access.address << std::dec << " of " << access.size << " byte(s)";
}

Access read(quint32 address, quint32 size)
{
    switch (size) {
    case 1:
        return {Access::Read, code::Read8, address, 1};
    case 2:
        return {Access::Read, code::Read16, address, 2};
    case 4:
        return {Access::Read, code::Read32, address, 4};
    default:
        return {Access::BlockRead, code::BlockRead, address, size};
    }
}

Access write(quint32 address, quint32 size)
{
    return {Access::Write, pxproto::writeAccessCode(int(size), false), address, size};
}

QList<Access> accesses(const QList<QByteArray>& frames)
{
    QList<Access> out;
    for (const QByteArray& frame : frames) {
        const auto* p = reinterpret_cast<const unsigned char*>(frame.constData());
        const int length = pxproto::payloadLength(frame);
        const unsigned char flow = pxproto::flowId(frame);
        if (flow == req::BlockRead && length == pxproto::BlockReadLength) {
            out.append({Access::BlockRead, p[4], pxproto::getLe32(p + 5), pxproto::getLe32(p + 9)});
        } else if (flow == req::Read && length == pxproto::SingleReadLength && p[4] < 0x80) {
            const unsigned char c = p[4];
            const quint32 size = c == code::Read16 ? 2 : c == code::Read32 ? 4 : 1;
            out.append({c == code::ReadInternal ? Access::InternalRead : Access::Read, c,
                        pxproto::getLe32(p + 5), size});
        } else if (flow == req::Write && length >= pxproto::SingleReadLength && p[4] >= 0x80) {
            out.append({Access::Write, p[4], pxproto::getLe32(p + 5), quint32(length - 5)});
        }
    }
    return out;
}

unsigned char patternByte(quint32 address)
{
    return static_cast<unsigned char>(address * 7u + 3u);
}

MemoryServer::MemoryServer()
{
    server.setResponder([this](FakeServer& fake, int client, const QByteArray& frame) {
        respond(fake, client, frame);
    });
}

void MemoryServer::setStatusByte(unsigned char status)
{
    std::lock_guard<std::mutex> lock(mutex);
    statusByte = status;
}

void MemoryServer::setStatusSilent(bool silent)
{
    std::lock_guard<std::mutex> lock(mutex);
    statusSilent = silent;
}

void MemoryServer::poison(quint32 address)
{
    std::lock_guard<std::mutex> lock(mutex);
    poisoned.insert(address);
}

unsigned char MemoryServer::byteAt(quint32 address) const
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = written.find(address);
    return it != written.end() ? it->second : patternByte(address);
}

bool MemoryServer::touchesPoison(quint32 address, quint32 size) const
{
    const auto it = poisoned.lower_bound(address);
    return it != poisoned.end() && *it - address < size;
}

QByteArray MemoryServer::readMemory(quint32 address, quint32 size) const
{
    QByteArray bytes(int(size), Qt::Uninitialized);
    for (quint32 i = 0; i < size; ++i) {
        const auto it = written.find(address + i);
        bytes[int(i)] = char(it != written.end() ? it->second : patternByte(address + i));
    }
    return bytes;
}

void MemoryServer::respond(FakeServer& fake, int client, const QByteArray& frame)
{
    const QList<Access> request = apitest::accesses({frame});
    std::unique_lock<std::mutex> lock(mutex);
    if (!request.isEmpty()) {
        const Access& a = request.first();
        const bool bad = touchesPoison(a.address, a.size);
        if (a.kind == Access::Write) {
            if (bad)
                return;
            for (quint32 i = 0; i < a.size; ++i)
                written[a.address + i] = static_cast<unsigned char>(frame[int(9 + i)]);
            lock.unlock();
            fake.send(pxproto::writeAck(), client);
            return;
        }
        const QByteArray data = readMemory(a.address, a.size);
        lock.unlock();
        if (bad) {
            fake.send(pxproto::readData(a.address + 1, data.constData(), 1), client);
            return;
        }
        // Larger reads come back in several frames, as a real server sends them.
        constexpr int Piece = 4096;
        for (int offset = 0; offset < data.size(); offset += Piece) {
            const int n = qMin(Piece, int(data.size()) - offset);
            fake.send(pxproto::readData(a.address + quint32(offset), data.constData() + offset, n),
                      client);
        }
        return;
    }
    switch (pxproto::flowId(frame)) {
    case req::Ping:
        lock.unlock();
        fake.send(pxproto::pingReply(), client);
        break;
    case req::Status:
        if (!statusSilent) {
            const unsigned char status = statusByte;
            lock.unlock();
            fake.send(pxproto::statusReply(status), client);
        }
        break;
    case req::ForceReconnect:
        lock.unlock();
        fake.send(pxproto::completion(), client);
        break;
    default:
        break;
    }
}

QString writeLines(const QString& path, const QStringList& lines)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        for (const QString& line : lines)
            file.write(line.toLatin1() + '\n');
    }
    return path;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace apitest
