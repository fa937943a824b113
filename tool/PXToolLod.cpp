// LOD text, read strictly and written piece by piece.

#include "PXToolImage.h"

#include <cstring>

namespace pxtool {

std::uint64_t Image::size() const
{
    std::uint64_t total = 0;
    for (const Segment& segment : segments)
        total += segment.bytes.size();
    return total;
}

namespace {

// The library's reader keeps 1026 characters of a line; a longer one would read differently.
constexpr std::size_t LongestLine = 1026;

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

// Parses 1 to 8 hex digits after an optional 0x; false for anything else.
bool parseWord(const std::string& text, std::uint32_t* value, std::string* problem)
{
    std::size_t i = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') ? 2 : 0;
    if (i == text.size()) {
        *problem = "no hexadecimal digits";
        return false;
    }
    std::uint64_t result = 0;
    for (; i < text.size(); ++i) {
        const char c = text[i];
        const int digit = c >= '0' && c <= '9'   ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : -1;
        if (digit < 0) {
            *problem = "'" + text + "' is not a hexadecimal number";
            return false;
        }
        result = result * 16 + unsigned(digit);
        if (result > 0xFFFFFFFFu) {
            *problem = "'" + text + "' does not fit in 32 bits";
            return false;
        }
    }
    *value = std::uint32_t(result);
    return true;
}

} // namespace

bool readLodStrict(const std::vector<std::uint8_t>& content, Image* image, FileProblem* problem)
{
    Image result;
    Segment* packet = nullptr; // the packet that data lines extend, null between packets
    bool skipping = false;     // the current packet is at 0xF0000000
    std::size_t skippedLine = 0, skippedWords = 0;
    const auto endSkipped = [&] {
        if (skipping) {
            char text[96];
            std::snprintf(text, sizeof text, "line %zu: packet at 0x%08X (%zu words) skipped",
                          skippedLine, unsigned(SkippedLodAddress), skippedWords);
            result.skipped.push_back(text);
        }
        skipping = false;
    };
    std::size_t start = 0;
    for (std::size_t number = 1; start < content.size(); ++number) {
        const auto* begin = content.data() + start;
        const void* newline = std::memchr(begin, '\n', content.size() - start);
        const std::size_t length =
            newline ? std::size_t(static_cast<const std::uint8_t*>(newline) - begin)
                    : content.size() - start;
        std::string line(reinterpret_cast<const char*>(begin), length);
        start += length + 1;
        problem->line = number;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.size() > LongestLine) {
            problem->what = "line longer than 1026 characters";
            return false;
        }
        for (const char c : line) {
            if (static_cast<unsigned char>(c) < 0x20 && !isBlank(c)) {
                problem->what = "control character in a text line";
                return false;
            }
        }
        const std::size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos && line.empty()) {
            endSkipped();
            packet = nullptr;
            continue;
        }
        if (first != std::string::npos && line[first] == '#')
            continue;
        const std::size_t last = line.find_last_not_of(" \t");
        const std::string body =
            first == std::string::npos ? std::string() : line.substr(first, last - first + 1);
        std::uint32_t value = 0;
        if (!body.empty() && body[0] == '@') {
            if (!parseWord(body.substr(1), &value, &problem->what)) {
                problem->what = "bad address: " + problem->what;
                return false;
            }
            endSkipped();
            skipping = value == SkippedLodAddress;
            skippedLine = number;
            skippedWords = 0;
            result.segments.push_back(Segment{value, {}});
            packet = &result.segments.back();
            continue;
        }
        if (!packet) {
            problem->what = "data line outside a packet (no address line '@...' before it)";
            return false;
        }
        if (!parseWord(body, &value, &problem->what))
            return false;
        if (packet->address + std::uint64_t(packet->bytes.size()) + 4 > 0x100000000ull) {
            problem->what = "the packet runs past the end of the 32-bit address space";
            return false;
        }
        for (int shift = 0; shift < 32; shift += 8)
            packet->bytes.push_back(std::uint8_t(value >> shift));
        skippedWords += skipping ? 1 : 0;
    }
    endSkipped();
    problem->line = 0;
    std::vector<Segment> kept;
    for (Segment& segment : result.segments) {
        if (segment.address != SkippedLodAddress)
            kept.push_back(std::move(segment));
    }
    result.segments.swap(kept);
    if (result.size() == 0) {
        problem->what = "no data: the file holds no words to load";
        return false;
    }
    *image = std::move(result);
    return true;
}

