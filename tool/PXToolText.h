#ifndef PELLIX_PXTOOLTEXT_H
#define PELLIX_PXTOOLTEXT_H

// Pure text helpers of pxtool: number and byte-string parsing, hex dumps, sizes, rates and the
// progress line. No I/O, no library calls, so they are tested with tables.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace pxtool {

// Parses an unsigned number: decimal, or hexadecimal after 0x/0X. No sign, no white space,
// no trailing characters, nothing above `max`. Returns false for anything else.
bool parseUnsigned(const std::string& text, std::uint64_t max, std::uint64_t* value);

// Parses bytes written in hexadecimal: tokens separated by spaces, commas or colons, each an
// optional 0x prefix followed by an even number of hex digits ("01 02", "0102", "0x01,0x02",
// "de:ad:be:ef"). An empty string gives no bytes. Returns false on anything else.
bool parseHexBytes(const std::string& text, std::vector<std::uint8_t>* bytes);

// The words of `text`, split at spaces.
std::vector<std::string> splitWords(const std::string& text);

// Parses a flow control word: "none", "hardware", "xonxoff" (or 0, 1, 2). -1 when unknown.
int parseFlowMode(const std::string& text);

// Classic hex dump, 16 bytes per line: "00001000  01 02 ... 0f 10  |................|".
// Lines start at `address` (not rounded). When `mask` is given, bytes whose mask byte is not
// 0xFF print as "--" and "." in the text column.
std::string hexDump(std::uint32_t address, const std::uint8_t* data, std::size_t size,
                    const std::uint8_t* mask = nullptr);

// Bytes as space-separated lower-case hex pairs ("01 ab ff").
std::string hexBytes(const std::uint8_t* data, std::size_t size);

// A byte count for people: "512 B", "1.5 KiB", "3.25 MiB".
std::string formatSize(std::uint64_t bytes);

// Throughput for people: "2.38 MiB/s"; "-" when the time is not positive.
std::string formatRate(std::uint64_t bytes, double seconds);

// One line of the progress bar, `width` columns for the bar itself:
// "label [=========>          ]  45%  1.12 MiB / 2.50 MiB  3.40 MiB/s".
std::string progressLine(const std::string& label, std::uint64_t done, std::uint64_t total,
                         double seconds, int width);

// A JSON string literal for `text`, quotes included; bytes that are not printable ASCII are
// written as \u00XX escapes, so the output is valid JSON whatever the input.
std::string jsonString(const std::string& text);

// One JSON object, built field by field in order: {"command":"read32","address":4096,...}.
class Record
{
public:
    Record& text(const char* key, const std::string& value);
    Record& number(const char* key, std::uint64_t value);
    Record& real(const char* key, double value);
    Record& flag(const char* key, bool value);
    std::string json() const { return "{" + body + "}"; }

private:
    Record& raw(const char* key, const std::string& value);
    std::string body;
};

// A wall-clock time stamp in milliseconds since 1970 as "YYYY-MM-DDTHH:MM:SS.mmmZ".
std::string isoTime(std::int64_t msecsSinceEpoch);

} // namespace pxtool

#endif
