// The wire format and the stream parser: byte-exact frames of every request and reply
// builder, the checksum and the debug packet encoders with their XON/XOFF escaping; PXParser
// in its three types; the log line formatters; how ranges are cut into requests.

#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXParser.h"
#include "pellix/protocol/PXRanges_p.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>

// Lets gtest print byte arrays as hexadecimal in failure messages.
QT_BEGIN_NAMESPACE
inline void PrintTo(const QByteArray& bytes, std::ostream* os)
{
    *os << '[' << bytes.toHex(' ').toUpper().constData() << ']';
}
QT_END_NAMESPACE

namespace {

// "BB 00 05" -> bytes; spaces are ignored.
const auto hex = [](const char* text) { return QByteArray::fromHex(text); };

const QByteArray kAbcd = QByteArray::fromHex("DDCCBBAA");
const QByteArray kOneTwoThree = QByteArray::fromHex("010203");
const unsigned char kIds[] = {0x10, 0x20};

using namespace pxproto;

// Every request and reply builder and every debug packet encoder, against its bytes.
TEST(Frames, AreByteExact)
{
    // Built frame, expected bytes. (The codes FormatRead16, FormatReadi8 and FormatWritei8 pick,
    // otherwise like FormatRead8 and FormatWrite8: Serial.MemoryEventsAndBypassCrossTheLink.)
    // clang-format off
    const std::pair<QByteArray, const char*> cases[] = {
        {ping(), "BB 00 00 80"}, {status(), "BB 00 00 B3"}, {kill(), "BB 00 00 B1"},
        {clean(), "BB 00 00 B4"}, {flushFifos(), "BB 00 00 B7"}, {forceReconnect(), "BB 00 00 A2"},
        {comBreak(), "BB 00 00 B2"}, {autoBauding(), "BB 00 00 A1"}, {writeAck(), "BB 00 00 7E"},
        {pingReply(), "BB 00 00 00"}, {completion(), "BB 00 00 03"}, {statusReply(1), "BB 00 01 02 01"},
        {setBaudRate(921600), "BB 00 04 A0 00 10 0E 00"}, {setClientType(0x1234), "BB 00 01 82 34"},
        {setFlowMode(PXL_FLOW_XONXOFF), "BB 00 04 A3 02 00 00 00"},
        {setPersistent(true), "BB 00 01 B9 01"}, {enableEvents(true), "BB 00 01 C0 01"},
        {readRequest(0x1234, false, 1), "BB 00 05 FF 00 34 12 00 00"},
        {readRequest(0x1234, false, 2), "BB 00 05 FF 01 34 12 00 00"},
        {readRequest(0x1234, false, 4), "BB 00 05 FF 02 34 12 00 00"},
        {readRequest(0x1234, true, 1), "BB 00 05 FF 04 34 12 00 00"},
        {readRequest(0x1234, false, 0), ""}, {readRequest(0x1234, false, 3), ""},
        {readRequest(0x1000, false, 64), "BB 00 09 FE 03 00 10 00 00 40 00 00 00"},
        {readRequest(0x1000, true, 8), "BB 00 09 FE 03 00 10 00 00 08 00 00 00"},
        {writeRequest(0x10, false, kAbcd.constData(), 1), "BB 00 06 FF 80 10 00 00 00 DD"},
        {writeRequest(0x10, false, kAbcd.constData(), 2), "BB 00 07 FF 81 10 00 00 00 DD CC"},
        {writeRequest(0x10, false, kAbcd.constData(), 4), "BB 00 09 FF 82 10 00 00 00 DD CC BB AA"},
        {writeRequest(0x20, false, kOneTwoThree.constData(), 3), "BB 00 08 FF 83 20 00 00 00 01 02 03"},
        {writeRequest(0x20, true, kAbcd.constData(), 4), "BB 00 09 FF 84 20 00 00 00 DD CC BB AA"},
        {setBypassFlowIds(kIds, 2), "BB 00 06 B0 02 00 00 00 10 20"},
        {setBypassFlowIds(nullptr, 0), "BB 00 04 B0 00 00 00 00"},
        {bypassSend(0x05, kOneTwoThree.constData(), 2), "BB 00 07 B5 AD 00 03 05 01 02 06"},
        {bypassSend(0x33, nullptr, 0), "BB 00 05 B5 AD 00 01 33 33"},
        {setUsbId(0x1234, 0x5678), "BB 00 08 B8 34 12 00 00 78 56 00 00"},
        {readData(0x1234, kAbcd.constData(), 4), "BB 00 08 7F 34 12 00 00 DD CC BB AA"},
        {event(0x42, 0x99), "BB 00 05 41 42 00 00 00 99"}, {debugPacket(0x07, "\xAA", 1), "AD 00 02 07 AA AD"},
        {bypassFrame(hex("AD 00 02 07 AA AD")), "BB 00 06 B5 AD 00 02 07 AA AD"},
        {FormatRead32(0x01, 0x1000), "AD 00 07 FF 02 00 10 00 00 01 EC"},
        {FormatRead8(0x01, 0x1000), "AD 00 07 FF 00 00 10 00 00 01 EE"},
        {FormatWrite8(0x1234, 0x5A), "AD 00 07 FF 80 34 12 00 00 5A 03"},
        {FormatWrite16(0x10, 0x1234), "AD 00 08 FF 81 10 00 00 00 34 12 48"},
        {FormatWrite32(0x10, 0x11223344), "AD 00 0A FF 82 10 00 00 00 44 33 22 11 29"},
        {FormatWriteBlock(0x2000, kOneTwoThree), "AD 00 09 FF 83 00 20 00 00 01 02 03 5C"},
        {FormatWriteBlock(0x2000, QByteArray()), "AD 00 06 FF 83 00 20 00 00 5C"},
        {EscapeXonXoff(hex("11 13 5C 41")), "5C EE 5C EC 5C A3 41"}, {EscapeXonXoff(QByteArray()), ""}};
    // clang-format on
    for (const auto& [built, expected] : cases)
        EXPECT_EQ(built, hex(expected)) << expected;

    // The largest frames keep their length fields.
    const QByteArray data(MaxBypassData, '\x5A');
    const QByteArray send = bypassSend(0x01, data.constData(), int(data.size()));
    ASSERT_EQ(send.size(), MaxFrameSize);
    EXPECT_EQ(send.left(8), hex("BB FF FF B5 AD FF FB 01"));
    // 0x5A XORed an even number of times cancels out.
    EXPECT_EQ(static_cast<unsigned char>(send.back()), 0x01);
    // (The length field of a write of MaxBlockChunk bytes:
    // ConnectionFake.RequestsWithoutSocketAndCutByAlignmentAndSize.)
}

qint64 gNow = 1000000; // the parsers' clock

// Debug replies on flow 0xFF: a read reply (command 0, ten bytes) carrying 0xA1B2C3D4, and one
// with command 0x82 and four data bytes.
const QByteArray kReply = hex("AD 00 06 FF 00 D4 C3 B2 A1 FB");
const QByteArray kCommandReply = hex("AD 00 06 FF 82 88 77 66 55 B1");

class Parser : public ::testing::Test
{
protected:
    static qint64 now() { return gNow; }
    void SetUp() override { parser.setClock(now); }

