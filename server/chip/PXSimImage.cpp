#include "PXSimImage.h"

#include "PXSimMemory.h"

#include <QFile>

#include <cstdlib>
#include <vector>

namespace {

constexpr quint32 SkippedAddress = 0xF0000000u;

quint32 parseHex(const QByteArray& text)
{
    return quint32(std::strtoull(text.constData(), nullptr, 16));
}

void storePacket(PXSimMemory& memory, quint32 address, const std::vector<quint32>& words)
{
    if (words.empty() || address == SkippedAddress)
        return;
    std::vector<unsigned char> bytes(words.size() * 4);
    for (size_t i = 0; i < words.size(); ++i) {
        bytes[i * 4] = static_cast<unsigned char>(words[i]);
        bytes[i * 4 + 1] = static_cast<unsigned char>(words[i] >> 8);
        bytes[i * 4 + 2] = static_cast<unsigned char>(words[i] >> 16);
        bytes[i * 4 + 3] = static_cast<unsigned char>(words[i] >> 24);
    }
    memory.write(address, bytes.data(), quint32(bytes.size()));
}

} // namespace

bool loadLodImage(const QString& path, PXSimMemory& memory, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot open image %1: %2").arg(path, file.errorString());
        return false;
    }
    bool inPacket = false;
    quint32 address = 0;
    std::vector<quint32> words;
    int lineNumber = 0;
    while (!file.atEnd()) {
        QByteArray line = file.readLine();
        ++lineNumber;
        if (line.endsWith('\n'))
            line.chop(1);
        if (line.endsWith('\r'))
            line.chop(1);
        if (line.isEmpty()) {
            if (inPacket)
                storePacket(memory, address, words);
            inPacket = false;
            continue;
        }
        if (line.startsWith('#'))
            continue;
        if (line.startsWith('@')) {
            if (inPacket)
                storePacket(memory, address, words);
            inPacket = true;
            address = parseHex(line.mid(1));
            words.clear();
            continue;
        }
        if (!inPacket) {
            *error = QStringLiteral("%1:%2: data line outside a packet").arg(path).arg(lineNumber);
            return false;
        }
        words.push_back(parseHex(line));
    }
    if (inPacket)
        storePacket(memory, address, words);
    return true;
}
