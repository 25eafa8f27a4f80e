#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>

#include <memory>

class QHBoxLayout;
class QPushButton;
class QWidget;

namespace tessel {

class BenchPanel;
class CanLink;
struct DeviceDictionary;
class FrmDiagno;
class FrmEDS;
class FrmIO;
class FrmNetwork;
class FrmPlot;
class MonitorLink;
class SdoPanel;
class FrmSerial;
class FrmXBoot;
class WindowPlacement;

// The tool windows the main window opens: each made at its first opening, beside the main
// window unless the user placed it before, and brought to the front after. Those that follow the
// main window go away with it when it is minimized and come back with it.
class ToolWindows : public QObject
{
    Q_OBJECT
public:
    ToolWindows(CanLink* link, WindowPlacement* placement, QWidget* mainWindow);
    ~ToolWindows() override;

    // The row of buttons that open the tool windows, under the main window's panels.
    QHBoxLayout* makeButtonRow(QWidget* parent);
    QPushButton* cmdDiagno = nullptr;
    QPushButton* cmdEDS = nullptr;
    QPushButton* cmdIO = nullptr;
    QPushButton* cmdXBoot = nullptr;
    QPushButton* cmdSerial = nullptr;
    QPushButton* cmdNetwork = nullptr;
    QPushButton* cmdPlot = nullptr;

    // The CAN monitor, made at start-up, and its link: the slider works on the monitor's slots,
    // the network window sends through the link.
    void setMonitor(FrmDiagno* monitor, MonitorLink* link);

    void openMonitor();
    void openProduction();
    void openSerial();
    void openEds();
    void openSlider();
    void openNetwork();
    void openPlot();
    // Opens the plot with a new trace of the source (see PlotSource); a source ending in "..."
    // is put in the plot's source box for the user to finish instead.
    void plotSource(const QString& text);
    // The PDO of the identifier as its node maps it now, in the dictionary the bus views read.
    void readMapping(int controller, int id);
    // The main window's panels that offer their values to the plot.
    void plotFrom(SdoPanel* sdo, BenchPanel* bench);

    FrmXBoot* production() const { return m_xboot; }
    FrmSerial* serial() const { return m_serial; }
    FrmEDS* eds() const { return m_eds; }
    FrmIO* slider() const { return m_io; }
    FrmNetwork* network() const { return m_network; }
    FrmPlot* plot() const { return m_plot; }

    // The windows that follow the main window.
    QList<QWidget*> carried() const;
    void mainWindowMinimized();
    void mainWindowRestored();
    // At exit: every window's place and the settings of those that keep some.
    void save() const;

signals:
    void message(const QString& text);
    // The EDS browser puts an entry's address into the SDO panel.
    void addressChosen(const QString& address);

private:
    // Beside the main window, `offset` down its right edge (or below it), unless placed before.
    void place(QWidget* window, QPoint offset) const;
    void useEds(const QString& path);

    CanLink* m_link;
    WindowPlacement* m_placement;
    QWidget* m_main;
    FrmDiagno* m_monitor = nullptr;
    QString m_edsPath;
    std::shared_ptr<const DeviceDictionary> m_dictionary;
    MonitorLink* m_monitorLink = nullptr;
    FrmNetwork* m_network = nullptr;
    FrmPlot* m_plot = nullptr;
    FrmEDS* m_eds = nullptr;
    FrmIO* m_io = nullptr;
    FrmXBoot* m_xboot = nullptr;
    FrmSerial* m_serial = nullptr;
    QList<QPointer<QWidget>> m_hidden;
};

} // namespace tessel
