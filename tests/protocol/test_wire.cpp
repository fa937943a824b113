// Byte-exact frames of every request and reply builder, the checksum and the debug packet
// encoders with their XON/XOFF escaping.

#include "hex.h"

#include "pellix/protocol/PXProtocol.h"

#include <gtest/gtest.h>

namespace {

struct FrameCase
{
    const char* name;
    QByteArray built;
    const char* expected;
};

void PrintTo(const FrameCase& c, std::ostream* os)
{
    *os << c.name;
}

QByteArray bytes(std::initializer_list<unsigned char> list)
{
    return QByteArray(reinterpret_cast<const char*>(list.begin()), int(list.size()));
}

const QByteArray kAbcd = bytes({0xDD, 0xCC, 0xBB, 0xAA});
const QByteArray kOneTwoThree = bytes({0x01, 0x02, 0x03});
const unsigned char kIds[] = {0x10, 0x20};

class Frames : public ::testing::TestWithParam<FrameCase>
{};

TEST_P(Frames, AreByteExact)
{
    EXPECT_EQ(GetParam().built, hex(GetParam().expected));
}

using namespace pxproto;

INSTANTIATE_TEST_SUITE_P(
    Requests, Frames,
    ::testing::Values(
        FrameCase{"ping", ping(), "BB 00 00 80"}, FrameCase{"status", status(), "BB 00 00 B3"},
        FrameCase{"kill", kill(), "BB 00 00 B1"}, FrameCase{"clean", clean(), "BB 00 00 B4"},
        FrameCase{"flushFifos", flushFifos(), "BB 00 00 B7"},
        FrameCase{"forceReconnect", forceReconnect(), "BB 00 00 A2"},
        FrameCase{"break", comBreak(), "BB 00 00 B2"},
        FrameCase{"autoBauding", autoBauding(), "BB 00 00 A1"},
        FrameCase{"baud921600", setBaudRate(921600), "BB 00 04 A0 00 10 0E 00"},
        FrameCase{"baud115200", setBaudRate(115200), "BB 00 04 A0 00 C2 01 00"},
        FrameCase{"flowMode", setFlowMode(PXL_FLOW_XONXOFF), "BB 00 04 A3 02 00 00 00"},
        FrameCase{"clientTypeLow8", setClientType(0x1234), "BB 00 01 82 34"},
        FrameCase{"persistentOn", setPersistent(true), "BB 00 01 B9 01"},
        FrameCase{"persistentOff", setPersistent(false), "BB 00 01 B9 00"},
        FrameCase{"eventsOn", enableEvents(true), "BB 00 01 C0 01"},
        FrameCase{"eventsOff", enableEvents(false), "BB 00 01 C0 00"},
        FrameCase{"read8", readRequest(0x1234, false, 1), "BB 00 05 FF 00 34 12 00 00"},
        FrameCase{"read16", readRequest(0x1234, false, 2), "BB 00 05 FF 01 34 12 00 00"},
        FrameCase{"read32", readRequest(0x1234, false, 4), "BB 00 05 FF 02 34 12 00 00"},
        FrameCase{"readInternal1", readRequest(0x1234, true, 1), "BB 00 05 FF 04 34 12 00 00"},
        FrameCase{"readInternal3", readRequest(0x1234, true, 3), "BB 00 05 FF 04 34 12 00 00"},
        FrameCase{"read0Invalid", readRequest(0x1234, false, 0), ""},
        FrameCase{"read3Invalid", readRequest(0x1234, false, 3), ""},
        FrameCase{"blockRead64", readRequest(0x1000, false, 64),
                  "BB 00 09 FE 03 00 10 00 00 40 00 00 00"},
        FrameCase{"blockReadInternal", readRequest(0x1000, true, 8),
                  "BB 00 09 FE 03 00 10 00 00 08 00 00 00"},
        FrameCase{"write8", writeRequest(0x10, false, kAbcd.constData(), 1),
                  "BB 00 06 FF 80 10 00 00 00 DD"},
        FrameCase{"write16", writeRequest(0x10, false, kAbcd.constData(), 2),
                  "BB 00 07 FF 81 10 00 00 00 DD CC"},
        FrameCase{"write32", writeRequest(0x10, false, kAbcd.constData(), 4),
                  "BB 00 09 FF 82 10 00 00 00 DD CC BB AA"},
        FrameCase{"write3Block", writeRequest(0x20, false, kOneTwoThree.constData(), 3),
                  "BB 00 08 FF 83 20 00 00 00 01 02 03"},
        FrameCase{"writeInternal4", writeRequest(0x20, true, kAbcd.constData(), 4),
                  "BB 00 09 FF 84 20 00 00 00 DD CC BB AA"},
        FrameCase{"bypassIds", setBypassFlowIds(kIds, 2), "BB 00 06 B0 02 00 00 00 10 20"},
        FrameCase{"bypassIdsNone", setBypassFlowIds(nullptr, 0), "BB 00 04 B0 00 00 00 00"},
        FrameCase{"bypassSend", bypassSend(0x05, kOneTwoThree.constData(), 2),
                  "BB 00 07 B5 AD 00 03 05 01 02 06"},
        FrameCase{"bypassSendEmpty", bypassSend(0x33, nullptr, 0), "BB 00 05 B5 AD 00 01 33 33"},
        FrameCase{"usbIds", setUsbId(0x1234, 0x5678), "BB 00 08 B8 34 12 00 00 78 56 00 00"}));

INSTANTIATE_TEST_SUITE_P(
    Replies, Frames,
    ::testing::Values(FrameCase{"readData", readData(0x1234, "\xAB", 1),
                                "BB 00 05 7F 34 12 00 00 AB"},
                      FrameCase{"readData32", readData(0x1234, kAbcd.constData(), 4),
                                "BB 00 08 7F 34 12 00 00 DD CC BB AA"},
                      FrameCase{"writeAck", writeAck(), "BB 00 00 7E"},
                      FrameCase{"pingReply", pingReply(), "BB 00 00 00"},
                      FrameCase{"completion", completion(), "BB 00 00 03"},
                      FrameCase{"statusReply", statusReply(1), "BB 00 01 02 01"},
                      FrameCase{"event", event(0x42, 0x99), "BB 00 05 41 42 00 00 00 99"},
                      FrameCase{"debugPacket", debugPacket(0x07, "\xAA", 1), "AD 00 02 07 AA AD"},
                      FrameCase{"bypassFrame", bypassFrame(hex("AD 00 02 07 AA AD")),
                                "BB 00 06 B5 AD 00 02 07 AA AD"}));

INSTANTIATE_TEST_SUITE_P(
    Encoders, Frames,
    ::testing::Values(
        FrameCase{"read32", FormatRead32(0x01, 0x1000), "AD 00 07 FF 02 00 10 00 00 01 EC"},
        FrameCase{"read16", FormatRead16(0x01, 0x1000), "AD 00 07 FF 01 00 10 00 00 01 EF"},
        FrameCase{"read8", FormatRead8(0x01, 0x1000), "AD 00 07 FF 00 00 10 00 00 01 EE"},
        FrameCase{"readi8", FormatReadi8(0x01, 0x1000), "AD 00 07 FF 04 00 10 00 00 01 EA"},
        FrameCase{"readAnyCommand", FormatRead(0x01, 0x7E, 0x1000),
                  "AD 00 07 FF 7E 00 10 00 00 01 90"},
        FrameCase{"write8", FormatWrite8(0x1234, 0x5A), "AD 00 07 FF 80 34 12 00 00 5A 03"},
        FrameCase{"writei8", FormatWritei8(0x1234, 0x5A), "AD 00 07 FF 84 34 12 00 00 5A 07"},
        FrameCase{"write16", FormatWrite16(0x10, 0x1234), "AD 00 08 FF 81 10 00 00 00 34 12 48"},
        FrameCase{"write32", FormatWrite32(0x10, 0x11223344),
                  "AD 00 0A FF 82 10 00 00 00 44 33 22 11 29"},
        FrameCase{"writeBlock", FormatWriteBlock(0x2000, kOneTwoThree),
                  "AD 00 09 FF 83 00 20 00 00 01 02 03 5C"},
        FrameCase{"writeBlockEmpty", FormatWriteBlock(0x2000, QByteArray()),
                  "AD 00 06 FF 83 00 20 00 00 5C"},
        FrameCase{"escapeSpecials", EscapeXonXoff(hex("11 13 5C 41")), "5C EE 5C EC 5C A3 41"},
        FrameCase{"escapeEmpty", EscapeXonXoff(QByteArray()), ""},
        FrameCase{"escapeNothing", EscapeXonXoff(hex("AD 00 07")), "AD 00 07"},
        FrameCase{"escapeWriteBlock", EscapeXonXoff(FormatWriteBlock(0x2000, kOneTwoThree)),
                  "AD 00 09 FF 83 00 20 00 00 01 02 03 5C A3"}));

TEST(Frames, LargestFramesKeepTheirLengthFields)
{
    const QByteArray data(MaxBypassData, '\x5A');
    const QByteArray send = bypassSend(0x01, data.constData(), int(data.size()));
    ASSERT_EQ(send.size(), MaxFrameSize);
    EXPECT_EQ(send.left(8), hex("BB FF FF B5 AD FF FB 01"));
    // 0x5A XORed an even number of times cancels out.
    EXPECT_EQ(static_cast<unsigned char>(send.back()), 0x01);

    const QByteArray write = writeRequest(0x10, false, data.constData(), MaxBlockChunk);
    ASSERT_EQ(write.size(), MaxBlockChunk + 9);
    EXPECT_EQ(write.left(5), hex("BB 80 05 FF 83"));
}

TEST(CalcHostCrc, IsPlainXor)
{
    EXPECT_EQ(CalcHostCrc(nullptr, 0), 0);
    EXPECT_EQ(CalcHostCrc("\x11", 1), 0x11);
    EXPECT_EQ(CalcHostCrc("\x05\x01\x02", 3), 0x06);
    const QByteArray packet = FormatWrite32(0xDEADBEEF, 0x12345678);
    // Flow id, command, data and checksum XOR to zero.
    EXPECT_EQ(CalcHostCrc(packet.constData() + 3, packet.size() - 3), 0);
}

} // namespace
