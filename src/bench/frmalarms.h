#pragma once

#include "alarmrecords.h"

#include <QWidget>

class QPlainTextEdit;
class QTabWidget;
class QTreeWidget;

namespace tessel {

class WindowPlacement;

// The drive's alarm log as text, records sorted by their time stamps (alarmrecords.h).
class FrmAlarms : public QWidget
{
    Q_OBJECT
public:
    FrmAlarms(const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent = nullptr);

    QPlainTextEdit* txtList = nullptr;
    // The records one under another, newest first, each entry with its name.
    QTreeWidget* trvRecords = nullptr;
    QTabWidget* tabs = nullptr;
    // The text as read, lines ending in CR LF.
    void setText(const QString& text);
    // The records in the text's order (oldest first).
    void setRecords(const QList<AlarmRecord>& records);
    QString text() const { return m_text; }

protected:
    void showEvent(QShowEvent* event) override;

private:
    const WindowPlacement* m_placement;
    QWidget* m_mainWindow;
    QString m_text;
    bool m_positioned = false;
};

} // namespace tessel
