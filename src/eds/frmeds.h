#pragma once

#include "edsreader.h"

#include <QWidget>

class QLabel;
class QLineEdit;
class QListWidget;
class QListWidgetItem;
class QPushButton;

namespace tessel {

class WindowPlacement;

// "Electronic Data Sheet": the entries of an EDS by name; a chosen entry's address goes into
// the main window's SDO address box as "node,index,subindex".
class FrmEDS : public QWidget
{
    Q_OBJECT
public:
    FrmEDS(const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent = nullptr);

    QLineEdit* txtFileName = nullptr;
    QPushButton* cmdFNApp = nullptr;
    QListWidget* lstKey = nullptr;
    QLabel* lblNote = nullptr;
    QLineEdit* txtNode = nullptr;
    QPushButton* cmdMove = nullptr;
    QPushButton* cmdPlot = nullptr;

    void loadList();
    void cmdMove_Click();
    void cmdPlot_Click();
    void cmdFNApp_Click();
    const QList<EdsEntry>& entries() const { return m_entries; }

signals:
    // "Move": the chosen entry's address, for the SDO panel's address box.
    void addressChosen(const QString& address);
    // A file with entries was read: the bus views name entries and read PDOs by it.
    void loaded(const QString& path);
    // The chosen entry of the node, to be plotted (a plot source: "sdo 1,6064,0 i32 as ...").
    void plotRequested(const QString& source);

protected:
    void showEvent(QShowEvent* event) override;

private:
    // The chosen entry and its address as the SDO panel reads it; nullptr when none is chosen.
    const EdsEntry* chosen(QString* address) const;

    const WindowPlacement* m_placement;
    QWidget* m_mainWindow;
    QList<EdsEntry> m_entries;
    bool m_positioned = false;
};

} // namespace tessel
