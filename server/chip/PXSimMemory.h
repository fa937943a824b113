#ifndef PELLIX_PXSIMMEMORY_H
#define PELLIX_PXSIMMEMORY_H

#include <QtGlobal>

#include <memory>
#include <unordered_map>

// A sparse byte-addressed 4 GiB address space. Storage exists only for the 4 KiB pages that
// have been written; every other byte reads as 0. Addresses wrap at 4 GiB, so a range that
// runs past 0xFFFFFFFF continues at 0.
//
// Thread safety: none; the simulator uses it from its one (main) thread.
class PXSimMemory
{
public:
    static constexpr int PageBits = 12;
    static constexpr quint32 PageSize = 1u << PageBits;

    // Copies `size` bytes from `address` upwards into `out`.
    void read(quint32 address, void* out, quint32 size) const;

    // Stores `size` bytes from `data` at `address` upwards, creating pages as needed.
    void write(quint32 address, const void* data, quint32 size);

    // Number of pages that hold storage.
    size_t pageCount() const { return pages.size(); }

    // Drops every page: the whole space reads 0 again.
    void clear() { pages.clear(); }

private:
    using Page = std::unique_ptr<unsigned char[]>;
    std::unordered_map<quint32, Page> pages;
};

#endif
