#ifndef PELLIX_LODFILELOADER_H
#define PELLIX_LODFILELOADER_H

/* Reading and writing LOD firmware files.
 *
 * A LOD file is text made of packets: an address line "@<hex>" followed by one line per
 * 32-bit word, in hexadecimal, to be placed from that address upwards. Blank lines end a
 * packet; lines starting with '#' are comments. Lines end with LF or CR LF; of a longer line
 * only the first 1026 characters count.
 *
 * Numbers read like strtoul(text, NULL, 16) on x86-64 (64-bit unsigned long): leading white
 * space (space, \t, \n, \v, \f, \r) is skipped, an optional sign and 0x/0X prefix are taken,
 * reading stops at the first non-hex character, and the low 32 bits of the result are kept.
 * A value too large for 64 bits saturates to all ones, so such a line reads as 0xFFFFFFFF.
 *
 * Thread safety: the functions keep no shared state. A LodFile and any stream passed in
 * belong to one thread at a time.
 *
 * The part below compiles as C99; the functions with C++ linkage follow under __cplusplus. */

#include "pellix/pellix_export.h"

#include <stdint.h>
#include <stdio.h>

/* One packet: wordCount words for consecutive 32-bit addresses from address upwards. */
typedef struct LodPacket
{
    uint32_t address;
    int32_t wordCount; /* never negative when made by the reader */
    uint32_t* words;   /* wordCount words owned by the packet; NULL when wordCount is 0 */
} LodPacket;

/* An open LOD file, given out by LOD_Open. Owns the stream. */
typedef struct LodFile
{
    FILE* file;
} LodFile;

#ifdef __cplusplus
extern "C" {
#endif

/* Opens the file at path for reading (binary mode). Returns the new record, or NULL if the
 * file cannot be opened or memory is short. Does not block beyond the open itself. */
PELLIX_EXPORT LodFile* LOD_Open(const char* path);

/* Closes the stream of a record from LOD_Open and frees the record. NULL does nothing. */
PELLIX_EXPORT void LOD_Close(LodFile* lodFile);

/* Reads the next packet of the file into *packet (the caller frees it with
 * LOD_FreeLodPacket). Results:
 *   0  with *packet set: a packet was read;
 *   0  with *packet NULL: no more packets (end of file; also when memory is short);
 *   1  with *packet NULL: a data line stands outside a packet; the file is not usable past it.
 * Blank and comment lines between packets are skipped. Between calls the stream stands at
 * the start of the line after the last word read. Blocks only on file reads. */
PELLIX_EXPORT int LOD_NextLodPacket(LodFile* lodFile, LodPacket** packet);

/* Frees a packet and its words. packet must not be NULL. */
PELLIX_EXPORT void LOD_FreeLodPacket(LodPacket* packet);

#ifdef __cplusplus
}

/* Makes a packet with the given address and word count; the words are left uninitialised
 * (words is NULL for a count of 0). Returns NULL if memory is short. Free it with
 * LOD_FreeLodPacket. */
PELLIX_EXPORT LodPacket* LOD_AllocateLodPacket(unsigned int address, unsigned int wordCount);

/* Writes the packet as LOD text: "@%08X\n" with the address, then "%08X\n" per word.
 * A wordCount of 0 or less writes the address line alone. Write errors are not reported. */
PELLIX_EXPORT void LOD_DumpPacketLodFormat(FILE* stream, LodPacket* packet);

/* Writes the packet's words as raw 4-byte values in the machine's byte order, nothing else.
 * A wordCount of 0 or less writes nothing. Write errors are not reported. */
PELLIX_EXPORT void LOD_DumpPacketBinaryFormat(FILE* stream, LodPacket* packet);

/* Reads one line into buffer (size bytes) without its LF or CR LF end. A line longer than
 * size - 1 characters is cut there and the rest of it is skipped. Returns buffer, or NULL at
 * the end of the file. */
PELLIX_EXPORT char* fgetl(char* buffer, int size, FILE* stream);

/* Counts the words of the packet whose lines start at the stream's position: the lines up
 * to the next blank line, address line or end of file, comments left out. The stream is
 * moved back to where it stood. */
PELLIX_EXPORT int countPacketWords(FILE* stream);

#endif /* __cplusplus */

#endif
