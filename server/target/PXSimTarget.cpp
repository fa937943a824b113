#include "PXSimTarget.h"

void PXSimTarget::read(bool internal, quint32 address, int size, Data data)
{
    QByteArray bytes(size, Qt::Uninitialized);
    simChip.read(internal, address, bytes.data(), quint32(size));
    data(bytes);
}

void PXSimTarget::readBlock(quint32 address, int size, Data data)
{
    if (scratch.size() < size)
        scratch.resize(size);
    simChip.read(false, address, scratch.data(), quint32(size));
    data(QByteArray::fromRawData(scratch.constData(), size));
}

void PXSimTarget::write(bool internal, int, quint32 address, const QByteArray& bytes, Done done)
{
    quint32 event = 0;
    const bool raised =
        simChip.write(internal, address, bytes.constData(), quint32(bytes.size()), &event);
    done();
    if (raised)
        emit eventRaised(event);
}

void PXSimTarget::sendBypass(const QByteArray& packet)
{
    // The front passes only well-framed packets: start byte, length, flow, data, checksum.
    const auto* bytes = reinterpret_cast<const unsigned char*>(packet.constData());
    emit bypassArrived(PXSimChip::echo(bytes[3], bytes + 4, int(packet.size()) - 5));
}
