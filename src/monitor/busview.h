#pragma once

#include "canopendecoder.h"
#include "identifiertable.h"
#include "traceline.h"
#include "traceview.h"

#include <QElapsedTimer>
#include <QObject>

#include <array>

class QLabel;
class QTableView;
class QWidget;

namespace tessel {

// The CAN monitor's CANopen view of the frames it traces: the same frames decoded, one line
// each, and the bus by identifier with each controller's load. The views are brought up to date
// by refresh(), a few times a second and only while they are shown; the frames are decoded and
// counted as they come, so a view opened later shows what came before.
class BusView : public QObject
{
    Q_OBJECT
public:
    static constexpr int kControllers = IdentifierTable::kControllers;
    // The decoded text keeps more than the exact trace: its lines are longer.
    static constexpr qsizetype kMaxDecodedLength = 1000000;
    static constexpr qsizetype kKeepDecodedLength = 250000;
    // The table redraws at most this often, the load is measured over this period.
    static constexpr int kTableRefreshMs = 100;
    static constexpr int kLoadPeriodMs = 1000;

    explicit BusView(QWidget* parent);

    // One traced frame: `head` is the start of its exact trace line (direction, controller,
    // identifier, length, time), `timeUs` its time on a clock that does not wrap.
    void addFrame(int controller, int kind, quint16 id, qint64 timeUs, int length,
                  const quint8* data, QStringView head);
    void clear();
    // Entries named and PDOs read by an EDS, on every controller, from the next frame on.
    void setDictionary(const std::shared_ptr<const DeviceDictionary>& dictionary);
    // A controller's rate (0 while it does not run), its status bits as the server reports
    // them (error warning, bus off, overrun) and its error counters, shown beside its load.
    void setController(int controller, int bitsPerSecond, quint32 status,
                       qorcalib::ErrorCounters counters)
    {
        m_table.setBitRate(controller, bitsPerSecond);
        m_table.setStatus(controller, status);
        m_table.setErrorCounters(controller, counters);
    }
    // Called by the monitor's refresh timer (every `elapsedMs`).
    void refresh(int elapsedMs);
    const QString& decodedText() const { return m_decoded.text(); }
    IdentifierTable* table() { return &m_table; }

    TraceView* edDecoded = nullptr;
    QTableView* tblIds = nullptr;
    QLabel* lblLoad = nullptr;

signals:
    // A field of a row's frames to plot (a plot source), or, ending in "...", a start for the
    // user to finish.
    void plotRequested(const QString& source);
    // The PDO of a row to be read from its node (its mapping now), for the dictionary.
    void mappingRequested(int controller, int id);

private:
    void offerPlot(const QPoint& at);

    std::array<CanopenDecoder, kControllers> m_decoders;
    std::shared_ptr<const DeviceDictionary> m_dictionary;
    IdentifierTable m_table;
    TraceBuffer m_decoded{kMaxDecodedLength, kKeepDecodedLength};
    QElapsedTimer m_clock;
    int m_sinceTable = 0;
    int m_sinceLoad = 0;
};

} // namespace tessel
