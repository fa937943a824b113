#ifndef PELLIX_PXPROTOCOL_H
#define PELLIX_PXPROTOCOL_H

// The target's debug packets: their checksum, the encoders of the debug commands and the
// escaping of a serial line with software flow control.
//
// Debug packet (the target's debug link; it also rides inside the server's bypass frames):
//
//   offset 0          1 byte    start byte 0xAD
//   offset 1          2 bytes   length L = flow id + data bytes, big-endian
//   offset 3          1 byte    flow id (0xFF for debug read/write commands)
//   offset 4          L-1 bytes data
//   offset L + 3      1 byte    XOR of the L bytes from offset 3 (CalcHostCrc)

#include "pellix/pellix_export.h"

#include <QByteArray>

// XOR of `size` bytes, starting from 0 (0 for no bytes). The checksum of debug packets.
PELLIX_EXPORT unsigned char CalcHostCrc(const void* data, unsigned long size);

// Debug command packets (0xAD framing, flow 0xFF, closed by CalcHostCrc). Each returns the
// complete packet. In the read encoders the one-byte argument lands at offset 9, after the
// address; the library gives it no meaning.
PELLIX_EXPORT QByteArray FormatReadi8(unsigned char arg, unsigned int address);
PELLIX_EXPORT QByteArray FormatRead8(unsigned char arg, unsigned int address);
PELLIX_EXPORT QByteArray FormatRead16(unsigned char arg, unsigned int address);
PELLIX_EXPORT QByteArray FormatRead32(unsigned char arg, unsigned int address);
PELLIX_EXPORT QByteArray FormatRead(unsigned char arg, unsigned char command, unsigned int address);
PELLIX_EXPORT QByteArray FormatWritei8(unsigned int address, unsigned char value);
PELLIX_EXPORT QByteArray FormatWrite8(unsigned int address, unsigned char value);
PELLIX_EXPORT QByteArray FormatWrite16(unsigned int address, unsigned short value);
PELLIX_EXPORT QByteArray FormatWrite32(unsigned int address, unsigned int value);
// The caller keeps data at 65529 bytes or fewer (the 16-bit length field).
PELLIX_EXPORT QByteArray FormatWriteBlock(unsigned int address, const QByteArray& data);

// XON/XOFF escaping for a serial line with software flow control: 0x11, 0x13 and 0x5C become
// 0x5C followed by the byte XOR 0xFF; every other byte passes unchanged.
PELLIX_EXPORT QByteArray EscapeXonXoff(const QByteArray& data);

#endif
