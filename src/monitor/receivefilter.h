#pragma once

#include <QString>

#include <array>

namespace tessel {

// The monitor's receive filter: six COB-IDs typed in hexadecimal. Without "Invert" they name
// identifiers to hide; with it, the only ones to show. Empty boxes never match; a box is read
// leniently after trimming, so " 181 " is 0x181 and "0x181" is 0.
class ReceiveFilter
{
public:
    static constexpr int kBoxes = 6;

    void setText(int box, const QString& text);
    QString text(int box) const { return m_texts[box]; }
    void setInvert(bool invert) { m_invert = invert; }
    bool invert() const { return m_invert; }
    bool passes(quint32 id) const;

private:
    std::array<QString, kBoxes> m_texts;
    // Parsed once per edit: the receive path asks for every frame.
    std::array<qint64, kBoxes> m_ids{-1, -1, -1, -1, -1, -1};
    bool m_invert = false;
};

} // namespace tessel
