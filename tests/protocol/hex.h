#ifndef PELLIX_TESTS_HEX_H
#define PELLIX_TESTS_HEX_H

#include <QByteArray>

#include <ostream>

// "BB 00 05" -> bytes; spaces are ignored.
inline QByteArray hex(const char* text)
{
    return QByteArray::fromHex(QByteArray(text));
}

// Lets gtest print byte arrays as hexadecimal in failure messages.
QT_BEGIN_NAMESPACE
inline void PrintTo(const QByteArray& bytes, std::ostream* os)
{
    *os << '[' << bytes.toHex(' ').toUpper().constData() << ']';
}
QT_END_NAMESPACE

#endif
