#ifndef PELLIX_PXPARSER_H
#define PELLIX_PXPARSER_H

#include "pellix/pellix_export.h"

#include <QByteArray>
#include <QList>
#include <QString>

// Cuts a byte stream that arrives in arbitrary pieces into whole packets.
//
// Usage: feed the bytes as they arrive with feedData(), then call getPacket(false) until it
// returns an empty array. Each packet is the complete frame from its start byte on (length
// field + 4 bytes). The parser resynchronises on its start byte, discards a partial packet
// whose rest has not come within 2000 ms of the previous feed, and records one diagnostic
// line in logs() for every byte it drops and every nested packet it extracts; getPacket()
// discards the lines of the previous call first.
//
// Types:
//   ServerFrames        0xBB server frames (what both connection classes use)
//   DebugPackets        0xAD debug packets
//   EscapedDebugStream  0xAD debug packets behind XON/XOFF escaping (0x5C, byte XOR 0xFF),
//                       with 10-byte debug replies found inside other packets taken out first
//
// Cost is linear in the bytes fed: packets are cut by advancing a read position, and the
// consumed front is released in bulk. A QByteArray fed while nothing is buffered is shared,
// not copied.
//
// Thread safety: none. One parser belongs to one thread at a time.
class PELLIX_EXPORT PXParser
{
public:
    // A fixed underlying type, so that any int value can be held (and rejected) without
    // leaving the enumeration's range.
    enum Type : int { ServerFrames = 0, DebugPackets = 1, EscapedDebugStream = 2 };

    // Source of the current time in milliseconds since the epoch; replaceable for tests.
    using Clock = qint64 (*)();

    static constexpr unsigned char EscapeByte = 0x5C;
    static constexpr qint64 StaleInterval = 2000;

    // A type value other than the three above is rejected: the parser is then a
    // ServerFrames parser.
    explicit PXParser(Type type = ServerFrames);
    ~PXParser();

    PXParser(const PXParser&) = delete;
    PXParser& operator=(const PXParser&) = delete;

    // Sets start byte and flags from the type and resets. Returns false, and only resets,
    // for a type value other than the three above.
    bool changeType(Type type);
    Type type() const { return parserType; }

    // Clears the buffered bytes, the escape state, the expected debug reply and the feed
    // time. The last packet and the log lines are kept.
    void reset();

    void feedData(const unsigned char* data, int size);
    void feedData(const QByteArray& data);

    // The next packet, or an empty array when no complete packet is buffered. With flush
    // true, a complete packet that an EscapedDebugStream parser holds back while waiting
    // for nested data is released. The reference stays valid until the next call.
    const QByteArray& getPacket(bool flush);

    // The next packet in place, without copying it: a pointer into the parser's buffer and its
    // size in `size`, or null (size 0) when no complete packet is buffered. Valid until the
    // next call of a non-const function. Consumes the packet and records log lines as
    // getPacket(false) does. An EscapedDebugStream parser, which may cut nested packets out of
    // others, always returns null: use getPacket() there.
    const unsigned char* nextPacket(int* size);

    // True when the buffer holds at least one whole packet by the length of its first
    // header (for EscapedDebugStream: getPacket(true) would release it).
    bool isNestedWaiting() const;

    // A debug reply with a non-zero command byte is recognised only while both are set
    // (total length = expectedLength + 6). Both are cleared by reset().
    void setExpectedCommand(unsigned char command) { expectedCommand = command; }
    void setExpectedLength(quint32 length) { expectedLength = length; }
    unsigned char getExpectedCommand() const { return expectedCommand; }
    quint32 getExpectedLength() const { return expectedLength; }

    // Diagnostic lines collected since the last getPacket().
    const QList<QString>& logs() const { return logLines; }

    // Bytes received and not yet cut into packets.
    int bufferedSize() const { return int(buffer.size()) - head; }
    QByteArray buffered() const { return buffer.mid(head); }

    unsigned char getStartByte() const { return startByte; }

    void setClock(Clock clock) { clockFunction = clock; }

    // The total length of a valid debug packet at data, or -1.
    int debugPacketLen(const unsigned char* data, int size) const;

private:
    bool parsePacket();
    bool flushPacket();
    void outputPacket(int length);
    void skipToNextStart();
    void setPacket(const unsigned char* data, int length);
    bool checkDebugPacket(int offset);
    bool digDebugPacket(int from, int to);
    void beginFeed();
    int skipToStart(const unsigned char* data, int size);
    void appendUnescaped(const unsigned char* data, int size);
    void compact();
    void dropStale();
    const unsigned char* live() const
    {
        return reinterpret_cast<const unsigned char*>(buffer.constData()) + head;
    }
    int firstLength() const;

    QByteArray packet;
    // Bytes from `head` on are the live buffer; the front is consumed.
    QByteArray buffer;
    int head = 0;
    Type parserType = ServerFrames;
    unsigned char startByte = 0xBB;
    bool unescape = false;
    unsigned char escapeMask = 0;
    bool nested = false;
    unsigned char expectedCommand = 0;
    quint32 expectedLength = 0;
    QList<QString> logLines;
    qint64 lastFeedTime = 0;
    Clock clockFunction = nullptr;
};

// printf-style formatting into a QString (at most 8191 bytes of text).
PELLIX_EXPORT QString PXLogString(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

// The first min(maxBytes, size) bytes as upper-case hexadecimal separated by spaces, followed
// by " ..." when that is fewer than all bytes (also for a negative maxBytes).
PELLIX_EXPORT QByteArray PXLogBytes(const QByteArray& data, int maxBytes);

#endif
