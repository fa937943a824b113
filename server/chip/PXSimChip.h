#ifndef PELLIX_PXSIMCHIP_H
#define PELLIX_PXSIMCHIP_H

#include "PXSimMemory.h"

#include <QByteArray>

// The simulated chip: a sparse 4 GiB memory, a separate internal space, an event register and
// the echo of bypass packets. The server's simulated back end answers its clients from one,
// and pellix-target serves one at the far end of a debug link, so both behave alike.
//
// Thread safety: none; used from one thread.
class PXSimChip
{
public:
    static constexpr quint32 DefaultEventRegister = 0xFFFFFF00u;

    explicit PXSimChip(quint32 eventRegisterAddress = DefaultEventRegister)
        : eventRegister(eventRegisterAddress)
    {}

    PXSimMemory& memory() { return mainMemory; }

    // Copies `size` bytes from `address` upwards, from the internal space or from memory.
    void read(bool internal, quint32 address, void* out, quint32 size) const
    {
        (internal ? internalMemory : mainMemory).read(address, out, size);
    }

    // Stores `size` bytes at `address` upwards. A memory write that covers all four bytes of
    // the event register raises the event whose identifier is the value written there: then
    // true, with the identifier in *event.
    bool write(bool internal, quint32 address, const void* data, quint32 size, quint32* event);

    // The chip's answer to a bypass packet on `flow`: the same data on the same flow, as a
    // debug packet with a checksum of its own.
    static QByteArray echo(unsigned char flow, const void* data, int size);

private:
    PXSimMemory mainMemory;
    PXSimMemory internalMemory;
    quint32 eventRegister;
};

#endif
