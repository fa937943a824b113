// pxtool's firmware readers on arbitrary contents: strict LOD, Intel HEX, S-records and ELF.
// A read that succeeds must give segments inside the 32-bit address space; a read that fails
// must say why. Nothing may crash, hang or read outside the input.

#include "PXToolFormats.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size > (1 << 20))
        return 0;
    const std::vector<std::uint8_t> content(data, data + size);
    for (const pxtool::Format format : {pxtool::Format::Lod, pxtool::Format::IntelHex,
                                        pxtool::Format::SRecord, pxtool::Format::Elf}) {
        pxtool::Image image;
        pxtool::FileProblem problem;
        const bool read = pxtool::readFormat(format, content, &image, &problem);
        if (!read && problem.what.empty())
            std::abort();
        for (const pxtool::Segment& segment : image.segments)
            if (read && segment.address + std::uint64_t(segment.bytes.size()) > 0x100000000ull)
                std::abort();
    }
    pxtool::detectFormat(content);
    return 0;
}
