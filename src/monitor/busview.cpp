#include "busview.h"

#include "elidedlabel.h"
#include "plotsource.h"

#include <QHeaderView>
#include <QLabel>
#include <QMenu>
#include <QSortFilterProxyModel>
#include <QTabBar>
#include <QTabWidget>
#include <QTableView>

namespace tessel {

namespace {
// Beside a tab bar, the load takes the room the tabs leave and no more, so that a long text
// never pushes the tabs aside; what does not fit ends in "…" and the tool tip has it whole.
class LoadLabel : public ElidedLabel
{
public:
    using ElidedLabel::ElidedLabel;
    QSize sizeHint() const override
    {
        QSize hint = ElidedLabel::sizeHint();
        if (const auto* tabs = qobject_cast<const QTabWidget*>(parentWidget()))
            hint.setWidth(std::clamp(tabs->width() - tabs->tabBar()->sizeHint().width() - 12, 0,
                                     hint.width()));
        return hint;
    }
};

const QString kLoadTip =
    QStringLiteral("Bus load over the last second: the time the traced frames took on each\n"
                   "running controller's bus; its error state, and its transmit (TEC) and\n"
                   "receive (REC) error counters once they are not both 0");
} // namespace

BusView::BusView(QWidget* parent) : QObject(parent)
{
    m_clock.start();
    edDecoded = new TraceView(parent);
    edDecoded->setObjectName(QStringLiteral("edDecoded"));
    edDecoded->setToolTip(QStringLiteral("The traced frames as CANopen reads them"));

    auto* sorted = new QSortFilterProxyModel(this);
    sorted->setSourceModel(&m_table);
    sorted->setSortRole(IdentifierTable::SortRole);
    tblIds = new QTableView(parent);
    tblIds->setObjectName(QStringLiteral("tblIds"));
    tblIds->setModel(sorted);
    tblIds->setSortingEnabled(true);
    tblIds->sortByColumn(IdentifierTable::Identifier, Qt::AscendingOrder);
    tblIds->setSelectionBehavior(QAbstractItemView::SelectRows);
    tblIds->setEditTriggers(QAbstractItemView::NoEditTriggers);
    tblIds->setWordWrap(false);
    tblIds->verticalHeader()->hide();
    tblIds->verticalHeader()->setDefaultSectionSize(tblIds->fontMetrics().height() + 4);
    tblIds->horizontalHeader()->setStretchLastSection(true);
    tblIds->horizontalHeader()->setSectionResizeMode(QHeaderView::Interactive);
    const int digit = tblIds->fontMetrics().horizontalAdvance(QLatin1Char('0'));
    const int widths[IdentifierTable::ColumnCount] = {4, 4, 10, 6, 6, 6, 6, 3, 30, 23};
    for (int c = 0; c < IdentifierTable::ColumnCount; ++c)
        tblIds->setColumnWidth(c, digit * widths[c] + 16);
    tblIds->setToolTip(QStringLiteral("Each identifier seen on each controller; click a heading "
                                      "to sort; the context menu plots a PDO's values"));
    tblIds->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(tblIds, &QTableView::customContextMenuRequested, this, &BusView::offerPlot);

    lblLoad = new LoadLabel(parent);
    lblLoad->setObjectName(QStringLiteral("lblLoad"));
    lblLoad->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    lblLoad->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    lblLoad->setToolTip(kLoadTip);
}

void BusView::addFrame(int controller, int kind, quint16 id, qint64 timeUs, int length,
                       const quint8* data, QStringView head)
{
    if (controller < 0 || controller >= kControllers)
        return;
    const bool remote = kind == int(TraceKind::RemoteRequest);
    const QByteArray bytes =
        remote || !data ? QByteArray()
                        : QByteArray::fromRawData(reinterpret_cast<const char*>(data), length);
    const DecodedFrame decoded = m_decoders[size_t(controller)].decode(id, remote, bytes);
    m_decoded.append({head, u"  ", CanopenDecoder::text(decoded)});
    // The server stamps the frames it receives; those this program sent come back without a
    // time of the server's, and are timed by the clock of this program as they arrive.
    const bool sent = kind != int(TraceKind::Received);
    m_table.add(controller, sent, id, remote, sent ? m_clock.nsecsElapsed() / 1000 : timeUs, length,
                data, decoded);
}

void BusView::offerPlot(const QPoint& at)
{
    const QModelIndex row = tblIds->indexAt(at);
    if (!row.isValid())
        return;
    const int key =
        row.siblingAtColumn(IdentifierTable::Identifier).data(IdentifierTable::SortRole).toInt();
    const int controller = key >> 13;
    const int id = (key >> 1) & 0x7FF;
    QMenu menu(tblIds);
    const auto pdo = pdoOfIdentifier(quint16(id));
    // A PDO's fields by the dictionary's mapping.
    if (pdo && m_dictionary) {
        PlotSource field;
        field.kind = PlotSource::Kind::Frame;
        field.id = id;
        field.controller = controller;
        for (const DeviceDictionary::Field& f : m_dictionary->mapping(pdo->transmit, pdo->pdo)) {
            QString name = m_dictionary->name(f.index, f.subIndex);
            if (name.isEmpty())
                name = QStringLiteral("%1:%2").arg(f.index, 4, 16).arg(f.subIndex).toUpper();
            field.bits = f.bits;
            field.isSigned = f.isSigned;
            field.name = QStringLiteral("%1 (node %2)").arg(name).arg(pdo->node);
            if (field.bit + f.bits <= 64)
                menu.addAction(QStringLiteral("Plot %1").arg(name), this,
                               [this, source = field.text()] { emit plotRequested(source); });
            field.bit += f.bits;
        }
    }
    if (pdo)
        menu.addAction(QStringLiteral("&Read the mapping from node %1").arg(pdo->node), this,
                       [this, controller, id] { emit mappingRequested(controller, id); });
    // Any field of the frame, for the user to say which: the first byte to start from.
    PlotSource any;
    any.kind = PlotSource::Kind::Frame;
    any.id = id;
    any.controller = controller;
    const QString start = any.text() + QStringLiteral("...");
    menu.addAction(QStringLiteral("Plot a &field of %1...").arg(QString::number(id, 16).toUpper()),
                   this, [this, start] { emit plotRequested(start); });
    menu.exec(tblIds->viewport()->mapToGlobal(at));
}

void BusView::setDictionary(const std::shared_ptr<const DeviceDictionary>& dictionary)
{
    m_dictionary = dictionary;
    for (CanopenDecoder& d : m_decoders)
        d.setDictionary(dictionary);
}

void BusView::clear()
{
    for (CanopenDecoder& d : m_decoders)
        d.clear();
    m_decoded.clear();
    m_table.clear();
}

void BusView::refresh(int elapsedMs)
{
    if (edDecoded->isVisible())
        edDecoded->showChanges(m_decoded);
    m_sinceTable += elapsedMs;
    if (m_sinceTable >= kTableRefreshMs && tblIds->isVisible()) {
        m_sinceTable = 0;
        m_table.publish();
    }
    m_sinceLoad += elapsedMs;
    if (m_sinceLoad >= kLoadPeriodMs) {
        m_sinceLoad = 0;
        m_table.measureLoad();
        lblLoad->setText(m_table.loadText());
        lblLoad->setToolTip(
            lblLoad->text().isEmpty()
                ? kLoadTip
                : lblLoad->text().replace(QLatin1String("  "), QLatin1String("\n")) +
                      QLatin1String("\n\n") + kLoadTip);
    }
}

} // namespace tessel
