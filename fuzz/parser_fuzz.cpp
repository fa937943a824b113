// The stream parser on arbitrary bytes: the first byte picks the parser type and how the
// rest is cut into feeds; every packet cut must be a whole frame by its own length field, and
// a second parser fed the same arrays must hand out the same packets in place (nextPacket).

#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXParser.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const auto type = static_cast<PXParser::Type>(data[0] % 3);
    const int piece = 1 + data[1] % 64;
    data += 2;
    size -= 2;

    static qint64 fakeNow; // the parsers' clock
    PXParser parser(type), inPlace(type);
    parser.setClock([] { return fakeNow; });
    inPlace.setClock([] { return fakeNow; });
    fakeNow = 1000;
    for (size_t offset = 0, n = 0; offset < size; offset += n) {
        n = std::min(size - offset, size_t(piece));
        // Bytes 0xFE in the stream stand for a pause long enough to make partial data stale.
        fakeNow += data[offset] == 0xFE ? 2000 : 1;
        parser.feedData(data + offset, int(n));
        // Fed as an owned array, which the parser may keep by sharing.
        inPlace.feedData(QByteArray(reinterpret_cast<const char*>(data + offset), int(n)));
        const bool flush = (data[offset + n - 1] & 1) != 0;
        for (int guard = 0; guard < 100000; ++guard) {
            const QByteArray& packet = parser.getPacket(flush);
            if (type != PXParser::EscapedDebugStream) {
                int inPlaceSize = 0;
                const unsigned char* p = inPlace.nextPacket(&inPlaceSize);
                if (inPlaceSize != packet.size() ||
                    (p && std::memcmp(p, packet.constData(), size_t(inPlaceSize)) != 0) ||
                    inPlace.logs() != parser.logs())
                    std::abort();
            }
            if (packet.isEmpty())
                break;
            if (packet.size() < 4 || packet.size() != pxproto::payloadLength(packet) + 4 ||
                uchar(packet[0]) != parser.getStartByte())
                std::abort();
        }
        (void)parser.isNestedWaiting();
    }
    return 0;
}