    void feed(const char* hexText) { parser.feedData(hex(hexText)); }

    PXParser parser;
};

// getPacket and nextPacket (in place), each fed the same pieces: whole at every split point and
// byte by byte, with bytes to drop before and between frames (one line each) and a start byte
// inside a payload (frames are cut by their length). Each frame comes out whole and exactly
// when its last byte has come. Escaped streams are not served in place (see
// ReplyNearTheFrontIsReleasedAtOnce). (The two after every feed of arbitrary pieces:
// parser_fuzz.)
TEST_F(Parser, FramesSplitAnywhereComeOutWholeAtTheirLastByteAndDroppedBytesAreLogged)
{
    const QList<QByteArray> frames = {pxproto::ping(), pxproto::readData(0x10, "\xBB\x00", 2),
                                      pxproto::event(7)};
    const QByteArray stream = hex("01 02") + frames[0] + hex("7E 01") + frames[1] + frames[2];
    const int ends[] = {6, 18, 27}; // where each frame ends in the stream
    const auto next = [this](bool inPlace) {
        int size = 0;
        const auto* p = reinterpret_cast<const char*>(inPlace ? parser.nextPacket(&size) : nullptr);
        return inPlace ? QByteArray(p, size) : parser.getPacket(false);
    };
    // Two pieces split at `split`, and (split past the end) byte by byte.
    for (const bool inPlace : {false, true}) {
        for (int split = 0; split <= stream.size() + 1; ++split) {
            SCOPED_TRACE(std::to_string(split) + (inPlace ? " in place" : ""));
            const int step = split > stream.size() ? 1 : int(stream.size());
            parser.reset();
            QList<QByteArray> got;
            QStringList logs;
            for (int fed = 0, length = std::min(split, step); fed < stream.size(); length = step) {
                const QByteArray piece = stream.mid(fed, length);
                parser.feedData(piece);
                logs += parser.logs();
                for (QByteArray p; !(p = next(inPlace)).isEmpty(); logs += parser.logs())
                    got << p;
                fed += int(piece.size());
                EXPECT_EQ(got.size(), std::upper_bound(ends, ends + 3, fed) - ends) << fed;
            }
            EXPECT_EQ(got, frames);
            // Bytes between frames that come while nothing is buffered are dropped as leading
            // ones: the texts are those of the stream fed whole.
            EXPECT_EQ(logs.size(), 4);
            if (split == stream.size()) {
                EXPECT_EQ(logs, (QStringList{"Drop Byte: 01", "Drop Byte: 02",
                                             "Resync drop bytes: 7e", "Resync drop bytes: 01"}));
            }
        }
    }
}

// A fed array may be kept by sharing, a handed-out packet by its caller: later changes by
// the owner of either must not reach the other.
TEST_F(Parser, SharedArraysAreNotAffectedByTheOtherSide)
{
    QByteArray owned = hex("01 BB 00 01 80 AA BB 00");
    parser.feedData(owned);
    owned.fill('\0');
    EXPECT_EQ(parser.getPacket(false), hex("BB 00 01 80 AA"));
    feed("00 80");
    EXPECT_EQ(parser.getPacket(false), hex("BB 00 00 80"));
    char raw[] = "\xBB\x00\x01\x7F\x55";
    parser.feedData(QByteArray::fromRawData(raw, 5));
    raw[4] = 0;
    EXPECT_EQ(parser.getPacket(false), hex("BB 00 01 7F 55"));
    // A handed-out packet kept by the caller is not overwritten when the storage is reused.
    const QByteArray big = pxproto::readData(0x10, "0123456789", 10);
    parser.feedData(big + pxproto::ping() + big);
    const QByteArray kept = parser.getPacket(false);
    EXPECT_EQ(parser.getPacket(false), pxproto::ping());
    EXPECT_EQ(parser.getPacket(false), big);
    EXPECT_EQ(kept, big);
    EXPECT_TRUE(parser.getPacket(false).isEmpty()) << "nothing more was fed";
}

// A partial frame is dropped when the next feed (also an empty one) comes 2000 ms or more
// after the previous one; 1999 ms keep it. reset() forgets the time of the last feed.
TEST_F(Parser, PartialFrameOlderThanTwoSecondsIsDiscarded)
{
    QStringList stale;
    for (const char* byte : {"bb", "00", "02", "7e"})
        stale << QStringLiteral("Check data interval drop bytes: ") + QLatin1String(byte);
    // The gap, the next feed (nullptr: an empty one), the log lines and the packet.
    const std::tuple<int, const char*, QStringList, const char*> cases[] = {
        {1999, "01 02", {}, "BB 00 02 7E 01 02"},
        {2000, "01 02", stale + QStringList{"Drop Byte: 01", "Drop Byte: 02"}, ""},
        {2000, nullptr, stale, ""}};
    for (const auto& [gap, next, logs, packet] : cases) {
        feed("BB 00 02 7E");
        gNow += gap;
        if (next)
            feed(next);
        else
            parser.feedData(nullptr, 0);
        const std::string row = std::to_string(gap) + " then " + (next ? next : "nullptr");
        EXPECT_EQ(parser.logs(), logs) << row;
        EXPECT_EQ(parser.getPacket(false), hex(packet)) << row;
        EXPECT_EQ(parser.bufferedSize(), 0);
    }

    feed("BB 00 01");
    gNow += 5000;
    parser.reset();
    feed("BB 00 00 80");
    EXPECT_TRUE(parser.logs().isEmpty());
    EXPECT_EQ(parser.getPacket(false), hex("BB 00 00 80"));
}

TEST_F(Parser, ChangeTypeEmptiesBufferSwitchesStartByteAndRejectsInvalidTypes)
{
    feed("BB 00 05 7F 00");
    parser.changeType(PXParser::ServerFrames);
    EXPECT_EQ(parser.bufferedSize(), 0);
    parser.changeType(PXParser::DebugPackets);
    feed("BB AD 00 00 01");
    EXPECT_EQ(parser.logs(), (QStringList{"Drop Byte: bb"}));
    EXPECT_EQ(parser.getPacket(false), hex("AD 00 00 01"));

    PXParser fresh(static_cast<PXParser::Type>(9));
    EXPECT_EQ(fresh.type(), PXParser::ServerFrames);
    parser.changeType(PXParser::EscapedDebugStream);
    feed("AD 00");
    EXPECT_FALSE(parser.changeType(static_cast<PXParser::Type>(-1)));
    EXPECT_EQ(parser.getStartByte(), pxproto::DebugStart);
    EXPECT_EQ(parser.bufferedSize(), 0);
    feed("AD 5C EE");
    EXPECT_EQ(parser.buffered(), hex("AD 11"));
}

TEST_F(Parser, UndoesXonXoffEscapingAlsoAcrossFeeds)
{
    parser.changeType(PXParser::EscapedDebugStream);
    const std::pair<const char*, const char*> cases[] = {
        {"AD 5C EE", "AD 11"},       {"AD 5C A3", "AD 5C"}, {"AD 5C 5C EE", "AD 11"},
        {"AD 5C EC 41", "AD 13 41"}, {"5C 52 00", "AD 00"}, {"5C 52", "AD"}};
    for (const auto& [input, buffered] : cases) {
        // Fed twice: whole, and one byte at a time (an escape may end a piece).
        for (const int step : {64, 1}) {
            parser.reset();
            for (int at = 0; at < hex(input).size(); at += step)
                parser.feedData(hex(input).mid(at, step));
            EXPECT_EQ(parser.buffered(), hex(buffered)) << input << " in pieces of " << step;
        }
    }
}

// A reply nested in a packet is handed out first, then the packet closed up around it. A reply
// with a command is one only when that command and its length are expected.
TEST_F(Parser, ExtractsNestedDebugReplyFirstAndClosesUpTheOuterPacket)
{
    parser.changeType(PXParser::EscapedDebugStream);
    const QByteArray outer = pxproto::debugPacket(0x05, "0123456789abcdefghij", 20);
    const QByteArray next = pxproto::debugPacket(0x06, "0123456789", 10);
    QByteArray stream = outer;
    stream.insert(10, kReply);
    parser.feedData(EscapeXonXoff(stream + next));

    EXPECT_EQ(parser.getPacket(false), kReply);
    EXPECT_EQ(parser.logs(), (QStringList{"Extract nested packet: AD 00 06 FF 00 D4 C3 B2 A1 FB"}));
    EXPECT_EQ(parser.getPacket(false), outer);
    // Fewer than ten bytes follow `next`: held back, as a nested reply may still come.
    EXPECT_TRUE(parser.getPacket(false).isEmpty());
    EXPECT_TRUE(parser.isNestedWaiting());
    EXPECT_EQ(parser.getPacket(true), next);

    stream = outer;
    stream.insert(8, kCommandReply);
    parser.feedData(stream);
    EXPECT_EQ(parser.getPacket(true), stream.left(outer.size())) << "not recognised";
    parser.reset();
    parser.setExpectedCommand(0x82);
    parser.setExpectedLength(4);
    parser.feedData(stream);
    EXPECT_EQ(parser.getPacket(true), kCommandReply);
    EXPECT_EQ(parser.getPacket(true), outer);
    parser.reset();
    EXPECT_EQ(parser.getExpectedCommand(), 0);
    EXPECT_EQ(parser.getExpectedLength(), 0u);
}

// A reply at the front, or within two bytes of it, is handed out at once (other packets wait
// until ten bytes follow them: see above), but never in place by nextPacket.
TEST_F(Parser, ReplyNearTheFrontIsReleasedAtOnce)
{
    parser.changeType(PXParser::EscapedDebugStream);
    for (int offset = 0, size = -1; offset <= 3; ++offset) {
        parser.reset();
        parser.feedData(hex("AD 00 00").left(offset) + kReply);
        EXPECT_EQ(parser.nextPacket(&size), nullptr);
        EXPECT_EQ(size, 0);
        EXPECT_EQ(parser.getPacket(false), offset < 3 ? kReply : QByteArray()) << offset;
        EXPECT_EQ(parser.getPacket(true), offset < 3 ? QByteArray() : kReply) << offset;
    }
    // With a wrong checksum it is no reply: held back, then cut by its length.
    const QByteArray bad = hex("AD 00 06 FF 00 D4 C3 B2 A1 FA");
    parser.reset();
    parser.feedData(bad);
    EXPECT_TRUE(parser.getPacket(false).isEmpty());
    EXPECT_EQ(parser.getPacket(true), bad);
    parser.feedData(bad + pxproto::debugPacket(0x06, "012345678", 9));
    EXPECT_EQ(parser.getPacket(false), bad);
    EXPECT_TRUE(parser.logs().isEmpty());
}

// PXLogBytes: hexadecimal, cut after maxBytes bytes with " ..."; PXLogString: printf-like,
// cut at 8191 bytes.
TEST(LogText, FormatsAndMarksTheCut)
{
    // clang-format off
    const std::tuple<const char*, int, const char*> cases[] = {
        {"01 A0 FF 00 7E", 3, "01 A0 FF ..."}, {"01 A0 FF 00 7E", 10, "01 A0 FF 00 7E"},
        {"01 A0 FF 00 7E", 5, "01 A0 FF 00 7E"}, {"0a", 1, "0A"}, {"", 0, ""}, {"", 4, ""},
        {"01", 0, " ..."}, {"01", -3, " ..."}, {"", -1, " ..."}};
    // clang-format on
    for (const auto& [data, maxBytes, text] : cases)
        EXPECT_EQ(PXLogBytes(hex(data), maxBytes), QByteArray(text)) << data << maxBytes;
    // (A format with arguments: the parsers' log lines, e.g. "Drop Byte: bb" in
    // ChangeTypeEmptiesBufferSwitchesStartByteAndRejectsInvalidTypes.)
    EXPECT_EQ(PXLogString("%s", "\xC3\xA4"), QString(QChar(0xE4)));
    const QByteArray longText(9000, 'x');
    EXPECT_EQ(PXLogString("%s", longText.constData()), QString(8191, QLatin1Char('x')));
    EXPECT_EQ(PXLogBytes(longText, 3000).size(), 3000 * 3 - 1 + 4);
}

// Each range as the requests it is cut into, "address+size@offset" in order. A masked read
// never reads an unselected byte: three selected bytes at an aligned address are 16 + 8 bits,
// not 32.
TEST(Ranges, AreCutIntoRequestsByAlignmentSizeAndMask)
{
    // Every request succeeds but one at 0xF004.
    std::string cuts;
    const auto record = [&cuts](quint32 address, auto offset, int size) {
        cuts += (cuts.empty() ? "" : " ") + QString::number(address, 16).toStdString() + "+" +
                std::to_string(size) + "@" + std::to_string(offset);
        return address == 0xF004 ? 5u : 0u;
    };
    // The address, the size, the reads and the writes.
    // clang-format off
    const std::tuple<quint32, int, const char*, const char*> plain[] = {
        {0x1000, 0, "", ""}, {0x1000, -4, "", ""}, {0x1001, 1, "1001+1@0", "1001+1@0"},
        {0x1001, 8, "1001+1@0 1002+2@1 1004+4@3 1008+1@7", "1001+8@0"},
        {0x1002, 3, "1002+2@0 1004+1@2", "1002+3@0"},
        {0x1000, 7, "1000+4@0 1004+2@4 1006+1@6", "1000+7@0"},
        {0x1000, 70000, "1000+32768@0 9000+32768@32768 11000+4464@65536",
                        "1000+32768@0 9000+32768@32768 11000+4464@65536"}};
    // clang-format on
    for (const auto& [address, size, reads, writes] : plain) {
        EXPECT_EQ(pxrange::forEachRead(address, size, record), 0u);
        EXPECT_EQ(std::exchange(cuts, ""), reads) << address << " " << size;
        EXPECT_EQ(pxrange::forEachWrite(address, size, record), 0u);
        EXPECT_EQ(std::exchange(cuts, ""), writes) << address << " " << size;
    }
    // The address, the mask in hexadecimal and the reads.
    // clang-format off
    const std::tuple<quint32, const char*, const char*> masked[] = {
        {0x2000, "ffffff00", "2000+2@0 2002+1@2"}, {0x2000, "ffffffff", "2000+4@0"},
        {0x2001, "ffffffff", "2001+1@0 2002+2@1 2004+1@3"},
        {0x2000, "00ff00ff", "2001+1@1 2003+1@3"}, {0x2000, "ff0fffff", "2000+1@0 2002+2@2"},
        {0x2000, "ffffffffffffffffffffff", "2000+8@0 2008+2@8 200a+1@10"},
        {0x2000, "ffffffffffffffffffffffffffffff", "2000+12@0 200c+2@12 200e+1@14"},
        {0x2000, "ffffffffff00ffffffffffff", "2000+4@0 2004+1@4 2006+2@6 2008+4@8"},
        {0x2000, "ffffff00ffffffffff", "2000+2@0 2002+1@2 2004+4@4 2008+1@8"},
        {0x2000, "ffff00ffff", "2000+2@0 2003+1@3 2004+1@4"}, {0x2000, "0000000000000000", ""}};
    // clang-format on
    for (const auto& [address, maskHex, reads] : masked) {
        const QByteArray mask = QByteArray::fromHex(maskHex);
        const auto* bytes = reinterpret_cast<const unsigned char*>(mask.constData());
        EXPECT_EQ(pxrange::forEachMaskedRead(address, bytes, unsigned(mask.size()), record), 0u);
        EXPECT_EQ(std::exchange(cuts, ""), reads) << maskHex;
    }

    // Pieces: at least one, and (for pieces as for reads) the first failing request ends the walk
    // with its code.
    std::string pieces;
    const auto piece = [&](unsigned long long offset, unsigned int size) {
        pieces += std::to_string(offset) + "+" + std::to_string(size) + " ";
        return offset >= 20 ? 13u : 0u;
    };
    EXPECT_EQ(pxrange::forEachPiece(0, 10, piece), 0u);
    EXPECT_EQ(pxrange::forEachPiece(25, 10, piece), 13u);
    EXPECT_EQ(pieces, "0+0 0+10 10+10 20+5 ");
    EXPECT_EQ(pxrange::forEachRead(0xF001, 8, record), 5u);
    EXPECT_EQ(cuts, "f001+1@0 f002+2@1 f004+4@3");
}

} // namespace
