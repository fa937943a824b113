#ifndef PELLIX_PXLINKPACKET_H
#define PELLIX_PXLINKPACKET_H

#include "pellix/protocol/PXParser.h"

#include <QByteArray>

// What both ends of the debug link agree on, beside the library's framing: the flows and the
// size of a reply, and how a packet is taken from the link's parser.
namespace pxlink {

// Commands to the chip and their replies.
constexpr unsigned char CommandFlow = 0xFF;
// Events from the chip: four bytes, the identifier little-endian.
constexpr unsigned char EventFlow = 0xFE;
// A reply: 0xAD, length, flow 0xFF, command 0, four data bytes, checksum.
constexpr int ReplySize = 10;

// The next whole packet that `parser` holds, or an empty array. Nothing on the link nests
// packets, so a packet that an escaped stream's parser holds back waiting for nested data is
// complete.
inline QByteArray nextPacket(PXParser& parser)
{
    QByteArray packet = parser.getPacket(false);
    if (packet.isEmpty() && parser.isNestedWaiting())
        packet = parser.getPacket(true);
    return packet;
}

} // namespace pxlink

#endif
