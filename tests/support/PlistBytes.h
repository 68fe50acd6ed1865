#pragma once

// Property lists byte by byte, for the tests of the bounded reader and of root's
// readers: libplist's binary form of a list, binary lists built object by object,
// and lists nested deeper than any bound.

#include <QByteArray>

#include <functional>
#include <initializer_list>

// VALUE as WIDTH big-endian bytes.
QByteArray bigEndian(quint64 value, int width);
// The binary form libplist writes for the XML list XML.
QByteArray binaryOf(const QByteArray &xml);
// A binary list of COUNT objects, object 0 at the top; OBJECT(i) encodes object i
// with 4-byte references.
QByteArray binaryList(int count, const std::function<QByteArray(int)> &object);
// An array holding REFS (fewer than 15).
QByteArray arrayOf(std::initializer_list<int> refs);
// LEVELS arrays inside one another, the innermost empty, in either form (the XML
// one CLOSED or cut short after the levels).
QByteArray deepBinary(int levels);
// COUNT arrays, each holding the next and the last the first.
QByteArray cyclicBinary(int count);
// LEVELS arrays, each holding the next twice, then true: libplist copies a shared
// object at every reference, 2^LEVELS values.
QByteArray doublingBinary(int levels);
QByteArray deepXml(int levels, bool closed = true);
