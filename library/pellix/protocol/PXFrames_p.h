#ifndef PELLIX_PXFRAMES_P_H
#define PELLIX_PXFRAMES_P_H

// Library-internal: the wire format spoken between the library and the host server, shared by
// the library, the server, the tests, the fuzzers and the benchmarks. Not installed.
//
// Server frame (both directions, no checksum, no trailer):
//
//   offset 0   1 byte   start byte 0xBB
//   offset 1   2 bytes  payload length L, big-endian
//   offset 3   1 byte   flow id (kind of message)
//   offset 4   L bytes  payload; every number inside it is little-endian
//
// A frame is L + 4 bytes long: 4 at least, 65539 at most. Debug packets (PXProtocol.h) ride
// inside bypass frames.
//
// Every frame is built by the functions of namespace pxproto below, and only there; every
// debug packet is framed by putDebugHeader and putDebugChecksum, and only there.

#include "pellix/protocol/PXLTypes.h"
#include "pellix/protocol/PXProtocol.h"

#include <QByteArray>

#include <cstdint>
#include <cstring>

namespace pxproto {

constexpr unsigned char FrameStart = 0xBB;
constexpr unsigned char DebugStart = 0xAD;
constexpr int HeaderSize = 4;
constexpr int MaxPayloadLength = 65535;
constexpr int MaxFrameSize = MaxPayloadLength + HeaderSize;
// Largest bypass packet that fits one frame: length field n + 5 must stay within 16 bits.
constexpr int MaxBypassData = 65530;
// Most flow ids one bypass-enable request carries (its length field holds count + 4).
constexpr int MaxFlowIds = MaxPayloadLength - 4;
// Largest write that fits one frame (length field n + 5).
constexpr int MaxWriteData = 65530;
// Block operations of the connections cut their ranges into requests of at most this size.
constexpr int MaxBlockChunk = 32768;

// Flow ids, library to server.
namespace request {
constexpr unsigned char Read = 0xFF;  // single read (5-byte payload)
constexpr unsigned char Write = 0xFF; // write (data + 5)
constexpr unsigned char BlockRead = 0xFE;
constexpr unsigned char EnableEvents = 0xC0;
constexpr unsigned char SetBypassFlowIds = 0xB0;
constexpr unsigned char BypassSend = 0xB5;
constexpr unsigned char Ping = 0x80;
constexpr unsigned char SetClientType = 0x82;
constexpr unsigned char SetBaudRate = 0xA0;
constexpr unsigned char AutoBauding = 0xA1;
constexpr unsigned char ForceReconnect = 0xA2;
constexpr unsigned char SetFlowMode = 0xA3;
constexpr unsigned char Kill = 0xB1;
constexpr unsigned char Break = 0xB2;
constexpr unsigned char Status = 0xB3;
constexpr unsigned char Clean = 0xB4;
constexpr unsigned char FlushFifos = 0xB7;
constexpr unsigned char SetUsbId = 0xB8;
constexpr unsigned char SetPersistent = 0xB9;
} // namespace request

// Flow ids, server to library.
namespace reply {
constexpr unsigned char Ping = 0x00;
constexpr unsigned char Status = 0x02;
constexpr unsigned char Completion = 0x03; // of force-reconnection and send-break
constexpr unsigned char Event = 0x41;
constexpr unsigned char WriteAck = 0x7E;
constexpr unsigned char ReadData = 0x7F;
constexpr unsigned char Bypass = 0xB5;
} // namespace reply

// Access codes (byte 4 of a single read) and write codes (byte 4 of a write). The read
// codes equal the write codes less 0x80; the block read uses 0x03.
namespace access {
constexpr unsigned char Read8 = 0x00;
constexpr unsigned char Read16 = 0x01;
constexpr unsigned char Read32 = 0x02;
constexpr unsigned char BlockRead = 0x03;
constexpr unsigned char ReadInternal = 0x04;
constexpr unsigned char Write8 = 0x80;
constexpr unsigned char Write16 = 0x81;
constexpr unsigned char Write32 = 0x82;
constexpr unsigned char WriteBlock = 0x83;
constexpr unsigned char WriteInternal = 0x84;
} // namespace access

// Payload lengths of the fixed-size messages.
constexpr int SingleReadLength = 5;
constexpr int BlockReadLength = 9;
constexpr int EventLength = 5;
constexpr int StatusFrameSize = 5;

// ---- little helpers for reading and writing numbers --------------------------------------

inline void putLe32(unsigned char* out, quint32 value)
{
    out[0] = static_cast<unsigned char>(value);
    out[1] = static_cast<unsigned char>(value >> 8);
    out[2] = static_cast<unsigned char>(value >> 16);
    out[3] = static_cast<unsigned char>(value >> 24);
}

inline quint32 getLe32(const unsigned char* in)
{
    return quint32(in[0]) | (quint32(in[1]) << 8) | (quint32(in[2]) << 16) | (quint32(in[3]) << 24);
}

inline quint32 getLe32(const char* in)
{
    return getLe32(reinterpret_cast<const unsigned char*>(in));
}

inline int getBe16(const unsigned char* in)
{
    return (int(in[0]) << 8) | int(in[1]);
}

inline int getBe16(const char* in)
{
    return getBe16(reinterpret_cast<const unsigned char*>(in));
}

// Length field (offsets 1 and 2) of a frame of at least 3 bytes.
inline int payloadLength(const QByteArray& frame)
{
    return getBe16(frame.constData() + 1);
}

// Flow id (offset 3) of a frame of at least 4 bytes.
inline unsigned char flowId(const QByteArray& frame)
{
    return static_cast<unsigned char>(frame.at(3));
}

// ---- frame building -------------------------------------------------------------------------

// The bytes of a freshly allocated array, for a builder to fill in. The empty asm hides the
// pointer's origin from GCC, which otherwise takes Qt 5's array header for the destination
// object and reports the stores into the data behind it as overflows (-Wstringop-overflow).
inline unsigned char* writableBytes(QByteArray& out)
{
    auto* p = reinterpret_cast<unsigned char*>(out.data());
#if defined(__GNUC__) && !defined(__clang__)
    asm("" : "+r"(p));
#endif
    return p;
}

// Writes the 4-byte header of a frame with the given flow id and payload length to out.
inline void putHeader(unsigned char* out, unsigned char flow, int length)
{
    out[0] = FrameStart;
    out[1] = static_cast<unsigned char>(length >> 8);
    out[2] = static_cast<unsigned char>(length);
    out[3] = flow;
}

// The first 4 bytes of a debug packet on `flow` with `dataSize` data bytes: start byte, length
// (flow id and data) big-endian, flow id. The data follow at offset 4.
inline void putDebugHeader(unsigned char* packet, unsigned char flow, int dataSize)
{
    packet[0] = DebugStart;
    packet[1] = static_cast<unsigned char>((dataSize + 1) >> 8);
    packet[2] = static_cast<unsigned char>(dataSize + 1);
    packet[3] = flow;
}

// Closes a debug packet whose header and data are in place: the XOR of the flow id and the
// data bytes, after the data.
inline void putDebugChecksum(unsigned char* packet, int dataSize)
{
    packet[4 + dataSize] = CalcHostCrc(packet + 3, static_cast<unsigned long>(dataSize + 1));
}

// A frame whose payload is `length` bytes at `payload` (null when length is 0).
inline QByteArray frame(unsigned char flow, const void* payload, int length)
{
    QByteArray out(HeaderSize + length, Qt::Uninitialized);
    auto* p = writableBytes(out);
    putHeader(p, flow, length);
    if (length > 0)
        std::memcpy(p + HeaderSize, payload, size_t(length));
    return out;
}

// A request without payload: ping, auto-bauding, force reconnection, kill, break, status,
// clean, flush FIFOs (4 bytes).
inline QByteArray emptyFrame(unsigned char flow)
{
    return frame(flow, nullptr, 0);
}

// A request with one byte of payload: enable events, set client type, set persistent.
inline QByteArray byteFrame(unsigned char flow, unsigned char value)
{
    return frame(flow, &value, 1);
}

// A request with one 32-bit little-endian argument: set baud rate, set flow mode.
inline QByteArray u32Frame(unsigned char flow, quint32 value)
{
    unsigned char payload[4];
    putLe32(payload, value);
    return frame(flow, payload, 4);
}

// Access code of a single read of `size` bytes; -1 when the size has none (0, 3, > 4).
inline int readAccessCode(int size, bool internal)
{
    if (internal)
        return access::ReadInternal;
    switch (size) {
    case 1:
        return access::Read8;
    case 2:
        return access::Read16;
    case 4:
        return access::Read32;
    default:
        return -1;
    }
}

// Write code of a write of `size` bytes.
inline unsigned char writeAccessCode(int size, bool internal)
{
    if (internal)
        return access::WriteInternal;
    switch (size) {
    case 1:
        return access::Write8;
    case 2:
        return access::Write16;
    case 4:
        return access::Write32;
    default:
        return access::WriteBlock;
    }
}

// Single read (9 bytes): flow 0xFF, access code, address.
inline QByteArray singleRead(unsigned char accessCode, quint32 address)
{
    unsigned char payload[SingleReadLength];
    payload[0] = accessCode;
    putLe32(payload + 1, address);
    return frame(request::Read, payload, SingleReadLength);
}

// Block read (13 bytes): flow 0xFE, code 3, address, byte count.
inline QByteArray blockRead(quint32 address, quint32 count)
{
    unsigned char payload[BlockReadLength];
    payload[0] = access::BlockRead;
    putLe32(payload + 1, address);
    putLe32(payload + 5, count);
    return frame(request::BlockRead, payload, BlockReadLength);
}

// The read request for `size` bytes: a block read above 4 bytes (internal or not),
// otherwise a single read. A size without access code (0, 3 outside the internal space)
// gives an empty array: such a read is not a valid request.
inline QByteArray readRequest(quint32 address, bool internal, int size)
{
    if (size > 4)
        return blockRead(address, quint32(size));
    const int code = readAccessCode(size, internal);
    if (code < 0)
        return QByteArray();
    return singleRead(static_cast<unsigned char>(code), address);
}

// Write (n + 9 bytes): flow 0xFF, write code, address, the data bytes as they lie in memory.
// The caller keeps n within MaxWriteData.
inline QByteArray writeRequest(quint32 address, bool internal, const void* data, int size)
{
    QByteArray out(HeaderSize + 5 + size, Qt::Uninitialized);
    auto* p = writableBytes(out);
    putHeader(p, request::Write, size + 5);
    p[4] = writeAccessCode(size, internal);
    putLe32(p + 5, address);
    if (size > 0)
        std::memcpy(p + 9, data, size_t(size));
    return out;
}

// Enable (0x01) or disable (0x00) events (5 bytes).
inline QByteArray enableEvents(bool enable)
{
    return byteFrame(request::EnableEvents, enable ? 1 : 0);
}

// Set bypass flow ids (n + 8 bytes): count as 32-bit little-endian, then the ids.
// The caller keeps n within 65531.
inline QByteArray setBypassFlowIds(const unsigned char* ids, int count)
{
    QByteArray out(HeaderSize + 4 + count, Qt::Uninitialized);
    auto* p = writableBytes(out);
    putHeader(p, request::SetBypassFlowIds, count + 4);
    putLe32(p + 4, quint32(count));
    if (count > 0)
        std::memcpy(p + 8, ids, size_t(count));
    return out;
}

// Bypass send (n + 9 bytes): a nested debug packet on `flow` carrying the n data bytes. The
// caller keeps n within MaxBypassData.
inline QByteArray bypassSend(unsigned char flow, const void* data, int size)
{
    QByteArray out(HeaderSize + 5 + size, Qt::Uninitialized);
    auto* p = writableBytes(out);
    putHeader(p, request::BypassSend, size + 5);
    putDebugHeader(p + HeaderSize, flow, size);
    if (size > 0)
        std::memcpy(p + HeaderSize + 4, data, size_t(size));
    putDebugChecksum(p + HeaderSize, size);
    return out;
}

// Set USB identifiers (12 bytes): each 16-bit identifier widened to 32 bits little-endian.
inline QByteArray setUsbId(quint16 first, quint16 second)
{
    unsigned char payload[8];
    putLe32(payload, first);
    putLe32(payload + 4, second);
    return frame(request::SetUsbId, payload, 8);
}

inline QByteArray ping()
{
    return emptyFrame(request::Ping);
}
inline QByteArray status()
{
    return emptyFrame(request::Status);
}
inline QByteArray kill()
{
    return emptyFrame(request::Kill);
}
inline QByteArray clean()
{
    return emptyFrame(request::Clean);
}
inline QByteArray flushFifos()
{
    return emptyFrame(request::FlushFifos);
}
inline QByteArray forceReconnect()
{
    return emptyFrame(request::ForceReconnect);
}
inline QByteArray comBreak()
{
    return emptyFrame(request::Break);
}
inline QByteArray autoBauding()
{
    return emptyFrame(request::AutoBauding);
}
inline QByteArray setBaudRate(int baud)
{
    return u32Frame(request::SetBaudRate, quint32(baud));
}
inline QByteArray setFlowMode(quint32 mode)
{
    return u32Frame(request::SetFlowMode, mode);
}
inline QByteArray setClientType(pxl_client_type_t type)
{
    return byteFrame(request::SetClientType, static_cast<unsigned char>(type));
}
inline QByteArray setPersistent(bool persistent)
{
    return byteFrame(request::SetPersistent, persistent ? 1 : 0);
}

// ---- reading rules shared by both connection classes ----------------------------------------

// The number of data bytes of a read-data frame that fits a read waiting for `remaining`
// bytes at `expectedAddress`, or -1 when it does not: the length field must exceed 4, the
// frame must be exactly length + 4 bytes, carry the expected address and no more bytes than
// are still expected. The data start at offset 8.
inline int readDataCount(const unsigned char* frame, int size, quint32 expectedAddress,
                         qint64 remaining)
{
    if (size < HeaderSize + 4)
        return -1;
    const int length = getBe16(frame + 1);
    if (length <= 4 || length + HeaderSize != size || getLe32(frame + 4) != expectedAddress ||
        qint64(length) - 4 > remaining)
        return -1;
    return length - 4;
}

// ---- server side frames (the simulator and test servers) ------------------------------------

// Read data (n + 8 bytes): address of the first byte, then the n bytes.
inline QByteArray readData(quint32 address, const void* data, int size)
{
    QByteArray out(HeaderSize + 4 + size, Qt::Uninitialized);
    auto* p = writableBytes(out);
    putHeader(p, reply::ReadData, size + 4);
    putLe32(p + 4, address);
    if (size > 0)
        std::memcpy(p + 8, data, size_t(size));
    return out;
}

inline QByteArray writeAck()
{
    return emptyFrame(reply::WriteAck);
}
inline QByteArray pingReply()
{
    return emptyFrame(reply::Ping);
}
inline QByteArray completion()
{
    return emptyFrame(reply::Completion);
}
inline QByteArray statusReply(unsigned char status)
{
    return byteFrame(reply::Status, status);
}

// Event (9 bytes): identifier, then one byte that the library does not interpret.
inline QByteArray event(quint32 id, unsigned char extra = 0)
{
    unsigned char payload[EventLength];
    putLe32(payload, id);
    payload[4] = extra;
    return frame(reply::Event, payload, EventLength);
}

// Bypass frame carrying a nested debug packet unchanged.
inline QByteArray bypassFrame(const QByteArray& nested)
{
    return frame(reply::Bypass, nested.constData(), int(nested.size()));
}

// A debug packet on `flow` with `data` and its checksum (as the target sends on a bypass flow).
inline QByteArray debugPacket(unsigned char flow, const void* data, int size)
{
    QByteArray out(4 + size + 1, Qt::Uninitialized);
    auto* p = writableBytes(out);
    putDebugHeader(p, flow, size);
    if (size > 0)
        std::memcpy(p + 4, data, size_t(size));
    putDebugChecksum(p, size);
    return out;
}

// The server's command-line word of a flow mode: "hardware", "xonxoff", or "none" for every
// other value.
inline const char* flowModeWord(quint32 mode)
{
    return mode == PXL_FLOW_HARDWARE ? "hardware" : mode == PXL_FLOW_XONXOFF ? "xonxoff" : "none";
}

} // namespace pxproto

