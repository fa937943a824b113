#include "PXLinkSession.h"

#include "PXLinkPacket.h"

#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXProtocol.h"

#include <algorithm>

namespace {

// Collects the link reads of one block-read piece and hands the whole piece on once the last
// of them is answered.
struct Piece
{
    QByteArray bytes;
    int missing = 0;
    PXTarget::Data data;
};

} // namespace

PXLinkSession::PXLinkSession(std::function<void(const QByteArray&)> send, QObject* parent)
    : QObject(parent), sendBytes(std::move(send))
{
    replyTimer.setSingleShot(true);
    connect(&replyTimer, &QTimer::timeout, this, [this] { drop("a reply is late"); });
    quietTimer.setSingleShot(true);
    quietTimer.setInterval(QuietMs);
    connect(&quietTimer, &QTimer::timeout, this, &PXLinkSession::sendWaiting);
}

void PXLinkSession::setEscaped(bool escaped)
{
    escape = escaped;
    parser.changeType(escaped ? PXParser::EscapedDebugStream : PXParser::DebugPackets);
}

void PXLinkSession::setBytesPerSecond(qint64 rate)
{
    bytesPerSecond = std::max<qint64>(rate, 1);
}

void PXLinkSession::read(bool internal, quint32 address, int size, PXTarget::Data data)
{
    QByteArray packet = internal    ? FormatReadi8(0, address)
                        : size == 1 ? FormatRead8(0, address)
                        : size == 2 ? FormatRead16(0, address)
                                    : FormatRead32(0, address);
    enqueue(std::move(packet), size, std::move(data));
}

// The link reads 1, 2 or 4 bytes at a time: 32-bit reads where the address is aligned, 8- and
// 16-bit reads at the unaligned ends.
void PXLinkSession::readBlock(quint32 address, int size, PXTarget::Data data)
{
    auto piece = std::make_shared<Piece>();
    piece->bytes = QByteArray(size, Qt::Uninitialized);
    piece->data = std::move(data);
    for (int offset = 0; offset < size;) {
        const quint32 at = address + quint32(offset);
        const int left = size - offset;
        const int width = (at & 1) != 0 || left == 1 ? 1 : (at & 2) != 0 || left < 4 ? 2 : 4;
        ++piece->missing;
        read(false, at, width, [piece, offset](const QByteArray& bytes) {
            std::copy(bytes.begin(), bytes.end(), piece->bytes.begin() + offset);
            if (--piece->missing == 0)
                piece->data(piece->bytes);
        });
        offset += width;
    }
}

void PXLinkSession::write(bool internal, int width, quint32 address, const QByteArray& bytes,
                          PXTarget::Done done)
{
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.constData());
    // Only the last packet of a write tells the caller that it is done.
    auto reply = [done](const QByteArray&) { done(); };
    if (internal) {
        // The internal space is written a byte at a time.
        for (int i = 0; i < bytes.size(); ++i)
            enqueue(FormatWritei8(address + quint32(i), p[i]), 0,
                    i + 1 == bytes.size() ? PXTarget::Data(reply) : PXTarget::Data());
        if (bytes.isEmpty())
            done();
        return;
    }
    switch (width) {
    case 1:
        enqueue(FormatWrite8(address, p[0]), 0, reply);
        return;
    case 2:
        enqueue(FormatWrite16(address, quint16(p[0] | p[1] << 8)), 0, reply);
        return;
    case 4:
        enqueue(FormatWrite32(address, pxproto::getLe32(p)), 0, reply);
        return;
    default:
        break;
    }
    int offset = 0;
    do {
        const int n = std::min(MaxBlockPacket, int(bytes.size()) - offset);
        const bool last = offset + n >= bytes.size();
        enqueue(FormatWriteBlock(address + quint32(offset), bytes.mid(offset, n)), 0,
                last ? PXTarget::Data(reply) : PXTarget::Data());
        offset += n;
    } while (offset < bytes.size());
}

