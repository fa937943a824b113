#ifndef PELLIX_LODCOUNT_P_H
#define PELLIX_LODCOUNT_P_H

// Library-internal: counting a LOD file's words without holding them.

#include <cstdint>

namespace pxlod {

// What a walk of a whole LOD file found: the words of every packet, apart from the packets at
// `skippedAddress`, up to the end of the file or the first data line outside a packet. Reads
// the file once, by the same rules as LOD_NextLodPacket, and allocates no word array. False
// if the file cannot be opened.
bool countWords(const char* path, uint32_t skippedAddress, uint64_t* words);

} // namespace pxlod

#endif
