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
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 100000)
        return 0;
    using fuzzpeer::fail;
    fuzzpeer::ensureApplication();
    const bool escaped = (data[0] & 1) != 0;
    const int piece = 1 + (data[0] >> 1);

    PXLinkSession session([](const QByteArray&) {}); // what goes to the chip does not matter
    session.setEscaped(escaped);
    // A completion that must run at most once and, unless `bytes` is -1, with exactly that many
    // bytes.
    const auto once = [](int bytes) {
        return [bytes, calls = std::make_shared<int>()](const QByteArray& got = {}) {
            if (++*calls > 1 || (bytes >= 0 && got.size() != bytes))
                fail("completion run twice or with the wrong size");
        };
    };
    session.read(false, 0x1000, 1, once(1));
    session.read(false, 0x1002, 2, once(2));
    session.read(true, 0x10, 1, once(1));
    session.read(false, 0x2000, 4, once(4));
    session.readBlock(0x3001, 11, once(11));
    session.write(false, 0, 0x4000, QByteArray(70000, 'x'), once(-1));
    session.probe(once(-1));
    QObject::connect(&session, &PXLinkSession::bypassArrived, [](const QByteArray& packet) {
        if (packet.size() < 5 || pxproto::getBe16(packet.constData() + 1) + 4 != packet.size())
            fail("bypass packet not whole");
    });

    const QByteArray input(reinterpret_cast<const char*>(data + 1), int(size - 1));
    for (qsizetype offset = 0; offset < input.size(); offset += piece)
        session.feed(input.mid(offset, piece));

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
