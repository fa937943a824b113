#ifndef PELLIX_PXSIMIMAGE_H
#define PELLIX_PXSIMIMAGE_H

#include <QString>

class PXSimMemory;

// Loads a LOD text file into the simulated memory before the server starts.
//
// Format: an "@ADDRESS" line (hexadecimal) starts a packet; each following line is one 32-bit
// word in hexadecimal, stored little-endian at consecutive 4-byte addresses; lines starting
// with "#" are comments; a blank line or the next address line ends the packet. A data line
// outside a packet makes the file invalid. Packets at 0xF0000000 are skipped, as a download
// skips them. Numbers read like strtoul with base 16 (optional 0x, stops at the first
// non-digit, low 32 bits kept).
//
// Returns false with a message in `error` when the file cannot be read or is invalid; the
// packets before the bad line stay loaded.
bool loadLodImage(const QString& path, PXSimMemory& memory, QString* error);

#endif
