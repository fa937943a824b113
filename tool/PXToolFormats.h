#ifndef PELLIX_PXTOOLFORMATS_H
#define PELLIX_PXTOOLFORMATS_H

// The firmware formats besides LOD: which one a file is, how to read it strictly into an
// image, how to write an image in it.

#include "PXToolImage.h"

namespace pxtool {

enum class Format { Lod, IntelHex, SRecord, Elf, Binary };

// By content: ELF magic, a ':' record, an 'S' record, NUL bytes (binary), else LOD text.
Format detectFormat(const std::vector<std::uint8_t>& content);
// "lod", "hex"/"ihex", "srec", "elf", "binary"/"bin".
bool parseFormatName(const std::string& name, Format* format);
// By a file name's extension (.lod, .hex, .ihex, .srec, .s19, .s28, .s37, .mot, .bin, .elf).
bool formatFromExtension(const std::string& path, Format* format);
const char* formatName(Format format);

// Reads `content` in a format other than binary. ELF gives its loadable segments at their
// physical addresses; HEX and S-records must end with their end record, every checksum right.
bool readFormat(Format format, const std::vector<std::uint8_t>& content, Image* image,
                FileProblem* problem);

// A streaming writer for LOD, Intel HEX, S-records or binary (ELF is not written).
std::unique_ptr<ImageWriter> formatWriter(Format format, OutputFile& output);

} // namespace pxtool

#endif
