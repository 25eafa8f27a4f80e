#include "traceview.h"

#include "traceline.h"

#include <QApplication>
#include <QClipboard>
#include <QContextMenuEvent>
#include <QFontDatabase>
#include <QMenu>
#include <QPainter>
#include <QScrollBar>

#include <algorithm>

namespace tessel {

TraceView::TraceView(QWidget* parent) : QAbstractScrollArea(parent)
{
    setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    setFocusPolicy(Qt::StrongFocus);
    setBackgroundRole(QPalette::Base);
    viewport()->setBackgroundRole(QPalette::Base);
    viewport()->setCursor(Qt::IBeamCursor);
    // Following is the reader's choice, kept apart from the bar's value: a range that grows
    // (more lines, or a scroll bar across that takes a line's height) keeps a following view at
    // the bottom, and one that shrinks does not make a reader's place the bottom.
    QScrollBar* bar = verticalScrollBar();
    connect(bar, &QScrollBar::valueChanged, this,
            [this, bar](int value) { m_following = value >= bar->maximum(); });
    connect(bar, &QScrollBar::rangeChanged, this, [this, bar](int, int maximum) {
        if (m_following)
            bar->setValue(maximum);
    });
    fontMetricsChanged();
}

void TraceView::showChanges(TraceBuffer& buffer)
{
    const TraceBuffer::Change change = buffer.takeChange();
    if (!change.replaced && change.added == 0)
        return;
    QScrollBar* bar = verticalScrollBar();
    const bool following = m_following;
    const qsizetype topOffset = m_starts[size_t(std::min(bar->value(), lineCount() - 1))];
    const qsizetype oldSize = m_text.size();
    m_text = buffer.text();
    if (change.replaced) {
        m_starts.assign(1, 0);
        m_widest = 0;
        scanLines(0);
    } else {
        scanLines(oldSize);
    }
    // What the reader looks at and has selected moves with the text that is left.
    const qsizetype shift = change.cleared ? oldSize : change.dropped;
    if (m_anchor - shift < 0 && m_cursor - shift < 0)
        m_anchor = m_cursor = 0;
    m_anchor = std::clamp<qsizetype>(m_anchor - shift, 0, m_text.size());
    m_cursor = std::clamp<qsizetype>(m_cursor - shift, 0, m_text.size());
    updateScrollBars();
    if (following)
        bar->setValue(bar->maximum());
    else
        bar->setValue(topOffset < shift ? 0 : lineAt(topOffset - shift));
    viewport()->update();
}

QString TraceView::toPlainText() const
{
    QString text = m_text;
    text.replace(QLatin1String("\r\n"), QLatin1String("\n"));
    return text;
}

QString TraceView::selectedText() const
{
    const qsizetype from = std::min(m_anchor, m_cursor);
    QString text = m_text.mid(from, std::max(m_anchor, m_cursor) - from);
    text.replace(QLatin1String("\r\n"), QLatin1String("\n"));
    return text;
}

void TraceView::selectAll()
{
    setSelection(0, m_text.size());
}

void TraceView::copy() const
{
    if (m_anchor != m_cursor)
        QApplication::clipboard()->setText(selectedText());
}

void TraceView::scanLines(qsizetype from)
{
    const QChar* text = m_text.constData();
    for (qsizetype i = from; i < m_text.size(); ++i) {
        if (text[i] != QLatin1Char('\n'))
            continue;
        m_widest = std::max(m_widest, i - m_starts.back());
        m_starts.push_back(i + 1);
    }
    m_widest = std::max(m_widest, m_text.size() - m_starts.back());
}

qsizetype TraceView::lineEnd(int line) const
{
    qsizetype end = size_t(line) + 1 < m_starts.size() ? m_starts[size_t(line) + 1] : m_text.size();
    if (end > m_starts[size_t(line)] && m_text.at(end - 1) == QLatin1Char('\n'))
        --end;
    if (end > m_starts[size_t(line)] && m_text.at(end - 1) == QLatin1Char('\r'))
        --end;
    return end;
}

int TraceView::lineAt(qsizetype offset) const
{
    const auto after = std::upper_bound(m_starts.begin(), m_starts.end(), offset);
    return int(std::max<std::ptrdiff_t>(0, after - m_starts.begin() - 1));
}

qsizetype TraceView::offsetAt(const QPoint& at) const
{
    const int line =
        std::clamp(verticalScrollBar()->value() + at.y() / m_lineHeight, 0, lineCount() - 1);
    const int x = at.x() + horizontalScrollBar()->value() - kMargin;
    const qsizetype column = std::max(0, (x + m_charWidth / 2) / m_charWidth);
    return std::min(m_starts[size_t(line)] + column, lineEnd(line));
}

void TraceView::updateScrollBars()
{
    const int visible = std::max(1, viewport()->height() / m_lineHeight);
    QScrollBar* bar = verticalScrollBar();
    bar->setRange(0, std::max(0, lineCount() - visible));
    bar->setPageStep(visible);
    bar->setSingleStep(1);
    QScrollBar* across = horizontalScrollBar();
    across->setRange(0, std::max(0, int(m_widest + 1) * m_charWidth + 2 * kMargin -
                                        viewport()->width()));
    across->setPageStep(viewport()->width());
    across->setSingleStep(m_charWidth * 2);
}

void TraceView::fontMetricsChanged()
{
    const QFontMetrics metrics(font());
    m_lineHeight = std::max(1, metrics.lineSpacing());
    m_ascent = metrics.ascent();
    m_charWidth = std::max(1, metrics.horizontalAdvance(QLatin1Char('0')));
    updateScrollBars();
}

void TraceView::setSelection(qsizetype anchor, qsizetype cursor)
{
    m_anchor = std::clamp<qsizetype>(anchor, 0, m_text.size());
    m_cursor = std::clamp<qsizetype>(cursor, 0, m_text.size());
    viewport()->update();
}

void TraceView::paintEvent(QPaintEvent*)
{
    QPainter painter(viewport());
    painter.setFont(font());
    const QPalette& colours = palette();
    const int first = verticalScrollBar()->value();
    const int x0 = kMargin - horizontalScrollBar()->value();
    const qsizetype from = std::min(m_anchor, m_cursor);
    const qsizetype to = std::max(m_anchor, m_cursor);
    const int height = viewport()->height();
    for (int line = first, y = 0; line < lineCount() && y < height; ++line, y += m_lineHeight) {
        const qsizetype start = m_starts[size_t(line)];
        const qsizetype end = lineEnd(line);
        const QString text = m_text.mid(start, end - start);
        painter.setPen(colours.color(QPalette::Text));
        painter.drawText(x0, y + m_ascent, text);
        // The selected part again, in the selection's colours; a selected line end shows as
        // one character's width more.
        const qsizetype a = std::max(from, start);
        const qsizetype b = std::min(to, end);
        const bool lineEndSelected = from <= end && to > end;
        if (a >= b && !lineEndSelected)
            continue;
        const QRect selected(x0 + int(a - start) * m_charWidth, y,
                             int(std::max<qsizetype>(0, b - a) + (lineEndSelected ? 1 : 0)) *
                                 m_charWidth,
                             m_lineHeight);
        painter.fillRect(selected, colours.brush(QPalette::Highlight));
        painter.save();
        painter.setClipRect(selected);
        painter.setPen(colours.color(QPalette::HighlightedText));
        painter.drawText(x0, y + m_ascent, text);
        painter.restore();
    }
}

void TraceView::resizeEvent(QResizeEvent* event)
{
    QAbstractScrollArea::resizeEvent(event);
    updateScrollBars();
}

void TraceView::keyPressEvent(QKeyEvent* event)
{
    if (event->matches(QKeySequence::Copy)) {
        copy();
    } else if (event->matches(QKeySequence::SelectAll)) {
        selectAll();
    } else if (event->matches(QKeySequence::MoveToStartOfDocument)) {
        verticalScrollBar()->setValue(0);
        horizontalScrollBar()->setValue(0);
    } else if (event->matches(QKeySequence::MoveToEndOfDocument)) {
        verticalScrollBar()->setValue(verticalScrollBar()->maximum());
    } else if (event->key() == Qt::Key_Home) {
        horizontalScrollBar()->setValue(0);
    } else if (event->key() == Qt::Key_End) {
        horizontalScrollBar()->setValue(horizontalScrollBar()->maximum());
    } else {
        QAbstractScrollArea::keyPressEvent(event);
        return;
    }
    event->accept();
}

void TraceView::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton) {
        QAbstractScrollArea::mousePressEvent(event);
        return;
    }
    const qsizetype at = offsetAt(event->position().toPoint());
    setSelection(event->modifiers() & Qt::ShiftModifier ? m_anchor : at, at);
    m_selecting = true;
}

