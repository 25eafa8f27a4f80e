#pragma once

#include "canmsg.h"
#include "canopendecoder.h"

#include <QAbstractTableModel>
#include <QElapsedTimer>
#include <QHash>

#include <array>
#include <vector>

namespace tessel {

// The bus by identifier: a row for each identifier seen on each controller, with what it is,
// how often it came and how regularly (the last, shortest and longest time between two), its
// last length and data and what they meant; and each controller's bus load. Frames are counted
// as they come; the rows a view sees change only when publish() is called, so that a saturated
// bus costs a view a few redraws a second, not one a frame.
class IdentifierTable : public QAbstractTableModel
{
    Q_OBJECT
public:
    static constexpr int kControllers = 4;
    enum Column
    {
        Controller,
        Identifier,
        Service,
        Count,
        CycleLast,
        CycleMin,
        CycleMax,
        Length,
        Meaning,
        Data,
        ColumnCount
    };
    // The value a column sorts by (numbers as numbers, the identifier by controller first).
    static constexpr int SortRole = Qt::UserRole;

    explicit IdentifierTable(QObject* parent = nullptr);

    // One frame, with its time in microseconds and what the decoder made of it. Frames this
    // program sent have rows of their own: they are timed on another clock. A length outside
    // 0..8 or a controller outside the four is no frame and is not counted.
    void add(int controller, bool sent, quint16 id, bool remote, qint64 timeUs, int length,
             const quint8* data, const DecodedFrame& decoded);
    // Brings the view's rows up to date with the frames counted since the last call.
    void publish();
    void clear();

    // Bus load: the share of the last measuring period in which the frames counted occupied
    // the controller's bus (stuff bits included), in percent; -1 while the rate is unknown.
    void setBitRate(int controller, int bitsPerSecond);
    void setStatus(int controller, quint32 status);
    void setErrorCounters(int controller, qorcalib::ErrorCounters counters);
    // Ends a measuring period: the loads become those of the frames since the last call.
    void measureLoad();
    double loadPercent(int controller) const { return m_load.at(size_t(controller)); }
    // "CAN 0: 12.5 %  CAN 1: 0.0 % bus off TEC 255 REC 0" for the controllers whose rate is
    // known, each with its error state where it has one and its error counters where they are
    // known and not both 0.
    QString loadText() const;

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

private:
    struct Row
    {
        int controller = 0;
        bool sent = false;
        quint16 id = 0;
        bool remote = false;
        qint64 count = 0;
        qint64 lastUs = -1;
        qint64 cycleUs = -1; // -1 until a second frame came
        qint64 minUs = -1;
        qint64 maxUs = -1;
        int length = 0;
        std::array<quint8, 8> data{};
        QString service;
        QString meaning;
    };
    std::vector<Row> m_rows;
    QHash<quint32, int> m_index; // controller, direction, remote flag and identifier to the row
    int m_published = 0;         // rows the view knows
    bool m_changed = false;
    std::array<int, kControllers> m_bitRate{};
    std::array<quint32, kControllers> m_status{};
    std::array<qorcalib::ErrorCounters, kControllers> m_counters{};
    std::array<qint64, kControllers> m_bits{};
    std::array<double, kControllers> m_load{-1, -1, -1, -1};
    QElapsedTimer m_period;
};

} // namespace tessel
