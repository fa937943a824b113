#include "PXSimChip.h"

#include "pellix/protocol/PXFrames_p.h"

bool PXSimChip::write(bool internal, quint32 address, const void* data, quint32 size,
                      quint32* event)
{
    if (internal) {
        internalMemory.write(address, data, size);
        return false;
    }
    mainMemory.write(address, data, size);
    const quint32 offset = eventRegister - address;
    if (size < 4 || offset > size - 4)
        return false;
    *event = pxproto::getLe32(static_cast<const unsigned char*>(data) + offset);
    return true;
}

QByteArray PXSimChip::echo(unsigned char flow, const void* data, int size)
{
    return pxproto::debugPacket(flow, data, size);
}
