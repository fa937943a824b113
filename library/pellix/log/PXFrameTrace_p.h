#ifndef PELLIX_PXFRAMETRACE_P_H
#define PELLIX_PXFRAMETRACE_P_H

// The frame trace: every frame a connection sends or receives, in hexadecimal with its
// direction and the connection's handle, and the parser's dropped-byte lines, under the
// logging category "pellix.frames". The category's debug messages are off by default;
// QT_LOGGING_RULES="pellix.frames.debug=true" turns them on. The macros test the category
// first, so nothing is formatted while it is off.

#include <QLoggingCategory>
#include <QString>

Q_DECLARE_LOGGING_CATEGORY(pellixFrames)

// "[3] > bb 00 05 ff ..." for a frame of connection `handle`; `sent` gives the direction.
void pxTraceFrame(int handle, bool sent, const void* data, qsizetype size);

#define PX_TRACE_FRAME(handle, sent, data, size)                                                   \
    do {                                                                                           \
        if (pellixFrames().isDebugEnabled())                                                       \
            pxTraceFrame((handle), (sent), (data), (size));                                        \
    } while (false)

// A line of the parser's log (dropped bytes), already formatted for its own list.
#define PX_TRACE_LINE(line)                                                                        \
    do {                                                                                           \
        if (pellixFrames().isDebugEnabled())                                                       \
            qCDebug(pellixFrames).noquote() << (line);                                             \
    } while (false)

#endif
