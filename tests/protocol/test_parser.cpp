// PXParser in its three types, and the log line formatters.

#include "hex.h"

#include "pellix/protocol/PXParser.h"
#include "pellix/protocol/PXProtocol.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

qint64 gNow = 1000000;

qint64 fakeClock()
{
    return gNow;
}

QStringList lines(std::initializer_list<const char*> list)
{
    QStringList out;
    for (const char* line : list)
        out << QString::fromLatin1(line);
    return out;
}

class Parser : public ::testing::Test
{
protected:
    void use(PXParser::Type type)
    {
        parser.changeType(type);
        parser.setClock(&fakeClock);
    }
    void SetUp() override { use(PXParser::ServerFrames); }

    void feed(const char* hexText) { parser.feedData(hex(hexText)); }

    // Every packet that getPacket hands out until it returns an empty array.
    QList<QByteArray> drain(bool flush = false)
    {
        QList<QByteArray> out;
        for (;;) {
            const QByteArray packet = parser.getPacket(flush);
            if (packet.isEmpty())
                return out;
            out << packet;
        }
    }

    PXParser parser;
};

// A 10-byte debug reply (command 0) carrying `data` with its checksum.
QByteArray debugReply(quint32 data, unsigned char command = 0)
{
    unsigned char body[5] = {command};
    pxproto::putLe32(body + 1, data);
    return pxproto::debugPacket(0xFF, body, 5);
}

TEST_F(Parser, SmallestFrameComesOutOnce)
{
    feed("BB 00 00 80");
    EXPECT_EQ(parser.getPacket(false), hex("BB 00 00 80"));
    EXPECT_TRUE(parser.getPacket(false).isEmpty());
}

TEST_F(Parser, PacketStorageIsReusedOnlyWhenNobodyHoldsIt)
{
    const QByteArray big = pxproto::readData(0x10, "0123456789", 10);
    feed("BB 00 00 80");
    parser.feedData(big + pxproto::ping() + big);
    const QByteArray& current = parser.getPacket(false);
    EXPECT_EQ(current, hex("BB 00 00 80"));
    EXPECT_EQ(parser.getPacket(false), big);
    const QByteArray kept = current;
    EXPECT_EQ(parser.getPacket(false), pxproto::ping());
    EXPECT_EQ(kept, big);
    EXPECT_EQ(parser.getPacket(false), big);
    EXPECT_TRUE(parser.getPacket(false).isEmpty());
}

TEST_F(Parser, ByteByByteFeedYieldsFrameOnlyAtItsLastByte)
{
    const QByteArray frame = pxproto::readData(0x1234, "\x01\x02\x03\x04", 4);
    for (int i = 0; i < frame.size(); ++i) {
        parser.feedData(frame.mid(i, 1));
        const QByteArray packet = parser.getPacket(false);
        if (i + 1 < frame.size())
            EXPECT_TRUE(packet.isEmpty()) << "after byte " << i;
        else
            EXPECT_EQ(packet, frame);
    }
}

TEST_F(Parser, FramesSplitAnywhereComeOutWhole)
{
    const QByteArray stream = pxproto::ping() + pxproto::event(0x42) +
                              pxproto::readData(0x10, "\xAA\xBB", 2) + pxproto::statusReply(1);
    for (int split = 0; split <= stream.size(); ++split) {
        parser.reset();
        parser.feedData(stream.left(split));
        QList<QByteArray> got = drain();
        parser.feedData(stream.mid(split));
        got += drain();
        ASSERT_EQ(got.size(), 4) << "split at " << split;
        EXPECT_EQ(got.join(), stream);
    }
}

TEST_F(Parser, DropsLeadingBytesWithOneLineEach)
{
    feed("01 02 BB 00 00 80");
    EXPECT_EQ(parser.logs(), lines({"Drop Byte: 01", "Drop Byte: 02"}));
    EXPECT_EQ(parser.getPacket(false), hex("BB 00 00 80"));
    EXPECT_TRUE(parser.logs().isEmpty());
}

