// The server's side of the debug link on arbitrary bytes from the chip: a session with reads of
// every width, a block-read piece, writes and a probe in flight is fed the input (the first
// byte picks the escaping and how the rest is cut into feeds). Every completion must run at
// most once and with exactly the bytes asked for, every bypass packet must be whole by its
// length field, and after a resynchronisation a fresh read must complete from a well-formed
// reply.

#include "FuzzPeer.h"

#include "chip/PXLinkPacket.h"
#include "pellix/protocol/PXFrames_p.h"
#include "target/PXLinkSession.h"

#include <cstdint>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 100000)
        return 0;
    using fuzzpeer::fail;
    fuzzpeer::ensureApplication();
    const bool escaped = (data[0] & 1) != 0;
    const int piece = 1 + (data[0] >> 1);
    ++data;
    --size;

    QByteArray sent;
    PXLinkSession session([&sent](const QByteArray& bytes) { sent.append(bytes); });
    session.setEscaped(escaped);
    std::vector<int> calls(8, 0);
    auto expect = [&calls](int slot, int bytes) {
        return [&calls, slot, bytes](const QByteArray& got) {
            if (++calls[size_t(slot)] > 1 || got.size() != bytes)
                fail("completion run twice or with the wrong size");
        };
    };
    session.read(false, 0x1000, 1, expect(0, 1));
    session.read(false, 0x1002, 2, expect(1, 2));
    session.read(true, 0x10, 1, expect(2, 1));
    session.read(false, 0x2000, 4, expect(3, 4));
    session.readBlock(0x3001, 11, expect(4, 11));
    session.write(false, 0, 0x4000, QByteArray(70000, 'x'), [&calls] {
        if (++calls[5] > 1)
            fail("write completed twice");
    });
    session.probe([&calls] { ++calls[6]; });
    QObject::connect(&session, &PXLinkSession::bypassArrived, [](const QByteArray& packet) {
        if (packet.size() < 5 || pxproto::getBe16(packet.constData() + 1) + 4 != packet.size())
            fail("bypass packet not whole");
    });

    for (size_t offset = 0; offset < size; offset += size_t(piece)) {
        const size_t n = size - offset < size_t(piece) ? size - offset : size_t(piece);
        session.feed(QByteArray(reinterpret_cast<const char*>(data + offset), int(n)));
    }

    // Never wedged: once what was in flight is dropped and the link has been quiet, a fresh
    // read completes from a well-formed reply, whatever came before.
    session.setQuietMs(0);
    session.drop("end of input");
    QCoreApplication::processEvents();
    bool done = false;
    session.read(false, 0x5000, 4, [&done](const QByteArray& got) { done = got.size() == 4; });
    const unsigned char reply[] = {0, 1, 2, 3, 4};
    const QByteArray stream = pxproto::debugPacket(pxlink::CommandFlow, reply, 5);
    session.feed(escaped ? EscapeXonXoff(stream) : stream);
    if (!done)
        fail("a well-formed reply after a resynchronisation did not complete the read");
    return 0;
}
