#include "PXChipLink.h"

#include "PXLinkPacket.h"

#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXProtocol.h"

namespace {

// The reply to a command: command byte 0 and four data bytes (a read's value, zero-filled).
QByteArray reply(const unsigned char* value, int size)
{
    unsigned char data[5] = {0, 0, 0, 0, 0};
    for (int i = 0; i < size; ++i)
        data[1 + i] = value[i];
    return pxproto::debugPacket(pxlink::CommandFlow, data, 5);
}

} // namespace

PXChipLink::PXChipLink(PXSimChip& simChip, bool escaped)
    : chip(simChip), parser(escaped ? PXParser::EscapedDebugStream : PXParser::DebugPackets),
      escape(escaped)
{}

QByteArray PXChipLink::feed(const QByteArray& bytes)
{
    parser.feedData(bytes);
    QByteArray out;
    for (QByteArray packet = pxlink::nextPacket(parser); !packet.isEmpty();
         packet = pxlink::nextPacket(parser))
        out.append(answer(packet));
    return escape ? EscapeXonXoff(out) : out;
}

QByteArray PXChipLink::answer(const QByteArray& packet)
{
    const auto* p = reinterpret_cast<const unsigned char*>(packet.constData());
    const int size = int(packet.size());
    if (size < 5)
        return QByteArray();
    if (p[3] != pxlink::CommandFlow)
        return PXSimChip::echo(p[3], p + 4, size - 5);
    if (size < 10 || CalcHostCrc(p + 3, static_cast<unsigned long>(size - 4)) != p[size - 1]) {
        ++ignoredCount;
        return QByteArray();
    }
    ++commandCount;
    return command(p, size);
}

// p: 0xAD, length, 0xFF, command, address (4 bytes), then the argument bytes and the checksum.
QByteArray PXChipLink::command(const unsigned char* p, int size)
{
    const unsigned char code = p[4];
    const quint32 address = pxproto::getLe32(p + 5);
    const unsigned char* argument = p + 9;
    const int argumentSize = size - 10;
    unsigned char value[4];
    switch (code) {
    case pxproto::access::Read8:
    case pxproto::access::Read16:
    case pxproto::access::Read32:
    case pxproto::access::ReadInternal: {
        const int width = code == pxproto::access::Read16   ? 2
                          : code == pxproto::access::Read32 ? 4
                                                            : 1;
        chip.read(code == pxproto::access::ReadInternal, address, value, quint32(width));
        return reply(value, width);
    }
    case pxproto::access::Write8:
    case pxproto::access::Write16:
    case pxproto::access::Write32:
    case pxproto::access::WriteBlock:
    case pxproto::access::WriteInternal: {
        quint32 event = 0;
        const bool raised = chip.write(code == pxproto::access::WriteInternal, address, argument,
                                       quint32(argumentSize), &event);
        QByteArray out = reply(value, 0);
        if (raised) {
            unsigned char id[4];
            pxproto::putLe32(id, event);
            out.append(pxproto::debugPacket(pxlink::EventFlow, id, 4));
        }
        return out;
    }
    default:
        ++ignoredCount;
        return QByteArray();
    }
}
