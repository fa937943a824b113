// Writes the seed inputs of the fuzz corpora: replies and requests as the real server and the
// library exchange them, built with the pxproto builders, plus a few LOD files. Run it with
// the corpus folder (fuzz/corpus) as its argument; existing files of the same names are
// replaced, others are left alone.

#include "pellix/protocol/PXProtocol.h"

#include <QByteArray>
#include <QList>

#include <cstdio>
#include <string>

namespace {

std::string root;

void write(const char* target, const char* name, const QByteArray& bytes)
{
    const std::string path = root + "/" + target + "/" + name;
    FILE* out = std::fopen(path.c_str(), "wb");
    if (!out) {
        std::perror(path.c_str());
        return;
    }
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), out);
    std::fclose(out);
}

QByteArray header(std::initializer_list<int> values)
{
    QByteArray out;
    for (int v : values)
        out.append(char(v));
    return out;
}

QByteArray counting(int size, int start = 0)
{
    QByteArray out(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        out[i] = char(start + i);
    return out;
}

QByteArray bypass(unsigned char flow, const QByteArray& data)
{
    return pxproto::bypassFrame(pxproto::debugPacket(flow, data.constData(), int(data.size())));
}

// Arrivals both connections queue or signal: events of every length and bypass packets
// including ones shorter than their inner header.
QByteArray arrivals()
{
    QByteArray out;
    for (quint32 id = 1; id <= 5; ++id)
        out += pxproto::event(id);
    out += pxproto::frame(pxproto::reply::Event, "\x01\x02\x03\x04", 4);
    out += pxproto::frame(pxproto::reply::Event, "\x01\x02\x03\x04\x05\x06", 6);
    out += bypass(0x21, counting(10));
    out += bypass(0x22, QByteArray());
    out += pxproto::bypassFrame(QByteArray("\xAD\x00", 2));
    out += pxproto::bypassFrame(QByteArray());
    out += bypass(0x21, counting(60));
    return out;
}

void connectionSeeds()
{
    // Headers: connection: request kind, set-up bits (1 events, 2 bypass, 4 callbacks, 8
    // delayed callback), bypass drain buffer size; nsconnection: request kind, options (1
    // server closes, 2 receiver closes, 4 receiver writes). The high nibble of the second byte
    // picks the read size.
    const char word[4] = {0x11, 0x22, 0x33, 0x44};
    for (const char* target : {"connection", "nsconnection"}) {
        const QByteArray drain = target[0] == 'c' ? QByteArray(1, 8) : QByteArray();
        write(target, "read32", header({0, 0x20}) + drain + pxproto::readData(0x1000, word, 4));
        write(target, "read8-too-long",
              header({0, 0x30}) + drain + pxproto::readData(0x1000, counting(12).constData(), 12));
    }
    write("connection", "read300-two-frames",
          header({0, 0x60, 8}) + pxproto::readData(0x1000, counting(200).constData(), 200) +
              pxproto::readData(0x1000 + 200, counting(100).constData(), 100));
    write("connection", "read16-wrong-address",
          header({0, 0x40, 8}) + pxproto::readData(0x1008, counting(8).constData(), 8));
    write("connection", "read-internal",
          header({1, 0x00, 8}) + pxproto::readData(0x1000, "\x5A", 1));
    write("connection", "write-ack-and-junk",
          header({2, 0x07, 3}) + QByteArray("\x01\x02\xBB", 3) + pxproto::writeAck());
    write("connection", "status-wrong-size",
          header({3, 0x01, 8}) + pxproto::frame(pxproto::reply::Status, "\x01\x02", 2) +
              pxproto::statusReply(7));
    write("connection", "ping-among-arrivals",
          header({4, 0x0F, 5}) + arrivals() + pxproto::pingReply() + arrivals());
    write("connection", "reconnect-partial",
          header({5, 0x03, 30}) + arrivals() + pxproto::completion() + pxproto::event(9).left(6));
    QByteArray flood = header({4, 0x03, 16});
    for (int i = 0; i < 1100; ++i)
        flood += (i % 2) ? pxproto::event(quint32(i)) : bypass(0x21, counting(3, i));
    write("connection", "flood-beyond-caps", flood);

    write("nsconnection", "read64-split",
          header({0, 0x50}) + arrivals() + pxproto::readData(0x1000, counting(32).constData(), 32) +
              arrivals() + pxproto::readData(0x1020, counting(32).constData(), 32));
    write("nsconnection", "status", header({2, 0x00}) + pxproto::statusReply(3));
    write("nsconnection", "ping-arrivals", header({3, 0x04}) + arrivals() + pxproto::pingReply());
    write("nsconnection", "break-server-closes",
          header({4, 0x01}) + arrivals() + pxproto::completion());
    write("nsconnection", "reconnect-receiver-closes",
          header({5, 0x02}) + arrivals() + pxproto::completion());
    write("nsconnection", "idle-arrivals", header({6, 0x00}) + arrivals());
}

void simulatorSeeds()
{
    // Header: frame size index.
    const unsigned char ids[] = {0x21, 0x22};
    const quint32 word = 0xCAFE0001;
    const QByteArray session =
        pxproto::enableEvents(true) + pxproto::setBypassFlowIds(ids, 2) +
        pxproto::setClientType(3) + pxproto::setPersistent(true) +
        pxproto::writeRequest(0x1000, false, counting(16).constData(), 16) +
        pxproto::writeRequest(0x1002, false, &word, 2) +
        pxproto::writeRequest(0x10, true, counting(3).constData(), 3) +
        pxproto::writeRequest(0xFFFFFF00, false, &word, 4) +
        pxproto::readRequest(0x1000, false, 1) + pxproto::readRequest(0x1000, false, 2) +
        pxproto::readRequest(0x1000, false, 4) + pxproto::readRequest(0x10, true, 1) +
        pxproto::readRequest(0xFFFFFFF0, false, 64) +
        pxproto::bypassSend(0x21, counting(20).constData(), 20) + pxproto::status() +
        pxproto::forceReconnect() + pxproto::comBreak() + pxproto::setBaudRate(115200) +
        pxproto::setFlowMode(2) + pxproto::setUsbId(0x1234, 0xABCD) + pxproto::autoBauding() +
        pxproto::flushFifos() + pxproto::clean();
    write("simulator", "session", header({0}) + session);
    write("simulator", "session-small-frames", header({2}) + session);
    write("simulator", "huge-block-read",
          header({1}) + pxproto::readRequest(0x2000, false, 0x7FFFFFFF));
    write("simulator", "malformed",
          header({0}) + pxproto::frame(pxproto::request::Status, "\x01", 1) +
              pxproto::frame(pxproto::request::Write, "\x82\x00\x10\x00\x00\x01", 6) +
              pxproto::frame(pxproto::request::BypassSend, "\xAD\x00\x09\x21", 4) +
              pxproto::frame(0x55, nullptr, 0) + QByteArray("\x00\x01\xBB\x00", 4));
    write("simulator", "kill", header({0}) + pxproto::ping() + pxproto::kill());
}

void lodSeeds()
{
    write("lod", "two-packets", "@00001000\n12345678\n9ABCDEF0\n\n@2000\r\n1\r\n");
    write("lod", "comments-empty-packet", "# head\n\n@0x20\n# inside\nAB\n@100\n@200\n1\n");
    write("lod", "data-outside", "@100\n1\n\n2\n");
    write("lod", "odd-numbers", "@  -1\n123456789\nxyz\n  1F\n0x\n+7\nFFFFFFFFFFFFFFFFFFFF\n");
    write("lod", "long-line", "@10\n" + QByteArray(1100, '7') + "\n5\n");
    write("lod", "no-final-newline", "@10\n1\n2");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_make_seeds <corpus folder>\n");
        return 2;
    }
    root = argv[1];
    connectionSeeds();
    simulatorSeeds();
    lodSeeds();
    return 0;
}
