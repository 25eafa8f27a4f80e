#include "slotgrid.h"

#include <QCheckBox>
#include <QFontDatabase>
#include <QFontMetrics>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

namespace tessel {

namespace {
QLineEdit* box(QWidget* parent, const QString& name, int characters, const QString& tip)
{
    auto* edit = new QLineEdit(parent);
    edit->setObjectName(name);
    edit->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    const int width = QFontMetrics(edit->font()).horizontalAdvance(QString(characters, 'W'));
    edit->setFixedWidth(width + 14);
    edit->setToolTip(tip);
    return edit;
}
} // namespace

SlotGrid::SlotGrid(QWidget* parent) : QWidget(parent)
{
    auto* grid = new QGridLayout(this);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->setHorizontalSpacing(3);
    grid->setVerticalSpacing(2);
    grid->addWidget(new QLabel(QStringLiteral("ID"), this), 0, 1);
    for (int j = 0; j < 8; ++j)
        grid->addWidget(new QLabel(QStringLiteral("D%1").arg(j), this), 0, 2 + j);
    grid->addWidget(new QLabel(QStringLiteral("Len"), this), 0, 10);
    grid->addWidget(new QLabel(QStringLiteral("Rem"), this), 0, 11);
    for (int i = 0; i < kSlots; ++i) {
        btnSend[i] = new QPushButton(QStringLiteral("Send %1").arg(i + 1), this);
        btnSend[i]->setObjectName(QStringLiteral("btnSend_%1").arg(i));
        btnSend[i]->setToolTip(QStringLiteral("Send slot %1 (M%1 in a sequence)").arg(i + 1));
        connect(btnSend[i], &QPushButton::clicked, this, [this, i] { emit sendClicked(i); });
        grid->addWidget(btnSend[i], i + 1, 0);
        edID0[i] = box(this, QStringLiteral("edID0_%1").arg(i), 3,
                       QStringLiteral("CAN identifier in hexadecimal (000 to 7FF)"));
        grid->addWidget(edID0[i], i + 1, 1);
        for (int j = 0; j < 8; ++j) {
            const int n = i * 8 + j;
            edD0[n] = box(this, QStringLiteral("edD0_%1").arg(n), 2,
                          QStringLiteral("Data byte %1 in hexadecimal").arg(j));
            grid->addWidget(edD0[n], i + 1, 2 + j);
        }
        edLen0[i] = box(this, QStringLiteral("edLen0_%1").arg(i), 1,
                        QStringLiteral("Number of data bytes, 0 to 8"));
        grid->addWidget(edLen0[i], i + 1, 10);
        chRem[i] = new QCheckBox(this);
        chRem[i]->setObjectName(QStringLiteral("chRem_%1").arg(i));
        chRem[i]->setToolTip(QStringLiteral("Send a remote request for Len bytes instead of data"));
        grid->addWidget(chRem[i], i + 1, 11);
    }
    grid->setColumnStretch(12, 1);
}

SlotTexts SlotGrid::texts(int slot) const
{
    SlotTexts t;
    t.id = edID0[slot]->text();
    for (int j = 0; j < 8; ++j)
        t.data[j] = edD0[slot * 8 + j]->text();
    t.length = edLen0[slot]->text();
    t.remote = chRem[slot]->isChecked();
    return t;
}

void SlotGrid::setTexts(int slot, const SlotTexts& t)
{
    edID0[slot]->setText(t.id);
    for (int j = 0; j < 8; ++j)
        edD0[slot * 8 + j]->setText(t.data[j]);
    edLen0[slot]->setText(t.length);
    chRem[slot]->setChecked(t.remote);
}

QList<QWidget*> SlotGrid::tabOrder() const
{
    QList<QWidget*> order;
    for (int i = 0; i < kSlots; ++i) {
        order << edID0[i];
        for (int j = 0; j < 8; ++j)
            order << edD0[i * 8 + j];
        order << edLen0[i] << chRem[i] << btnSend[i];
    }
    return order;
}

} // namespace tessel
