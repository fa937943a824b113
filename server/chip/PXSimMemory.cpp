#include "PXSimMemory.h"

#include <algorithm>
#include <cstring>

void PXSimMemory::read(quint32 address, void* out, quint32 size) const
{
    auto* dst = static_cast<unsigned char*>(out);
    while (size > 0) {
        const quint32 offset = address & (PageSize - 1);
        const quint32 n = std::min(size, PageSize - offset);
        const auto found = pages.find(address >> PageBits);
        if (found == pages.end())
            std::memset(dst, 0, n);
        else
            std::memcpy(dst, found->second.get() + offset, n);
        dst += n;
        size -= n;
        address += n;
    }
}

void PXSimMemory::write(quint32 address, const void* data, quint32 size)
{
    const auto* src = static_cast<const unsigned char*>(data);
    while (size > 0) {
        const quint32 offset = address & (PageSize - 1);
        const quint32 n = std::min(size, PageSize - offset);
        Page& page = pages[address >> PageBits];
        if (!page) {
            page.reset(new unsigned char[PageSize]);
            std::memset(page.get(), 0, PageSize);
        }
        std::memcpy(page.get() + offset, src, n);
        src += n;
        size -= n;
        address += n;
    }
}
