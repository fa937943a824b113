#ifndef PELLIX_PXTOOLIMAGE_H
#define PELLIX_PXTOOLIMAGE_H

// Firmware images as pxtool reads and writes them: runs of bytes at 32-bit addresses, read
// strictly from LOD files (and the other formats of PXToolFormats), and the writers that
// stream them out piece by piece.

#include "PXToolFiles.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace pxtool {

struct Segment
{
    std::uint32_t address = 0;
    std::vector<std::uint8_t> bytes;
};

struct Image
{
    std::vector<Segment> segments;
    // What the reader left out and why, one line each ("line 9: packet at 0xF0000000 ...").
    std::vector<std::string> skipped;

    std::uint64_t size() const;
};

// What is wrong with a file: the line (0 when not about one line) and the problem.
struct FileProblem
{
    std::size_t line = 0;
    std::string what;
};

// The LOD packet address that loads and verifications skip.
constexpr std::uint32_t SkippedLodAddress = 0xF0000000u;

// Reads LOD text strictly: every line is blank, a "#" comment, "@" and an address, or a word,
// each of 1 to 8 hexadecimal digits (an optional 0x), with surrounding blanks allowed. Anything
// else, a word outside a packet, a packet past 4 GiB, an over-long line or a file without
// words is a problem. Packets at 0xF0000000 are left out and listed in `skipped`.
bool readLodStrict(const std::vector<std::uint8_t>& content, Image* image, FileProblem* problem);

// "this looks like Intel HEX" and the like for content that is plainly another format, else "".
std::string formatHint(const std::vector<std::uint8_t>& content);

// Streams an image out: segment() starts a run at an address, bytes() continues it.
class ImageWriter
{
public:
    virtual ~ImageWriter() = default;
    virtual int segment(std::uint32_t address) = 0;
    virtual int bytes(const std::uint8_t* data, std::size_t size) = 0;
    virtual int finish() { return ExitOk; }
};

// LOD text: "@%08X" per segment and one "%08X" line per little-endian word; a tail of fewer
// than four bytes is padded with zeros.
std::unique_ptr<ImageWriter> lodWriter(OutputFile& output);
// Raw bytes; a later segment above the end of the previous one is reached by 0xFF filling.
std::unique_ptr<ImageWriter> binaryWriter(OutputFile& output);

} // namespace pxtool

#endif
