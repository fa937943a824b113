#include "PXFrameTrace_p.h"

// Off below warnings: the trace's debug messages show only when the rules ask for them.
Q_LOGGING_CATEGORY(pellixFrames, "pellix.frames", QtWarningMsg)

void pxTraceFrame(int handle, bool sent, const void* data, qsizetype size)
{
    static const char digits[] = "0123456789abcdef";
    QByteArray text;
    text.reserve(int(size * 3 + 16));
    text += '[' + QByteArray::number(handle) + (sent ? "] >" : "] <");
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (qsizetype i = 0; i < size; ++i) {
        text += ' ';
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    qCDebug(pellixFrames).noquote() << text;
}