TEST_F(Parser, ResynchronisesOnNextStartByte)
{
    // A start byte inside a payload is not special: frames are cut by length.
    feed("BB 00 01 80 BB 7E 01 BB 00 00 00");
    EXPECT_EQ(parser.getPacket(false), hex("BB 00 01 80 BB"));
    EXPECT_EQ(parser.logs(), lines({"Resync drop bytes: 7e", "Resync drop bytes: 01"}));
    EXPECT_EQ(parser.getPacket(false), hex("BB 00 00 00"));
    EXPECT_TRUE(parser.logs().isEmpty());
}

// A fed array may be kept by sharing; later changes by its owner must not reach the parser.
TEST_F(Parser, FedArraysAreNotAffectedByTheirOwner)
{
    QByteArray owned = hex("01 BB 00 01 80 AA BB 00");
    parser.feedData(owned);
    owned.fill('\0');
    EXPECT_EQ(drain(), QList<QByteArray>{hex("BB 00 01 80 AA")});
    feed("00 80");
    EXPECT_EQ(drain(), QList<QByteArray>{hex("BB 00 00 80")});

    char raw[] = "\xBB\x00\x01\x7F\x55";
    parser.feedData(QByteArray::fromRawData(raw, 5));
    raw[4] = 0;
    EXPECT_EQ(drain(), QList<QByteArray>{hex("BB 00 01 7F 55")});
}

struct StaleCase
{
    qint64 gap;
    bool survives;
};

void PrintTo(const StaleCase& c, std::ostream* os)
{
    *os << "gap" << c.gap;
}

class Stale : public Parser, public ::testing::WithParamInterface<StaleCase>
{};

