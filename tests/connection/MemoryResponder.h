#ifndef PELLIX_TESTS_MEMORYRESPONDER_H
#define PELLIX_TESTS_MEMORYRESPONDER_H

// A fake target for FakeServer: every reply tells which request it answers.

#include "FakeServer.h"

#include "pellix/protocol/PXProtocol.h"

// The byte a fake target holds at `address`: every reply tells which request it answers.
inline unsigned char patternAt(quint32 address)
{
    return static_cast<unsigned char>((address * 31u + (address >> 8)) & 0xFF);
}

// A small target: reads answered from patternAt (block reads in two frames), writes and pings
// acknowledged, status byte 1.
inline void memoryResponder(FakeServer& server, int client, const QByteArray& frame)
{
    const auto* p = reinterpret_cast<const unsigned char*>(frame.constData());
    switch (pxproto::flowId(frame)) {
    case pxproto::request::Read: { // also writes: same flow id, write codes from 0x80 on
        if (p[4] >= pxproto::access::Write8) {
            server.send(pxproto::writeAck(), client);
            break;
        }
        const quint32 address = pxproto::getLe32(p + 5);
        const int size = p[4] == pxproto::access::Read8 || p[4] == pxproto::access::ReadInternal
                             ? 1
                             : (p[4] == pxproto::access::Read16 ? 2 : 4);
        QByteArray data;
        for (int i = 0; i < size; ++i)
            data.append(char(patternAt(address + quint32(i))));
        server.send(pxproto::readData(address, data.constData(), size), client);
        break;
    }
    case pxproto::request::BlockRead: {
        const quint32 address = pxproto::getLe32(p + 5);
        const int count = int(pxproto::getLe32(p + 9));
        QByteArray data;
        for (int i = 0; i < count; ++i)
            data.append(char(patternAt(address + quint32(i))));
        const int half = count / 2;
        server.send(
            pxproto::readData(address, data.constData(), half) +
                pxproto::readData(address + quint32(half), data.constData() + half, count - half),
            client);
        break;
    }
    case pxproto::request::Ping:
        server.send(pxproto::pingReply(), client);
        break;
    case pxproto::request::Status:
        server.send(pxproto::statusReply(1), client);
        break;
    default:
        break;
    }
}

#endif
