#include "pellix/protocol/PXParser.h"

#include "pellix/log/PXFrameTrace_p.h"
#include "pellix/protocol/PXFrames_p.h"

#include <QDateTime>

#include <cstdarg>
#include <cstdio>
#include <cstring>

// A dropped-byte line: into the parser's own list, and into the frame trace when it is on.
static void logDropped(QList<QString>& lines, QString line)
{
    PX_TRACE_LINE(line);
    lines.append(std::move(line));
}

PXParser::PXParser(Type type)
{
    changeType(type);
}

PXParser::~PXParser() = default;

bool PXParser::changeType(Type type)
{
    bool accepted = true;
    switch (type) {
    case ServerFrames:
        startByte = pxproto::FrameStart;
        unescape = false;
        nested = false;
        break;
    case DebugPackets:
        startByte = pxproto::DebugStart;
        unescape = false;
        nested = false;
        break;
    case EscapedDebugStream:
        startByte = pxproto::DebugStart;
        unescape = true;
        nested = true;
        break;
    default:
        accepted = false;
        break;
    }
    if (accepted)
        parserType = type;
    reset();
    return accepted;
}

void PXParser::reset()
{
    buffer.clear();
    head = 0;
    escapeMask = 0;
    expectedCommand = 0;
    expectedLength = 0;
    lastFeedTime = 0;
}

void PXParser::dropStale()
{
    const unsigned char* p = live();
    const int n = bufferedSize();
    for (int i = 0; i < n; ++i)
        logDropped(logLines, PXLogString("Check data interval drop bytes: %02x", p[i]));
    buffer.clear();
    head = 0;
}

// Releases the consumed front of the buffer in bulk. At most the live half moves, so each
// byte is moved a bounded number of times over its life.
void PXParser::compact()
{
    if (head == 0)
        return;
    if (head >= int(buffer.size())) {
        buffer.clear();
        head = 0;
    } else if (head >= int(buffer.size()) / 2) {
        buffer.remove(0, head);
        head = 0;
    }
}

// While nothing is buffered, drops the bytes before the first start byte with one line each;
// returns how many were dropped.
int PXParser::skipToStart(const unsigned char* data, int size)
{
    if (bufferedSize() > 0)
        return 0;
    const void* found = std::memchr(data, startByte, size_t(size));
    const int from = found ? int(static_cast<const unsigned char*>(found) - data) : size;
    for (int i = 0; i < from; ++i)
        logDropped(logLines, PXLogString("Drop Byte: %02x", data[i]));
    return from;
}

// XON/XOFF input: 0x5C is consumed and XORs the next byte with 0xFF.
void PXParser::appendUnescaped(const unsigned char* data, int size)
{
    const int old = int(buffer.size());
    bool hunting = bufferedSize() == 0;
    buffer.resize(old + size);
    auto* const begin = reinterpret_cast<unsigned char*>(buffer.data());
    unsigned char* out = begin + old;
    for (int i = 0; i < size; ++i) {
        unsigned char b = data[i];
        if (b == EscapeByte) {
            escapeMask = 0xFF;
            continue;
        }
        b ^= escapeMask;
        escapeMask = 0;
        if (hunting && b != startByte) {
            logDropped(logLines, PXLogString("Drop Byte: %02x", b));
            continue;
        }
        hunting = false;
        *out++ = b;
    }
    buffer.resize(int(out - begin));
}

// Reads the clock, discards a partial packet whose rest is overdue, and records the time.
void PXParser::beginFeed()
{
    const qint64 now = clockFunction ? clockFunction() : QDateTime::currentMSecsSinceEpoch();
    if (lastFeedTime != 0 && bufferedSize() > 0 && now - lastFeedTime >= StaleInterval)
        dropStale();
    lastFeedTime = now;
}

void PXParser::feedData(const unsigned char* data, int size)
{
    beginFeed();
    if (size <= 0)
        return;
    compact();
    if (unescape) {
        appendUnescaped(data, size);
        return;
    }
    const int from = skipToStart(data, size);
    buffer.append(reinterpret_cast<const char*>(data) + from, size - from);
}

void PXParser::feedData(const QByteArray& data)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(data.constData());
    const int size = int(data.size());
    // A piece that arrives while nothing is buffered is kept by sharing the array instead of
    // copying it, provided the array owns its bytes (one made by fromRawData has capacity 0).
    if (unescape || size <= 0 || data.capacity() == 0) {
        feedData(bytes, size);
        return;
    }
    beginFeed();
    compact();
    if (bufferedSize() > 0) {
        buffer.append(data);
        return;
    }
    const int from = skipToStart(bytes, size);
    if (from < size) {
        buffer = data;
        head = from;
    }
}

const QByteArray& PXParser::getPacket(bool flush)
{
    logLines.clear();
    // Keep the storage for the next packet unless the caller holds a copy of this one.
    if (packet.isDetached())
        packet.resize(0);
    else
        packet = QByteArray();
    if (flush)
        flushPacket();
    else
        parsePacket();
    return packet;
}

