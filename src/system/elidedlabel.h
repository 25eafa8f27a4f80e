#pragma once

#include <QLabel>

namespace tessel {

// A one-line text that does not fit ends in "…" instead of being cut off; it asks for no width
// of its own, so a long text never widens its window. Set the whole text as the tool tip where
// the reader needs all of it.
class ElidedLabel : public QLabel
{
public:
    using QLabel::QLabel;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
};

} // namespace tessel
