#ifndef PELLIX_PXCHIPLINK_H
#define PELLIX_PXCHIPLINK_H

#include "PXSimChip.h"

#include "pellix/protocol/PXParser.h"

#include <QByteArray>

// The chip's side of the debug link (the table is in the server's README): cuts the host's
// debug packets and answers each from a simulated chip. A read gets a reply with its value, a
// write a reply once it is stored (and, when it raised one, an event packet after it), a
// packet on any other flow the chip's echo. A command packet with a bad checksum or an unknown
// command gets nothing, as from a chip that did not understand it.
class PXChipLink
{
public:
    PXChipLink(PXSimChip& simChip, bool escaped);

    // Bytes from the host; returns what the chip sends back (escaped under XON/XOFF).
    QByteArray feed(const QByteArray& bytes);

    quint64 commands() const { return commandCount; }
    quint64 ignored() const { return ignoredCount; }

private:
    QByteArray answer(const QByteArray& packet);
    QByteArray command(const unsigned char* p, int size);

    PXSimChip& chip;
    PXParser parser;
    bool escape;
    quint64 commandCount = 0;
    quint64 ignoredCount = 0;
};

#endif
