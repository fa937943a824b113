// Intel HEX, Motorola S-records and ELF: detection, strict readers and streaming writers.
// ELF goes through libelf; the two text formats are read here, record by record with their
// checksums, because the distribution's S-record library ships without the header of its
// S-record reader and ends the process on a bad record.

#include "PXToolFormats.h"

#include <gelf.h>
#include <libelf.h>

#include <cstring>

namespace pxtool {

namespace {

int hexValue(char c)
{
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

// Hex digit pairs of `text` from `from` on, as bytes; false on an odd count or a non-digit.
bool hexPairs(const std::string& text, std::size_t from, std::vector<std::uint8_t>* bytes)
{
    if ((text.size() - from) % 2 != 0)
        return false;
    bytes->clear();
    for (std::size_t i = from; i < text.size(); i += 2) {
        const int high = hexValue(text[i]), low = hexValue(text[i + 1]);
        if (high < 0 || low < 0)
            return false;
        bytes->push_back(std::uint8_t(high * 16 + low));
    }
    return true;
}

// Appends bytes at an address, extending the last segment when they follow it.
bool addBytes(Image* image, std::uint64_t address, const std::uint8_t* data, std::size_t size,
              std::string* problem)
{
    if (address + size > 0x100000000ull) {
        *problem = "data past the end of the 32-bit address space";
        return false;
    }
    if (size == 0)
        return true;
    Segment* last = image->segments.empty() ? nullptr : &image->segments.back();
    if (!last || last->address + std::uint64_t(last->bytes.size()) != address)
        image->segments.push_back(Segment{std::uint32_t(address), {}}),
            last = &image->segments.back();
    last->bytes.insert(last->bytes.end(), data, data + size);
    return true;
}

// Calls `record(line, text)` for each non-empty line (CR LF allowed); stops at a false.
template <typename Each>
bool eachLine(const std::vector<std::uint8_t>& content, FileProblem* problem, Each record)
{
    std::size_t start = 0;
    for (std::size_t number = 1; start < content.size(); ++number) {
        const void* newline = std::memchr(content.data() + start, '\n', content.size() - start);
        const std::size_t end =
            newline ? std::size_t(static_cast<const std::uint8_t*>(newline) - content.data())
                    : content.size();
        std::string line(reinterpret_cast<const char*>(content.data()) + start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        problem->line = number;
        if (!line.empty() && !record(line))
            return false;
    }
    problem->line = 0;
    return true;
}

bool readIntelHex(const std::vector<std::uint8_t>& content, Image* image, FileProblem* problem)
{
    std::uint64_t base = 0;
    bool ended = false;
    std::vector<std::uint8_t> bytes;
    const bool read = eachLine(content, problem, [&](const std::string& line) {
        if (ended)
            return (problem->what = "data after the end-of-file record", false);
        if (line[0] != ':' || !hexPairs(line, 1, &bytes) || bytes.size() < 5 ||
            bytes.size() != std::size_t(bytes[0]) + 5)
            return (problem->what = "not an Intel HEX record", false);
        std::uint8_t sum = 0;
        for (const std::uint8_t b : bytes)
            sum = std::uint8_t(sum + b);
        if (sum != 0)
            return (problem->what = "bad checksum", false);
        const std::uint8_t type = bytes[3];
        const std::uint32_t offset = std::uint32_t(bytes[1]) << 8 | bytes[2];
        const std::uint32_t value = bytes[0] >= 2 ? std::uint32_t(bytes[4]) << 8 | bytes[5] : 0;
        switch (type) {
        case 0:
            return addBytes(image, base + offset, bytes.data() + 4, bytes[0], &problem->what);
        case 1:
            ended = true;
            return true;
        case 2:
            base = std::uint64_t(value) << 4;
            return true;
        case 4:
            base = std::uint64_t(value) << 16;
            return true;
        case 3:
        case 5: // start addresses: nothing to load
            return true;
        default:
            return (problem->what = "unknown record type " + std::to_string(type), false);
        }
    });
    if (read && !ended)
        problem->what = "no end-of-file record (:00000001FF): the file is cut short";
    return read && ended;
}

bool readSRecords(const std::vector<std::uint8_t>& content, Image* image, FileProblem* problem)
{
    bool ended = false;
    std::vector<std::uint8_t> bytes;
    const bool read = eachLine(content, problem, [&](const std::string& line) {
        if (ended)
            return (problem->what = "data after the termination record", false);
        if (line.size() < 4 || line[0] != 'S' || hexValue(line[1]) < 0 || hexValue(line[1]) > 9 ||
            !hexPairs(line, 2, &bytes) || bytes.size() != std::size_t(bytes[0]) + 1)
            return (problem->what = "not an S-record", false);
        std::uint8_t sum = 0;
        for (const std::uint8_t b : bytes)
            sum = std::uint8_t(sum + b);
        if (sum != 0xFF)
            return (problem->what = "bad checksum", false);
        const int type = line[1] - '0';
        static const int addressBytes[] = {2, 2, 3, 4, 0, 2, 3, 4, 3, 2};
        const std::size_t width = std::size_t(addressBytes[type]);
        if (type == 4 || bytes.size() < width + 2)
            return (problem->what = "not an S-record", false);
        std::uint64_t address = 0;
        for (std::size_t i = 0; i < width; ++i)
            address = address << 8 | bytes[1 + i];
        if (type >= 1 && type <= 3)
            return addBytes(image, address, bytes.data() + 1 + width, bytes.size() - width - 2,
                            &problem->what);
        ended = ended || type >= 7;
        return true; // S0 header, S5/S6 counts, S7-S9 start addresses
    });
    if (read && !ended)
        problem->what = "no termination record (S7, S8 or S9): the file is cut short";
    return read && ended;
}

bool readElf(const std::vector<std::uint8_t>& content, Image* image, FileProblem* problem)
{
    elf_version(EV_CURRENT);
    // libelf reads the buffer in place and writes nothing to it.
    std::vector<std::uint8_t> copy(content);
    Elf* elf = elf_memory(reinterpret_cast<char*>(copy.data()), copy.size());
    std::size_t count = 0;
    bool ok = elf && elf_kind(elf) == ELF_K_ELF && elf_getphdrnum(elf, &count) == 0;
    if (!ok)
        problem->what = std::string("not a usable ELF file: ") + elf_errmsg(-1);
    std::vector<Segment> loaded;
    for (std::size_t i = 0; ok && i < count; ++i) {
        GElf_Phdr header;
        if (!gelf_getphdr(elf, int(i), &header)) {
            problem->what = std::string("bad program header: ") + elf_errmsg(-1);
            ok = false;
        } else if (header.p_type == PT_LOAD && header.p_filesz > 0) {
            if (header.p_offset > content.size() ||
                header.p_filesz > content.size() - header.p_offset) {
                problem->what = "a loadable segment lies outside the file";
                ok = false;
            } else {
                Image one;
                ok = addBytes(&one, header.p_paddr, content.data() + header.p_offset,
                              std::size_t(header.p_filesz), &problem->what);
                if (ok)
                    loaded.push_back(std::move(one.segments.front()));
            }
        }
    }
    if (elf)
        elf_end(elf);
    if (ok && loaded.empty()) {
        problem->what = "no loadable segment with data (an object file rather than a program?)";
        ok = false;
    }
    if (ok)
        image->segments = std::move(loaded);
    return ok;
}

class TextRecordWriter : public ImageWriter
{
public:
    TextRecordWriter(OutputFile& output, bool intel) : output(output), intel(intel) {}
    int segment(std::uint32_t address) override
    {
        if (const int status = flush())
            return status;
        next = address;
        return ExitOk;
    }
    int bytes(const std::uint8_t* data, std::size_t size) override
    {
        for (std::size_t i = 0; i < size; ++i) {
            pending.push_back(data[i]);
            if (pending.size() == RecordBytes || ((next + pending.size()) & 0xFFFF) == 0)
                if (const int status = flush())
                    return status;
        }
        return ExitOk;
    }
    int finish() override
    {
        if (const int status = flush())
            return status;
        return output.print("%s\n", intel ? ":00000001FF" : "S70500000000FA");
    }

private:
    static constexpr std::size_t RecordBytes = 32;

    // One record of `type` with the bytes given, checksum appended.
    int record(const char* lead, std::vector<std::uint8_t> bytes, bool twosComplement)
    {
        std::uint8_t sum = 0;
        for (const std::uint8_t b : bytes)
            sum = std::uint8_t(sum + b);
        bytes.push_back(twosComplement ? std::uint8_t(-sum) : std::uint8_t(~sum));
        std::string text = lead;
        char pair[3];
        for (const std::uint8_t b : bytes) {
            std::snprintf(pair, sizeof pair, "%02X", unsigned(b));
            text += pair;
        }
        text += '\n';
        return output.write(text.data(), text.size());
    }

    int flush()
    {
        if (pending.empty())
            return ExitOk;
        const std::uint32_t at = std::uint32_t(next);
        std::vector<std::uint8_t> bytes;
        int status = ExitOk;
        if (intel) {
            if (at >> 16 != upper || !upperWritten) {
                upper = at >> 16;
                upperWritten = true;
                status =
                    record(":", {2, 0, 0, 4, std::uint8_t(upper >> 8), std::uint8_t(upper)}, true);
            }
            bytes = {std::uint8_t(pending.size()), std::uint8_t(at >> 8), std::uint8_t(at), 0};
        } else {
            bytes = {std::uint8_t(pending.size() + 5), std::uint8_t(at >> 24),
                     std::uint8_t(at >> 16), std::uint8_t(at >> 8), std::uint8_t(at)};
        }
        bytes.insert(bytes.end(), pending.begin(), pending.end());
        if (!status)
            status = record(intel ? ":" : "S3", bytes, intel);
        next += pending.size();
        pending.clear();
        return status;
    }

    OutputFile& output;
    bool intel;
    std::uint64_t next = 0;
    std::uint32_t upper = 0;
    bool upperWritten = false;
    std::vector<std::uint8_t> pending;
};

} // namespace

bool readFormat(Format format, const std::vector<std::uint8_t>& content, Image* image,
                FileProblem* problem)
{
    switch (format) {
    case Format::IntelHex:
        return readIntelHex(content, image, problem);
    case Format::SRecord:
        return readSRecords(content, image, problem);
    case Format::Elf:
        return readElf(content, image, problem);
    default:
        return readLodStrict(content, image, problem);
    }
}

Format detectFormat(const std::vector<std::uint8_t>& content)
{
    const std::string hint = formatHint(content);
    return hint.find("ELF") != std::string::npos         ? Format::Elf
           : hint.find("Intel HEX") != std::string::npos ? Format::IntelHex
           : hint.find("S-record") != std::string::npos  ? Format::SRecord
           : hint.find("binary") != std::string::npos    ? Format::Binary
                                                         : Format::Lod;
}

bool parseFormatName(const std::string& name, Format* format)
{
    static const std::pair<const char*, Format> names[] = {
        {"lod", Format::Lod},      {"hex", Format::IntelHex}, {"ihex", Format::IntelHex},
        {"srec", Format::SRecord}, {"elf", Format::Elf},      {"binary", Format::Binary},
        {"bin", Format::Binary},
    };
    for (const auto& [text, value] : names) {
        if (name == text) {
            *format = value;
            return true;
        }
    }
    return false;
}

bool formatFromExtension(const std::string& path, Format* format)
{
    const std::size_t dot = path.rfind('.');
    const std::string extension = dot == std::string::npos ? "" : path.substr(dot + 1);
    if (extension == "s19" || extension == "s28" || extension == "s37" || extension == "mot") {
        *format = Format::SRecord;
        return true;
    }
    return parseFormatName(extension, format);
}

const char* formatName(Format format)
{
    static const char* const names[] = {"LOD", "Intel HEX", "S-record", "ELF", "binary"};
    return names[int(format)];
}

std::unique_ptr<ImageWriter> formatWriter(Format format, OutputFile& output)
{
    switch (format) {
    case Format::IntelHex:
    case Format::SRecord:
        return std::make_unique<TextRecordWriter>(output, format == Format::IntelHex);
    case Format::Binary:
        return binaryWriter(output);
    default:
        return lodWriter(output);
    }
}

} // namespace pxtool
