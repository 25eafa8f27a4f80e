#pragma once

#include "frametransmitter.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <optional>

namespace tessel {

class CanLink;
class ControllerPanel;
class FrmDiagno;
class TraceReplay;

// The CAN monitor bound to the link: the shared send routines, which trace what they send,
// the frames received and the server's reports of frames it sent, the replay of a trace file on
// the selected controller, and the monitor's switches passed on to the server.
class MonitorLink : public QObject, public FrameTransmitter
{
    Q_OBJECT
public:
    MonitorLink(CanLink* link, ControllerPanel* controllers, QObject* parent = nullptr);

    // The monitor, made once the link runs; before, sends are not traced.
    void attach(FrmDiagno* monitor);

    // Sends a data frame on the selected controller and traces it; true when it failed (the
    // message says why). A disabled controller sends nothing and is no failure.
    bool send(quint16 id, int length, const QByteArray& data) override;
    bool sendRemote(quint32 id, int length) override;
    // A controller's state for the monitor's load line: its rate while it runs, the status
    // bits the server reported (none when it could not be asked), and its error counters.
    void showController(int controller, bool enabled, std::optional<quint32> status);
    // The monitor's "Enable": while cleared, frames sent are not echoed into the trace.
    bool echoOff() const { return m_echoOff; }
    // While held (an upgrade or a vector read runs), the frames received stay out of the trace.
    void setTraceHeld(bool held) { m_traceHeld = held; }
    bool traceHeld() const { return m_traceHeld; }
    // The controller the sends go to: the one selected in the main window.
    int controller() const;

signals:
    void message(const QString& text);

private:
    void connectReplay(TraceReplay* replay);
    void onFramesReceived(int controller, const QByteArray& records, int count);
    void onFrameTransmitted(int controller, quint16 id, int length, const QByteArray& data);

    CanLink* m_link;
    ControllerPanel* m_controllers;
    FrmDiagno* m_monitor = nullptr;
    int m_replayController = 0; // the controller a running replay sends on
    bool m_echoOff = false;
    bool m_traceHeld = false;
};

} // namespace tessel
