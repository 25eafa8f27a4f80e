#include "monitorlink.h"

#include "canlink.h"
#include "controllerpanel.h"
#include "frmdiagno.h"
#include "tracefilesbar.h"
#include "traceline.h"

#include <QCheckBox>

namespace tessel {

MonitorLink::MonitorLink(CanLink* link, ControllerPanel* controllers, QObject* parent)
    : QObject(parent), m_link(link), m_controllers(controllers)
{
    connect(m_link, &CanLink::framesReceived, this, &MonitorLink::onFramesReceived);
    connect(m_link, &CanLink::frameTransmitted, this, &MonitorLink::onFrameTransmitted);
}

void MonitorLink::attach(FrmDiagno* monitor)
{
    m_monitor = monitor;
    connect(monitor, &FrmDiagno::traceSwitchChanged, this, [this](bool on) { m_echoOff = !on; });
    connect(monitor, &FrmDiagno::showTransmitChanged, this, [this](bool on) {
        if (const QString e = m_link->setTxNotify(on); !e.isEmpty())
            emit message(e);
    });
    connect(monitor, &FrmDiagno::receiveAllChanged, this, [this](bool on) {
        if (const QString e = m_link->setRxAll(on); !e.isEmpty())
            emit message(e);
    });
    monitor->setTransmitter(this);
    connect(monitor, &FrmDiagno::message, this, &MonitorLink::message);
    connectReplay(&monitor->traceFiles->replay);
    m_link->setTxNotify(monitor->showTransmit());
}

int MonitorLink::controller() const
{
    return m_controllers->selected();
}

bool MonitorLink::send(quint16 id, int length, const QByteArray& data)
{
    const int controller = m_controllers->selected();
    if (!m_controllers->chkCanEnable[controller]->isChecked())
        return false;
    if (length < 0 || length > 8) {
        emit message(QStringLiteral("frame length %1 out of range (0..8)").arg(length));
        return true;
    }
    QByteArray bytes = data.left(length);
    bytes.append(length - bytes.size(), '\0');
    if (const QString error = m_link->send(controller, id, length, bytes, false);
        !error.isEmpty()) {
        emit message(error);
        return true;
    }
    if (!m_echoOff && m_monitor)
        m_monitor->traceFrame(controller, int(TraceKind::Transmitted), id, 0, length,
                              reinterpret_cast<const quint8*>(bytes.constData()));
    return false;
}

bool MonitorLink::sendRemote(quint32 id, int length)
{
    const int controller = m_controllers->selected();
    if (!m_controllers->chkCanEnable[controller]->isChecked())
        return false;
    if (const QString error = m_link->send(controller, quint16(id), length, {}, true);
        !error.isEmpty()) {
        emit message(error);
        return true;
    }
    if (!m_echoOff && m_monitor)
        m_monitor->traceFrame(controller, int(TraceKind::RemoteRequest), id, 0, 0, nullptr);
    return false;
}

void MonitorLink::connectReplay(TraceReplay* replay)
{
    // The server's time is read once, as a replay starts: it stays on the controller selected
    // then.
    replay->serverTime = [this](quint32* us) {
        m_replayController = m_controllers->selected();
        QString error;
        *us = m_link->serverTime(&error).value_or(0);
        return error;
    };
    replay->sendTimed = [this](int, const QVector<qorcalib::CanFrame>& frames, QString* error) {
        return m_link->sendTimed(m_replayController, frames, error);
    };
    replay->dropQueued = [this](int) {
        QString error;
        return m_link->dropQueued(m_replayController, &error).value_or(-1);
    };
    // Traced as the frames sent by hand are, when their time has come, with the time they went
    // out at.
    replay->frameDue = [this](const ScheduledFrame& f) {
        if (m_echoOff)
            return;
        const TraceRecord& r = f.record;
        m_monitor->traceFrame(m_replayController,
                              int(r.remote ? TraceKind::RemoteRequest : TraceKind::Transmitted),
                              r.id, f.serverUs, r.remote ? 0 : r.length,
                              reinterpret_cast<const quint8*>(r.data.constData()));
    };
}

void MonitorLink::onFramesReceived(int controller, const QByteArray& records, int count)
{
    if (controller < 0 || controller >= ControllerPanel::kRows ||
        !m_controllers->chkCanEnable[controller]->isChecked() || !m_monitor || m_traceHeld)
        return;
    m_monitor->receiveRecords(controller, records, count);
}

void MonitorLink::onFrameTransmitted(int controller, quint16 id, int length,
                                     const QByteArray& data)
{
    if (!m_monitor || !m_monitor->showTransmit())
        return;
    QByteArray bytes = data.left(qBound(0, length, 8));
    bytes.append(qBound(0, length, 8) - bytes.size(), '\0');
    m_monitor->traceFrame(controller, int(TraceKind::Transmitted), id, 0, bytes.size(),
                          reinterpret_cast<const quint8*>(bytes.constData()));
}

void MonitorLink::showController(int controller, bool enabled, std::optional<quint32> status)
{
    if (!m_monitor) // it measures the load of the controllers that run, and shows their state
        return;
    QString error;
    const int rate = qorcalib::bitRateOfIndex(m_controllers->controllers().bitRate(controller));
    m_monitor->busView->setController(controller, enabled ? rate : 0, status.value_or(0),
                                      status ? m_link->errorCounters(controller, &error)
                                             : qorcalib::ErrorCounters());
}
} // namespace tessel