TEST_P(Stale, PartialFrameOlderThanTwoSecondsIsDiscarded)
{
    feed("BB 00 02 7E");
    gNow += GetParam().gap;
    feed("01 02");
    if (GetParam().survives) {
        EXPECT_TRUE(parser.logs().isEmpty());
        EXPECT_EQ(parser.getPacket(false), hex("BB 00 02 7E 01 02"));
    } else {
        EXPECT_EQ(parser.logs(),
                  lines({"Check data interval drop bytes: bb", "Check data interval drop bytes: 00",
                         "Check data interval drop bytes: 02", "Check data interval drop bytes: 7e",
                         "Drop Byte: 01", "Drop Byte: 02"}));
        EXPECT_TRUE(parser.getPacket(false).isEmpty());
        EXPECT_EQ(parser.bufferedSize(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Boundary, Stale,
                         ::testing::Values(StaleCase{1999, true}, StaleCase{2000, false},
                                           StaleCase{60000, false}));

TEST_F(Parser, StaleRuleAppliesOnEmptyFeedAndNeverAfterReset)
{
    feed("BB 00 02");
    gNow += 2000;
    parser.feedData(nullptr, 0);
    EXPECT_EQ(parser.logs().size(), 3);
    EXPECT_EQ(parser.bufferedSize(), 0);
    EXPECT_TRUE(parser.getPacket(false).isEmpty());

    feed("BB 00 01");
    gNow += 5000;
    parser.reset();
    feed("BB 00 00 80");
    EXPECT_TRUE(parser.logs().isEmpty());
    EXPECT_EQ(parser.getPacket(false), hex("BB 00 00 80"));
}

TEST(ParserFlush, BehavesLikeNormalCuttingWithoutNesting)
{
    const QByteArray reply = debugReply(0x12345678);
    for (auto type : {PXParser::ServerFrames, PXParser::DebugPackets}) {
        PXParser normal(type), flushing(type);
        const QByteArray stream = hex("01") + pxproto::event(1) + hex("7E") + pxproto::ping() +
                                  reply + hex("BB AD 00 00 80");
        for (char c : stream) {
            normal.feedData(QByteArray(1, c));
            flushing.feedData(QByteArray(1, c));
            for (;;) {
                const QByteArray packet = normal.getPacket(false);
                ASSERT_EQ(flushing.getPacket(true), packet);
                ASSERT_EQ(flushing.logs(), normal.logs());
                if (packet.isEmpty())
                    break;
            }
        }
        EXPECT_EQ(normal.bufferedSize(), flushing.bufferedSize());
    }
}

TEST_F(Parser, ChangeTypeEmptiesBufferAndSwitchesStartByte)
{
    feed("BB 00 05 7F 00");
    parser.changeType(PXParser::ServerFrames);
    EXPECT_EQ(parser.bufferedSize(), 0);

    parser.changeType(PXParser::DebugPackets);
    feed("BB AD 00 00 01");
    EXPECT_EQ(parser.logs(), lines({"Drop Byte: bb"}));
    EXPECT_EQ(parser.getPacket(false), hex("AD 00 00 01"));
}

TEST_F(Parser, InvalidTypeIsRejected)
{
    PXParser fresh(static_cast<PXParser::Type>(9));
    EXPECT_EQ(fresh.getStartByte(), pxproto::FrameStart);
    EXPECT_EQ(fresh.type(), PXParser::ServerFrames);

    use(PXParser::EscapedDebugStream);
    feed("AD 00");
    EXPECT_FALSE(parser.changeType(static_cast<PXParser::Type>(-1)));
    EXPECT_EQ(parser.getStartByte(), pxproto::DebugStart);
    EXPECT_EQ(parser.bufferedSize(), 0);
    feed("AD 5C EE");
    EXPECT_EQ(parser.buffered(), hex("AD 11"));
}

struct EscapeCase
{
    const char* input;
    const char* buffered;
};

void PrintTo(const EscapeCase& c, std::ostream* os)
{
    *os << c.input;
}

class Unescape : public Parser, public ::testing::WithParamInterface<EscapeCase>
{};

TEST_P(Unescape, UndoesXonXoffEscaping)
{
    use(PXParser::EscapedDebugStream);
    // Fed twice: whole, and one byte at a time (an escape may end a piece).
    feed(GetParam().input);
    EXPECT_EQ(parser.buffered(), hex(GetParam().buffered));
    parser.reset();
    for (char c : hex(GetParam().input))
        parser.feedData(QByteArray(1, c));
    EXPECT_EQ(parser.buffered(), hex(GetParam().buffered));
}

INSTANTIATE_TEST_SUITE_P(
    Table, Unescape,
    ::testing::Values(EscapeCase{"AD 5C EE", "AD 11"}, EscapeCase{"AD 5C A3", "AD 5C"},
                      EscapeCase{"AD 5C 5C EE", "AD 11"}, EscapeCase{"AD 5C EC 41", "AD 13 41"},
                      EscapeCase{"5C 52 00", "AD 00"}, EscapeCase{"5C 52", "AD"}));

TEST_F(Parser, EscapedStreamRoundTripsTheEncoders)
{
    use(PXParser::EscapedDebugStream);
    const QByteArray packet = FormatWriteBlock(0x2000, hex("01 11 13 5C"));
    parser.feedData(EscapeXonXoff(packet));
    EXPECT_TRUE(parser.getPacket(false).isEmpty()); // held back for nested data
    EXPECT_TRUE(parser.isNestedWaiting());
    EXPECT_EQ(parser.getPacket(true), packet);
}

TEST_F(Parser, ExtractsNestedDebugReplyFirstAndClosesUpTheOuterPacket)
{
    use(PXParser::EscapedDebugStream);
    const QByteArray outer = pxproto::debugPacket(0x05, "0123456789abcdefghij", 20);
    const QByteArray reply = debugReply(0xA1B2C3D4);
    const QByteArray next = pxproto::debugPacket(0x06, "0123456789", 10);
    QByteArray stream = outer;
    stream.insert(10, reply);
    parser.feedData(EscapeXonXoff(stream + next));

    EXPECT_EQ(parser.getPacket(false), reply);
    EXPECT_EQ(parser.logs(), lines({"Extract nested packet: AD 00 06 FF 00 D4 C3 B2 A1 FB"}));
    EXPECT_EQ(parser.getPacket(false), outer);
    EXPECT_TRUE(parser.getPacket(false).isEmpty()); // fewer than ten bytes behind `next`
    EXPECT_EQ(parser.getPacket(true), next);
}

TEST_F(Parser, DebugReplyAtFrontIsReleasedAtOnce)
{
    use(PXParser::EscapedDebugStream);
    const QByteArray reply = debugReply(0x01020304);
    parser.feedData(reply + hex("AD 00"));
    EXPECT_EQ(parser.getPacket(false), reply);
    EXPECT_TRUE(parser.logs().isEmpty());
}

TEST_F(Parser, ReplyWithinTwoBytesOfTheFrontIsTakenOutAtOnce)
{
    use(PXParser::EscapedDebugStream);
    const QByteArray reply = debugReply(0x01020304);
    for (int offset = 1; offset <= 3; ++offset) {
        parser.reset();
        parser.feedData(hex("AD 00 00").left(offset) + reply);
        EXPECT_EQ(parser.getPacket(false), offset < 3 ? reply : QByteArray()) << offset;
        EXPECT_EQ(parser.getPacket(true), offset < 3 ? QByteArray() : reply) << offset;
    }
}

TEST_F(Parser, CompletePacketIsHeldUntilTenBytesFollowIt)
{
    use(PXParser::EscapedDebugStream);
    const QByteArray packet = pxproto::debugPacket(0x05, "0123", 4);
    const QByteArray behind = pxproto::debugPacket(0x06, "0123456789", 10);
    parser.feedData(packet + behind.left(9));
    EXPECT_TRUE(parser.getPacket(false).isEmpty());
    parser.feedData(behind.mid(9, 1));
    EXPECT_EQ(parser.getPacket(false), packet);
}

TEST_F(Parser, ReplyWithWrongChecksumIsCutByLength)
{
    use(PXParser::EscapedDebugStream);
    QByteArray bad = debugReply(0x01020304);
    bad[9] = char(bad[9] ^ 0x01);
    parser.feedData(bad);
    EXPECT_TRUE(parser.getPacket(false).isEmpty());
    EXPECT_EQ(parser.getPacket(true), bad);

    const QByteArray tail = pxproto::debugPacket(0x06, "012345678", 9);
    parser.feedData(bad + tail);
    EXPECT_EQ(parser.getPacket(false), bad);
    EXPECT_TRUE(parser.logs().isEmpty());
}

TEST_F(Parser, ReplyWithCommandNeedsExpectedCommandAndLength)
{
    use(PXParser::EscapedDebugStream);
    const QByteArray outer = pxproto::debugPacket(0x05, "0123456789abcdefghij", 20);
    QByteArray stream = outer;
    stream.insert(8, debugReply(0x55667788, 0x82));

    parser.feedData(stream);
    EXPECT_EQ(parser.getPacket(true), stream.left(outer.size())) << "not recognised";

    parser.reset();
    parser.setExpectedCommand(0x82);
    parser.setExpectedLength(4);
    parser.feedData(stream);
    EXPECT_EQ(parser.getPacket(true), debugReply(0x55667788, 0x82));
    EXPECT_EQ(parser.getPacket(true), outer);

    parser.reset();
    EXPECT_EQ(parser.getExpectedCommand(), 0);
    EXPECT_EQ(parser.getExpectedLength(), 0u);
}

TEST(DebugPacketLen, NeverReadsBeyondWhatItIsGiven)
{
    PXParser parser(PXParser::DebugPackets);
    const QByteArray reply = debugReply(0x01020304);
    const QByteArray shortHeader = hex("AD 00 00 FF");
    // Exact-size heap copies, so that the address sanitizer sees any overrun.
    for (const QByteArray& source : {reply, shortHeader, hex("AD 00 01 FF 00")}) {
        for (int size = 0; size <= source.size(); ++size) {
            std::vector<unsigned char> exact(source.begin(), source.begin() + size);
            const int expected = (source == reply && size == reply.size()) ? 10 : -1;
            EXPECT_EQ(parser.debugPacketLen(exact.data(), size), expected) << size;
        }
    }
}

// Random streams of whole packets, truncated packets and noise, fed in random pieces from
// exact-size buffers, with occasional stale gaps: every byte is handed out in a packet,
// logged as dropped, or still buffered, and every packet is well formed.
TEST(ParserStress, AccountsForEveryByte)
{
    std::mt19937 random(12345);
    auto byte = [&] { return static_cast<unsigned char>(random() & 0xFF); };
    for (auto type :
         {PXParser::ServerFrames, PXParser::DebugPackets, PXParser::EscapedDebugStream}) {
        PXParser parser(type);
        parser.setClock(&fakeClock);
        const auto start = char(parser.getStartByte());
        QByteArray stream;
        for (int i = 0; i < 4000; ++i) {
            QByteArray data(int(random() % 24), Qt::Uninitialized);
            for (char& c : data)
                c = char(random() % 8 == 0 ? start : char(byte()));
            QByteArray item;
            switch (random() % 4) {
            case 0:
                item = type == PXParser::ServerFrames ? pxproto::event(random(), byte())
                                                      : debugReply(random());
                break;
            case 1:
                item = type == PXParser::ServerFrames
                           ? pxproto::readData(random(), data.constData(), int(data.size()))
                           : pxproto::debugPacket(byte(), data.constData(), int(data.size()));
                break;
            case 2: // noise without start bytes
                for (char& c : data)
                    c = c == start ? char(0x5C) : c;
                item = data;
                break;
            default: // a packet cut short
                item = pxproto::debugPacket(0xFF, data.constData(), int(data.size()));
                item[0] = start;
                item.chop(int(random() % item.size()));
                break;
            }
            stream += type == PXParser::EscapedDebugStream ? EscapeXonXoff(item) : item;
        }

        qint64 fed = 0, out = 0, dropped = 0;
        auto countDrops = [&] {
            for (const QString& line : parser.logs())
                dropped += line.startsWith(QLatin1String("Extract")) ? 0 : 1;
        };
        for (int at = 0; at < stream.size();) {
            const int size = std::min(int(random() % 64), int(stream.size()) - at);
            std::vector<unsigned char> piece(stream.begin() + at, stream.begin() + at + size);
            at += size;
            gNow += random() % 100 == 0 ? 2000 : 1;
            if (random() % 2)
                parser.feedData(piece.data(), size);
            else
                parser.feedData(QByteArray(reinterpret_cast<const char*>(piece.data()), size));
            countDrops();
            for (unsigned char b : piece)
                fed += (type != PXParser::EscapedDebugStream || b != PXParser::EscapeByte) ? 1 : 0;
            for (;;) {
                const QByteArray packet = parser.getPacket(random() % 4 == 0);
                countDrops();
                if (packet.isEmpty())
                    break;
                ASSERT_EQ(packet.at(0), start);
                ASSERT_EQ(packet.size(), pxproto::getBe16(packet.constData() + 1) + 4);
                out += packet.size();
            }
        }
        EXPECT_GT(out, 0) << "type " << type;
        EXPECT_EQ(fed, out + dropped + parser.bufferedSize()) << "type " << type;
    }
}

struct BytesCase
{
    const char* data;
    int maxBytes;
    const char* text;
};

void PrintTo(const BytesCase& c, std::ostream* os)
{
    *os << '[' << c.data << "] max " << c.maxBytes;
}

class LogBytes : public ::testing::TestWithParam<BytesCase>
{};

TEST_P(LogBytes, FormatsAndMarksTheCut)
{
    EXPECT_EQ(PXLogBytes(hex(GetParam().data), GetParam().maxBytes), QByteArray(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(Table, LogBytes,
                         ::testing::Values(BytesCase{"01 A0 FF 00 7E", 3, "01 A0 FF ..."},
                                           BytesCase{"01 A0 FF 00 7E", 10, "01 A0 FF 00 7E"},
                                           BytesCase{"01 A0 FF 00 7E", 5, "01 A0 FF 00 7E"},
                                           BytesCase{"0a", 1, "0A"}, BytesCase{"", 0, ""},
                                           BytesCase{"", 4, ""}, BytesCase{"01", 0, " ..."},
                                           BytesCase{"01", -3, " ..."}, BytesCase{"", -1, " ..."}));

TEST(LogString, FormatsLikePrintfAndCutsAt8191Bytes)
{
    EXPECT_EQ(PXLogString("Drop Byte: %02x", 0xAB), QStringLiteral("Drop Byte: ab"));
    EXPECT_EQ(PXLogString("%s", "\xC3\xA4"), QString(QChar(0xE4)));
    const QByteArray longText(9000, 'x');
    EXPECT_EQ(PXLogString("%s", longText.constData()), QString(8191, QLatin1Char('x')));
    EXPECT_EQ(PXLogBytes(longText, 3000).size(), 3000 * 3 - 1 + 4);
}

} // namespace
