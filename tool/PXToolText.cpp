#include "PXToolText.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace pxtool {

namespace {

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool hasHexPrefix(const std::string& text)
{
    return text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

bool isSeparator(char c)
{
    return c == ' ' || c == '\t' || c == ',' || c == ':' || c == '\n' || c == '\r';
}

} // namespace

bool parseUnsigned(const std::string& text, std::uint64_t max, std::uint64_t* value)
{
    const bool hex = hasHexPrefix(text);
    const std::size_t start = hex ? 2 : 0;
    const std::uint64_t base = hex ? 16 : 10;
    if (text.size() == start)
        return false;
    std::uint64_t result = 0;
    for (std::size_t i = start; i < text.size(); ++i) {
        const int digit = hexDigit(text[i]);
        if (digit < 0 || std::uint64_t(digit) >= base)
            return false;
        // Overflow of 64 bits or of the caller's limit: both are "too large".
        if (result > (max - std::uint64_t(digit)) / base)
            return false;
        result = result * base + std::uint64_t(digit);
    }
    *value = result;
    return true;
}

std::vector<std::string> splitWords(const std::string& text)
{
    std::vector<std::string> words;
    std::size_t start = 0;
    while ((start = text.find_first_not_of(' ', start)) != std::string::npos) {
        const std::size_t end = std::min(text.find(' ', start), text.size());
        words.push_back(text.substr(start, end - start));
        start = end;
    }
    return words;
}

bool parseHexBytes(const std::string& text, std::vector<std::uint8_t>* bytes)
{
    std::vector<std::uint8_t> out;
    std::size_t i = 0;
    while (i < text.size()) {
        if (isSeparator(text[i])) {
            ++i;
            continue;
        }
        std::size_t end = i;
        while (end < text.size() && !isSeparator(text[end]))
            ++end;
        std::string token = text.substr(i, end - i);
        if (hasHexPrefix(token))
            token.erase(0, 2);
        if (token.empty() || token.size() % 2 != 0)
            return false;
        for (std::size_t k = 0; k < token.size(); k += 2) {
            const int high = hexDigit(token[k]);
            const int low = hexDigit(token[k + 1]);
            if (high < 0 || low < 0)
                return false;
            out.push_back(std::uint8_t(high * 16 + low));
        }
        i = end;
    }
    bytes->swap(out);
    return true;
}

int parseFlowMode(const std::string& text)
{
    if (text == "none" || text == "0")
        return 0;
    if (text == "hardware" || text == "1")
        return 1;
    if (text == "xonxoff" || text == "2")
        return 2;
    return -1;
}

std::string hexDump(std::uint32_t address, const std::uint8_t* data, std::size_t size,
                    const std::uint8_t* mask)
{
    std::string out;
    char cell[16];
    for (std::size_t line = 0; line < size; line += 16) {
        std::snprintf(cell, sizeof cell, "%08X ", unsigned(address + std::uint32_t(line)));
        out += cell;
        std::string text;
        for (std::size_t k = 0; k < 16; ++k) {
            const std::size_t i = line + k;
            if (k == 8)
                out += ' ';
            if (i >= size) {
                out += "   ";
                continue;
            }
            if (mask && mask[i] != 0xFF) {
                out += " --";
                text += '.';
                continue;
            }
            std::snprintf(cell, sizeof cell, " %02x", unsigned(data[i]));
            out += cell;
            text += (data[i] >= 0x20 && data[i] < 0x7F) ? char(data[i]) : '.';
        }
        out += "  |" + text + "|\n";
    }
    return out;
}

std::string hexBytes(const std::uint8_t* data, std::size_t size)
{
    std::string out;
    char cell[4];
    for (std::size_t i = 0; i < size; ++i) {
        std::snprintf(cell, sizeof cell, "%02x", unsigned(data[i]));
        if (i)
            out += ' ';
        out += cell;
    }
    return out;
}

std::string formatSize(std::uint64_t bytes)
{
    char text[32];
    if (bytes < 1024)
        std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
    else if (bytes < 1024 * 1024)
        std::snprintf(text, sizeof text, "%.2f KiB", double(bytes) / 1024.0);
    else
        std::snprintf(text, sizeof text, "%.2f MiB", double(bytes) / (1024.0 * 1024.0));
    return text;
}

std::string formatRate(std::uint64_t bytes, double seconds)
{
    if (!(seconds > 0))
        return "-";
    const double perSecond = double(bytes) / seconds;
    char text[32];
    if (perSecond < 1024.0 * 1024.0)
        std::snprintf(text, sizeof text, "%.2f KiB/s", perSecond / 1024.0);
    else
        std::snprintf(text, sizeof text, "%.2f MiB/s", perSecond / (1024.0 * 1024.0));
    return text;
}

std::string progressLine(const std::string& label, std::uint64_t done, std::uint64_t total,
                         double seconds, int width)
{
    if (done > total)
        done = total;
    const double fraction = total ? double(done) / double(total) : 1.0;
    const int filled = int(fraction * width);
    std::string bar(std::size_t(width > 0 ? width : 0), ' ');
    for (int i = 0; i < filled && i < width; ++i)
        bar[std::size_t(i)] = '=';
    if (filled < width && filled > 0)
        bar[std::size_t(filled)] = '>';
    char percent[8];
    std::snprintf(percent, sizeof percent, "%3d%%", int(fraction * 100.0));
    return label + " [" + bar + "] " + percent + "  " + formatSize(done) + " / " +
           formatSize(total) + "  " + formatRate(done, seconds);
}

std::string isoTime(std::int64_t msecsSinceEpoch)
{
    const std::time_t seconds = std::time_t(msecsSinceEpoch / 1000);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[96];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                  int(msecsSinceEpoch % 1000));
    return text;
}

} // namespace pxtool

namespace pxtool {

std::string jsonString(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (u < 0x20 || u >= 0x7F) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", unsigned(u));
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

Record& Record::raw(const char* key, const std::string& value)
{
    if (!body.empty())
        body += ',';
    body += jsonString(key) + ":" + value;
    return *this;
}

Record& Record::text(const char* key, const std::string& value)
{
    return raw(key, jsonString(value));
}

Record& Record::number(const char* key, std::uint64_t value)
{
    return raw(key, std::to_string(value));
}

Record& Record::real(const char* key, double value)
{
    if (!std::isfinite(value))
        return raw(key, "null");
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", value);
    return raw(key, text);
}

Record& Record::flag(const char* key, bool value)
{
    return raw(key, value ? "true" : "false");
}

} // namespace pxtool
