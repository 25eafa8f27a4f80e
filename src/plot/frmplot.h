#pragma once

#include "sampletrace.h"

#include <QElapsedTimer>
#include <QTimer>
#include <QWidget>

#include <vector>

class QCheckBox;
class QCPAxis;
class QCPGraph;
class QCPItemStraightLine;
class QCustomPlot;
class QLabel;
class QLineEdit;
class QMouseEvent;
class QPushButton;
class QSpinBox;
class QTableWidget;

namespace tessel {

class CanLink;
class TraceSet;

// "Plot": the traces of a TraceSet drawn over a shared time axis, from the sources PlotSource
// names (entries read by SDO, fields of frames, the fixture's analog channels, recordings), with
// a table of their values. The view follows the
// newest values until the user pans (drag) or zooms (wheel) it, or pauses it; the values keep
// coming meanwhile. A click puts cursor A, a right or shift click cursor B; the table reads every
// trace at both and the difference. Traces are drawn decimated, extremes kept; the CSV export
// writes the exact values of the visible range. Each trace keeps at most the samples "Keep"
// says. The traces, the period, the ring and the scale are kept with the window's settings;
// the reads stop when the window closes and start again when it opens.
class FrmPlot : public QWidget
{
    Q_OBJECT
public:
    static constexpr int kRedrawMs = 33; // at most 30 redraws a second
    static constexpr int kDefaultSpanS = 10;
    enum Column
    {
        Name,
        Now,
        AtA,
        AtB,
        Difference,
        Samples,
        ColumnCount
    };

    explicit FrmPlot(CanLink* link, QWidget* parent = nullptr);
    ~FrmPlot() override;

    // The controller a live source without "on" is read on (the main window's selection).
    void setController(int controller);
    // Adds the trace; false with the reason in the status line (and *error).
    bool addSource(const QString& text, QString* error = nullptr);
    int traceCount() const;
    const SampleRing& ring(int trace) const;
    QString traceName(int trace) const;
    void removeTrace(int trace);
    // Cursor 0 (A) or 1 (B) at t seconds.
    void setCursorAt(int cursor, double t);
    // The visible range of the shown traces; false with the reason.
    bool exportCsv(const QString& path, QString* error);
    bool exportPng(const QString& path, QString* error);
    // Draws now, without waiting for the redraw timer (what the timer does).
    void redraw();
    void saveSettings() const;
    bool isFollowing() const { return m_following; }
    void setFollowing(bool following);

    QLineEdit* txtSource = nullptr;
    QSpinBox* spnPeriod = nullptr;
    QPushButton* cmdAdd = nullptr;
    QPushButton* cmdPause = nullptr;
    QCheckBox* chkShared = nullptr;
    QSpinBox* spnKeep = nullptr;
    QLabel* lblKeep = nullptr;
    QPushButton* cmdCsv = nullptr;
    QPushButton* cmdPng = nullptr;
    QPushButton* cmdClear = nullptr;
    QCustomPlot* plot = nullptr;
    QTableWidget* grdTraces = nullptr;
    QLabel* lblStatus = nullptr;

signals:
    void message(const QString& text);

protected:
    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    // How a trace is drawn: its curve, and its own value axis unless the scale is shared.
    struct Drawn
    {
        QCPGraph* graph = nullptr;
        QCPAxis* axis = nullptr;
    };
    void showTrace(int trace);
    void placeAxes();
    void updateTable();
    void onMousePress(QMouseEvent* event);
    void onMouseRelease(QMouseEvent* event);
    void showKeep();
    void say(const QString& text);
    QString valueText(const SampleRing& ring, double t) const;

    TraceSet* m_set;
    std::vector<Drawn> m_drawn; // by trace
    QTimer m_redraw;
    QElapsedTimer m_sinceRedraw;
    qint64 m_lastRedrawNs = 0;
    bool m_dirty = false;
    bool m_following = true;
    bool m_settingRange = false;
    QCPItemStraightLine* m_cursor[2] = {nullptr, nullptr};
    double m_cursorAt[2] = {-1, -1};
    QPoint m_pressedAt;
};

} // namespace tessel