void TraceView::mouseMoveEvent(QMouseEvent* event)
{
    if (!m_selecting)
        return;
    // Dragging past the top or the bottom scrolls on, a line at a time.
    const QPoint at = event->position().toPoint();
    if (at.y() < 0)
        verticalScrollBar()->triggerAction(QAbstractSlider::SliderSingleStepSub);
    else if (at.y() > viewport()->height())
        verticalScrollBar()->triggerAction(QAbstractSlider::SliderSingleStepAdd);
    setSelection(m_anchor, offsetAt(at));
}

void TraceView::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton && m_selecting) {
        m_selecting = false;
        QClipboard* clipboard = QApplication::clipboard();
        if (m_anchor != m_cursor && clipboard->supportsSelection())
            clipboard->setText(selectedText(), QClipboard::Selection);
    }
}

void TraceView::mouseDoubleClickEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton)
        return;
    // A word of the trace: a COB-ID, a time, a data byte.
    const auto inWord = [this](qsizetype i) {
        const QChar c = m_text.at(i);
        return c.isLetterOrNumber() || c == QLatin1Char('.') || c == QLatin1Char(',');
    };
    qsizetype from = offsetAt(event->position().toPoint());
    qsizetype to = from;
    while (from > 0 && inWord(from - 1))
        --from;
    while (to < m_text.size() && inWord(to))
        ++to;
    setSelection(from, to);
}

void TraceView::contextMenuEvent(QContextMenuEvent* event)
{
    QMenu menu(this);
    QAction* copying = menu.addAction(QStringLiteral("&Copy"), this, &TraceView::copy);
    copying->setShortcut(QKeySequence::Copy);
    copying->setEnabled(m_anchor != m_cursor);
    QAction* all = menu.addAction(QStringLiteral("Select &All"), this, &TraceView::selectAll);
    all->setShortcut(QKeySequence::SelectAll);
    menu.exec(event->globalPos());
}

void TraceView::changeEvent(QEvent* event)
{
    QAbstractScrollArea::changeEvent(event);
    if (event->type() == QEvent::FontChange)
        fontMetricsChanged();
}

} // namespace tessel