const unsigned char* PXParser::nextPacket(int* size)
{
    logLines.clear();
    *size = 0;
    const int available = bufferedSize();
    if (nested || available < 4)
        return nullptr;
    const int total = firstLength() + 4;
    if (available < total)
        return nullptr;
    const unsigned char* packetStart = live();
    head += total;
    skipToNextStart();
    // The consumed front stays in place until the next feed: the packet lives in it.
    *size = total;
    return packetStart;
}

int PXParser::firstLength() const
{
    return pxproto::getBe16(live() + 1);
}

bool PXParser::parsePacket()
{
    const int available = bufferedSize();
    if (available < 4)
        return false;
    const int length = firstLength();
    const int total = length + 4;
    if (!nested) {
        if (available < total)
            return false;
        outputPacket(total);
        return true;
    }
    if (checkDebugPacket(0) || checkDebugPacket(1) || checkDebugPacket(2))
        return true;
    // Ten bytes beyond the end of the first packet (the size of a debug read reply) must be
    // in before the first packet is released, in case a reply lies nested behind it.
    if (bufferedSize() > length + 13) {
        if (digDebugPacket(3, total))
            return true;
        outputPacket(total);
        return true;
    }
    return false;
}

bool PXParser::flushPacket()
{
    if (bufferedSize() < 4)
        return false;
    if (nested && digDebugPacket(1, bufferedSize()))
        return true;
    const int total = firstLength() + 4;
    if (bufferedSize() < total)
        return false;
    outputPacket(total);
    return true;
}

void PXParser::setPacket(const unsigned char* data, int length)
{
    packet.resize(length);
    std::memcpy(packet.data(), data, size_t(length));
}

void PXParser::outputPacket(int length)
{
    setPacket(live(), length);
    head += length;
    skipToNextStart();
    if (bufferedSize() == 0) {
        buffer.clear();
        head = 0;
    }
}

// Drops the bytes between a packet just consumed and the next start byte, one line each.
void PXParser::skipToNextStart()
{
    while (bufferedSize() > 0 && live()[0] != startByte) {
        logDropped(logLines, PXLogString("Resync drop bytes: %02x", live()[0]));
        ++head;
    }
}

bool PXParser::checkDebugPacket(int offset)
{
    const int n = debugPacketLen(live() + offset, bufferedSize() - offset);
    if (n < 0)
        return false;
    if (offset == 0) {
        outputPacket(n);
        return true;
    }
    setPacket(live() + offset, n);
    buffer.remove(head + offset, n);
    logLines.append(PXLogString("Extract nested packet: %s", PXLogBytes(packet, 10).constData()));
    return true;
}

bool PXParser::digDebugPacket(int from, int to)
{
    if (from >= to)
        return false;
    for (;;) {
        const auto index = buffer.indexOf(char(startByte), head + from);
        if (index < 0)
            return false;
        const int position = int(index) - head;
        if (checkDebugPacket(position))
            return true;
        from = position + 1;
        if (from >= to)
            return false;
    }
}

int PXParser::debugPacketLen(const unsigned char* data, int size) const
{
    if (size < 4)
        return -1;
    if (data[0] != startByte || data[3] != 0xFF)
        return -1;
    const int length = pxproto::getBe16(data + 1);
    const int total = length + 4;
    if (size < total)
        return -1;
    // Both kinds of reply are at least 6 bytes long; a shorter one has no command byte.
    if (total < 6)
        return -1;
    if (data[4] != 0) {
        if (expectedCommand == 0 || expectedLength == 0 || data[4] != expectedCommand ||
            qint64(total) != qint64(expectedLength) + 6)
            return -1;
    } else if (total != 10) {
        return -1;
    }
    if (data[total - 1] != CalcHostCrc(data + 3, static_cast<unsigned long>(length)))
        return -1;
    return total;
}

bool PXParser::isNestedWaiting() const
{
    const int available = bufferedSize();
    return available >= 4 && available >= firstLength() + 4;
}

QString PXLogString(const char* format, ...)
{
    char text[8192];
    va_list args;
    va_start(args, format);
    const int written = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    // On an output error the buffer's contents are unspecified.
    if (written < 0)
        return QString();
    return QString::fromUtf8(text);
}

QByteArray PXLogBytes(const QByteArray& data, int maxBytes)
{
    static const char digits[] = "0123456789ABCDEF";
    const int size = int(data.size());
    const int n = maxBytes < size ? maxBytes : size;
    const int shown = n > 0 ? n : 0;
    QByteArray text;
    text.reserve(shown * 3 + 4);
    const auto* p = reinterpret_cast<const unsigned char*>(data.constData());
    for (int i = 0; i < shown; ++i) {
        if (i > 0)
            text.append(' ');
        text.append(digits[p[i] >> 4]);
        text.append(digits[p[i] & 0x0F]);
    }
    if (n < size)
        text.append(" ...");
    return text;
}
