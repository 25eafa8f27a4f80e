#pragma once

#include <QAbstractScrollArea>
#include <QString>

#include <vector>

namespace tessel {

class TraceBuffer;

// A read-only view of a trace's text that draws only the lines in sight. A text document would
// build a block for every line it is given: at four saturated buses that is every line anew,
// twenty times a second, for lines nobody can read as they pass. Here taking a buffer's change
// costs a scan for line ends, and drawing costs the lines on screen.
//
// What a reader of a text view expects stays: selecting with the mouse (a double click takes a
// word, Shift+click extends), Ctrl+A, Ctrl+C and the context menu's Copy, the selection offered
// to middle-click pasting, the arrows and pages, Ctrl+Home and Ctrl+End. The view follows the
// newest line only while it shows it; a reader who scrolled up keeps the lines in view, and the
// selection, while older text is cut from the front.
class TraceView : public QAbstractScrollArea
{
    Q_OBJECT
public:
    explicit TraceView(QWidget* parent = nullptr);

    // Brings the view up to date with the buffer's changes since the last call.
    void showChanges(TraceBuffer& buffer);
    // The text shown, with plain line ends.
    QString toPlainText() const;
    QString selectedText() const;
    int lineCount() const { return int(m_starts.size()); }
    void selectAll();
    void copy() const;

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void contextMenuEvent(QContextMenuEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void scanLines(qsizetype from);
    // The line's first character and the end of its text, without its line end.
    qsizetype lineEnd(int line) const;
    int lineAt(qsizetype offset) const;
    qsizetype offsetAt(const QPoint& at) const;
    void updateScrollBars();
    void fontMetricsChanged();
    void setSelection(qsizetype anchor, qsizetype cursor);

    QString m_text;
    std::vector<qsizetype> m_starts{0};
    qsizetype m_widest = 0; // characters
    qsizetype m_anchor = 0;
    qsizetype m_cursor = 0;
    bool m_selecting = false;
    bool m_following = true;
    int m_lineHeight = 1;
    int m_ascent = 0;
    int m_charWidth = 1;
    static constexpr int kMargin = 4;
};

} // namespace tessel