void PXLinkSession::sendBypass(const QByteArray& packet)
{
    // Bypass packets get no reply: they go out at once, ahead of what waits.
    sendBytes(escape ? EscapeXonXoff(packet) : packet);
}

void PXLinkSession::probe(PXTarget::Done answered)
{
    enqueue(FormatRead32(0, 0), 4, [answered](const QByteArray&) { answered(); });
}

void PXLinkSession::enqueue(QByteArray packet, int size, PXTarget::Data data)
{
    waiting.push_back(Request{std::move(packet), size, std::move(data)});
    sendWaiting();
}

void PXLinkSession::sendWaiting()
{
    if (quietTimer.isActive())
        return;
    QByteArray out;
    while (
        !waiting.empty() && int(inFlight.size()) < MaxInFlight &&
        (inFlight.empty() || inFlightBytes + waiting.front().packet.size() <= MaxInFlightBytes)) {
        Request request = std::move(waiting.front());
        waiting.pop_front();
        out.append(request.packet);
        inFlightBytes += request.packet.size();
        inFlight.push_back(std::move(request));
    }
    if (out.isEmpty())
        return;
    armTimer();
    sendBytes(escape ? EscapeXonXoff(out) : out);
}

// The time the link needs for everything in flight, both ways, and some slack.
void PXLinkSession::armTimer()
{
    if (replyTimer.isActive() || inFlight.empty())
        return;
    const qint64 bytes = inFlightBytes + qint64(inFlight.size()) * pxlink::ReplySize;
    replyTimer.start(int(ReplySlackMs + 2 * bytes * 1000 / bytesPerSecond));
}

void PXLinkSession::feed(const QByteArray& bytes)
{
    if (quietTimer.isActive()) {
        quietTimer.start();
        return;
    }
    parser.feedData(bytes);
    for (QByteArray packet = pxlink::nextPacket(parser); !packet.isEmpty();
         packet = pxlink::nextPacket(parser)) {
        handle(packet);
        if (quietTimer.isActive())
            break;
    }
}

void PXLinkSession::handle(const QByteArray& packet)
{
    const auto* p = reinterpret_cast<const unsigned char*>(packet.constData());
    const int size = int(packet.size());
    if (size < 5)
        return;
    const bool checked = CalcHostCrc(p + 3, static_cast<unsigned long>(size - 4)) == p[size - 1];
    if (p[3] == pxlink::CommandFlow) {
        if (size != pxlink::ReplySize || p[4] != 0 || !checked) {
            drop("a malformed reply");
            return;
        }
        handleReply(packet);
        return;
    }
    if (p[3] == pxlink::EventFlow) {
        if (size == 9 && checked)
            emit eventRaised(pxproto::getLe32(p + 4));
        else
            emit note(QStringLiteral("malformed event packet dropped"));
        return;
    }
    emit bypassArrived(packet);
}

void PXLinkSession::handleReply(const QByteArray& packet)
{
    if (inFlight.empty()) {
        emit note(QStringLiteral("reply without a request dropped"));
        return;
    }
    Request request = std::move(inFlight.front());
    inFlight.pop_front();
    inFlightBytes -= request.packet.size();
    replyTimer.stop();
    armTimer();
    setAnswering(true);
    if (request.data)
        request.data(packet.mid(5, request.size));
    sendWaiting();
}

void PXLinkSession::drop(const char* reason)
{
    const bool any = !idle();
    if (any)
        emit note(QStringLiteral("%1: %2 request(s) dropped")
                      .arg(QLatin1String(reason))
                      .arg(qulonglong(inFlight.size() + waiting.size())));
    inFlight.clear();
    waiting.clear();
    inFlightBytes = 0;
    replyTimer.stop();
    parser.reset();
    quietTimer.start();
    setAnswering(false);
    if (any)
        emit requestsDropped();
}

void PXLinkSession::setAnswering(bool answers)
{
    if (answers == chipAnswers)
        return;
    chipAnswers = answers;
    emit answeringChanged(answers);
}