// The server commands that both connection classes send the same way, without a reply, through
// their own sendCommand: `PXPROTO_DEFINE_SERVER_COMMANDS(PXConnection)` in a class's source
// file defines them, built by the builders above.
#define PXPROTO_DEFINE_SERVER_COMMANDS(Class)                                                      \
    unsigned int Class::killPellix()                                                               \
    {                                                                                              \
        return sendCommand(pxproto::kill());                                                       \
    }                                                                                              \
    unsigned int Class::cleanPellix()                                                              \
    {                                                                                              \
        return sendCommand(pxproto::clean());                                                      \
    }                                                                                              \
    unsigned int Class::flushPellixFifos()                                                         \
    {                                                                                              \
        return sendCommand(pxproto::flushFifos());                                                 \
    }                                                                                              \
    unsigned int Class::autoBauding()                                                              \
    {                                                                                              \
        return sendCommand(pxproto::autoBauding());                                                \
    }                                                                                              \
    unsigned int Class::setFlowMode(PXLFlowMode mode)                                              \
    {                                                                                              \
        return sendCommand(pxproto::setFlowMode(quint32(mode)));                                   \
    }                                                                                              \
    unsigned int Class::setBaudRate(int baud)                                                      \
    {                                                                                              \
        return sendCommand(pxproto::setBaudRate(baud));                                            \
    }                                                                                              \
    unsigned int Class::setUsbId(unsigned short first, unsigned short second)                      \
    {                                                                                              \
        return sendCommand(pxproto::setUsbId(first, second));                                      \
    }

#endif
