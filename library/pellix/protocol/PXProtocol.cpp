#include "pellix/protocol/PXProtocol.h"

#include "pellix/protocol/PXFrames_p.h"

unsigned char CalcHostCrc(const void* data, unsigned long size)
{
    const auto* p = static_cast<const unsigned char*>(data);
    unsigned char sum = 0;
    for (unsigned long i = 0; i < size; ++i)
        sum ^= p[i];
    return sum;
}

namespace {

// A debug command packet on flow 0xFF: command, address, argument bytes.
QByteArray debugCommand(unsigned char command, unsigned int address, const void* argument,
                        int argumentSize)
{
    const int dataSize = 5 + argumentSize;
    QByteArray out(dataSize + 5, Qt::Uninitialized);
    auto* p = pxproto::writableBytes(out);
    pxproto::putDebugHeader(p, 0xFF, dataSize);
    p[4] = command;
    pxproto::putLe32(p + 5, address);
    if (argumentSize > 0)
        std::memcpy(p + 9, argument, size_t(argumentSize));
    pxproto::putDebugChecksum(p, dataSize);
    return out;
}

} // namespace

QByteArray FormatRead(unsigned char arg, unsigned char command, unsigned int address)
{
    return debugCommand(command, address, &arg, 1);
}

QByteArray FormatReadi8(unsigned char arg, unsigned int address)
{
    return FormatRead(arg, pxproto::access::ReadInternal, address);
}

QByteArray FormatRead8(unsigned char arg, unsigned int address)
{
    return FormatRead(arg, pxproto::access::Read8, address);
}

QByteArray FormatRead16(unsigned char arg, unsigned int address)
{
    return FormatRead(arg, pxproto::access::Read16, address);
}

QByteArray FormatRead32(unsigned char arg, unsigned int address)
{
    return FormatRead(arg, pxproto::access::Read32, address);
}

QByteArray FormatWritei8(unsigned int address, unsigned char value)
{
    return debugCommand(pxproto::access::WriteInternal, address, &value, 1);
}

QByteArray FormatWrite8(unsigned int address, unsigned char value)
{
    return debugCommand(pxproto::access::Write8, address, &value, 1);
}

QByteArray FormatWrite16(unsigned int address, unsigned short value)
{
    unsigned char bytes[2] = {static_cast<unsigned char>(value),
                              static_cast<unsigned char>(value >> 8)};
    return debugCommand(pxproto::access::Write16, address, bytes, 2);
}

QByteArray FormatWrite32(unsigned int address, unsigned int value)
{
    unsigned char bytes[4];
    pxproto::putLe32(bytes, value);
    return debugCommand(pxproto::access::Write32, address, bytes, 4);
}

QByteArray FormatWriteBlock(unsigned int address, const QByteArray& data)
{
    return debugCommand(pxproto::access::WriteBlock, address, data.constData(), int(data.size()));
}

QByteArray EscapeXonXoff(const QByteArray& data)
{
    QByteArray out(data.size() * 2, Qt::Uninitialized);
    char* o = out.data();
    for (char c : data) {
        const auto b = static_cast<unsigned char>(c);
        if (b == 0x11 || b == 0x13 || b == 0x5C) {
            *o++ = char(0x5C);
            *o++ = char(b ^ 0xFF);
        } else {
            *o++ = c;
        }
    }
    out.resize(int(o - out.constData()));
    return out;
}
