#include "elidedlabel.h"

#include <QPainter>

namespace tessel {

QSize ElidedLabel::minimumSizeHint() const
{
    return {0, QLabel::minimumSizeHint().height()};
}

void ElidedLabel::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    const Qt::Alignment across = alignment() & Qt::AlignHorizontal_Mask;
    painter.drawText(contentsRect(), int(across ? across : Qt::AlignLeft) | Qt::AlignVCenter,
                     fontMetrics().elidedText(text(), Qt::ElideRight, contentsRect().width()));
}

} // namespace tessel
