#pragma once

#include <QString>
#include <QStringList>

namespace tessel {

// "node,index,subindex", all hexadecimal without prefix. Missing fields are 0; a text with one
// comma takes the sub-index from the index field (of which only the low byte is sent):
// "1,1018" is index 0x1018, sub-index 0x18, as it always was.
struct SdoAddress
{
    qint16 node = 0;
    qint16 index = 0;
    qint16 subIndex = 0;

    static SdoAddress parse(const QString& text);
    quint16 indexBits() const { return quint16(index); }
    quint8 subIndexByte() const { return quint8(subIndex & 0xFF); }
    bool operator==(const SdoAddress& o) const
    {
        return node == o.node && index == o.index && subIndex == o.subIndex;
    }
};

// The SDO panel's address history: addresses newest first, each with the data text last used
// with it. Addresses that parse to the same numbers are one entry.
class SdoAddressHistory
{
public:
    // Returns the row of the address, 0 for a new one (it goes to the top).
    int remember(const QString& addressText, const QString& dataText);
    const QStringList& addresses() const { return m_addresses; }
    QString dataOf(int row) const;

private:
    QStringList m_addresses; // row 0 is the newest
    QStringList m_data;      // oldest first: row i is element count - 1 - i
};

// One line of the vector read: the bytes as a little-endian signed value of their own length,
// in hexadecimal with 2 digits a byte and/or decimal.
QString vectorLine(const QByteArray& bytes, bool hex, bool decimal);

} // namespace tessel