std::string formatHint(const std::vector<std::uint8_t>& content)
{
    std::size_t i = 0;
    while (i < content.size() && (content[i] == ' ' || content[i] == '\n' || content[i] == '\r'))
        ++i;
    if (content.size() >= 4 && std::memcmp(content.data(),
                                           "\x7F"
                                           "ELF",
                                           4) == 0)
        return "this looks like an ELF file";
    if (i < content.size() && content[i] == ':')
        return "this looks like Intel HEX";
    if (i + 1 < content.size() && content[i] == 'S' && content[i + 1] >= '0' &&
        content[i + 1] <= '9')
        return "this looks like a Motorola S-record file";
    for (std::size_t j = 0; j < std::min<std::size_t>(content.size(), 512); ++j) {
        if (content[j] == 0)
            return "this looks like a binary file (give --format binary --address ADDRESS)";
    }
    return {};
}

namespace {

class LodWriter : public ImageWriter
{
public:
    explicit LodWriter(OutputFile& output) : output(output) {}
    int segment(std::uint32_t address) override
    {
        if (const int status = flushTail())
            return status;
        return output.print("@%08X\n", unsigned(address));
    }
    int bytes(const std::uint8_t* data, std::size_t size) override
    {
        std::string text;
        text.reserve(size / 4 * 9 + 9);
        char word[16];
        for (std::size_t i = 0; i < size; ++i) {
            tail[tailSize++] = data[i];
            if (tailSize < 4)
                continue;
            std::snprintf(word, sizeof word, "%08X\n", unsigned(tailWord()));
            text += word;
            tailSize = 0;
        }
        return output.write(text.data(), text.size());
    }
    int finish() override { return flushTail(); }

private:
    std::uint32_t tailWord() const
    {
        return std::uint32_t(tail[0]) | std::uint32_t(tail[1]) << 8 | std::uint32_t(tail[2]) << 16 |
               std::uint32_t(tail[3]) << 24;
    }
    int flushTail()
    {
        if (tailSize == 0)
            return ExitOk;
        std::memset(tail + tailSize, 0, 4 - tailSize);
        tailSize = 0;
        return output.print("%08X\n", unsigned(tailWord()));
    }

    OutputFile& output;
    std::uint8_t tail[4] = {};
    std::size_t tailSize = 0;
};

class BinaryWriter : public ImageWriter
{
public:
    explicit BinaryWriter(OutputFile& output) : output(output) {}
    int segment(std::uint32_t address) override
    {
        if (started && address > next) {
            const std::vector<std::uint8_t> fill(std::min<std::uint64_t>(address - next, 65536),
                                                 0xFF);
            for (std::uint64_t left = address - next; left > 0;) {
                const std::size_t n = std::size_t(std::min<std::uint64_t>(left, fill.size()));
                if (const int status = output.write(fill.data(), n))
                    return status;
                left -= n;
            }
        }
        started = true;
        next = address;
        return ExitOk;
    }
    int bytes(const std::uint8_t* data, std::size_t size) override
    {
        next += size;
        return output.write(data, size);
    }

private:
    OutputFile& output;
    bool started = false;
    std::uint64_t next = 0;
};

} // namespace

std::unique_ptr<ImageWriter> lodWriter(OutputFile& output)
{
    return std::make_unique<LodWriter>(output);
}

std::unique_ptr<ImageWriter> binaryWriter(OutputFile& output)
{
    return std::make_unique<BinaryWriter>(output);
}

} // namespace pxtool
