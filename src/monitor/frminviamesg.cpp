#include "frminviamesg.h"

#include "frametransmitter.h"
#include "numbers.h"
#include "windowplacement.h"

#include <QCloseEvent>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace tessel {

FrmInviaMesg::FrmInviaMesg(const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent)
    : QWidget(parent, Qt::Window), m_placement(placement), m_mainWindow(mainWindow)
{
    setObjectName(QStringLiteral("frmInviaMesg"));
    setWindowTitle(QStringLiteral("Invia"));
    // The example has no line end, so "Invia" on it alone sends nothing: as a frame it would
    // reset every node.
    txtMesg = new QPlainTextEdit(QStringLiteral("T 000 xxxxx > 81 00"), this);
    txtMesg->setObjectName(QStringLiteral("txtMesg"));
    txtMesg->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    txtMesg->setLineWrapMode(QPlainTextEdit::NoWrap);
    txtMesg->setTabChangesFocus(true);
    txtMesg->setToolTip(QStringLiteral(
        "One frame per line: identifier in columns 3-5, data bytes after \">\"\n"
        "e.g. \"T 181 xxxxx > 12 34\". Each line, the last one too, ends with Enter."));
    txtRitardo = new QLineEdit(QStringLiteral("10"), this);
    txtRitardo->setObjectName(QStringLiteral("txtRitardo"));
    txtRitardo->setMaximumWidth(70);
    txtRitardo->setToolTip(QStringLiteral("Pause after each frame, in milliseconds (0 to 65535)"));
    cmdInvia = new QPushButton(QStringLiteral("Invia"), this);
    cmdInvia->setObjectName(QStringLiteral("cmdInvia"));
    cmdInvia->setToolTip(QStringLiteral("Send the lines, one after another"));
    cmdStop = new QPushButton(QStringLiteral("Stop"), this);
    cmdStop->setObjectName(QStringLiteral("cmdStop"));
    cmdStop->setToolTip(QStringLiteral("Stop sending; the remaining lines are not sent"));
    cmdStop->setEnabled(false);
    lblState = new QLabel(this);
    lblState->setObjectName(QStringLiteral("lblState"));
    // On a row of its own, wrapped: a long state is read whole, not cut at the window's edge.
    lblState->setWordWrap(true);

    auto* bottom = new QHBoxLayout;
    auto* label = new QLabel(QStringLiteral("Ritardo (msec):"), this);
    label->setBuddy(txtRitardo);
    bottom->addWidget(label);
    bottom->addWidget(txtRitardo);
    bottom->addWidget(cmdInvia);
    bottom->addWidget(cmdStop);
    bottom->addStretch();
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(txtMesg, 1);
    layout->addLayout(bottom);
    layout->addWidget(lblState);

    tmrRitardo.setSingleShot(true);
    tmrRitardo.setTimerType(Qt::PreciseTimer);
    connect(&tmrRitardo, &QTimer::timeout, this, &FrmInviaMesg::sendNext);
    connect(cmdInvia, &QPushButton::clicked, this, &FrmInviaMesg::cmdInvia_Click);
    connect(cmdStop, &QPushButton::clicked, this, [this] { finish(QStringLiteral("Stopped")); });
    resize(460, 320);
}

void FrmInviaMesg::cmdInvia_Click()
{
    if (m_running)
        return;
    const qint32 pause = roundToInt32(lenientValue(txtRitardo->text()));
    if (pause < 0 || pause > kLongestPauseMs) {
        emit message(QStringLiteral("The pause must be 0 to 65535 ms, not \"%1\": nothing "
                                    "sent.")
                         .arg(txtRitardo->text()));
        return;
    }
    m_script = parseComposerText(txtMesg->toPlainText());
    m_next = 0;
    m_running = true;
    // 0 ms goes on at the event loop's next turn: the list never hangs on a pause.
    tmrRitardo.setInterval(pause);
    cmdInvia->setEnabled(false);
    cmdStop->setEnabled(true);
    lblState->clear();
    sendNext();
}

void FrmInviaMesg::sendNext()
{
    if (!m_running)
        return;
    if (m_next >= m_script.frames.size()) {
        if (!m_script.error.isEmpty())
            finish(QStringLiteral("Stopped at a bad line"), m_script.error);
        else if (m_script.lastLineUnsent)
            finish(QStringLiteral("Sent %1; the last line has no line end and was not sent")
                       .arg(m_script.frames.size()));
        else
            finish(QStringLiteral("Sent %1").arg(m_script.frames.size()));
        return;
    }
    const ComposerFrame& frame = m_script.frames[m_next++];
    lblState->setText(QStringLiteral("Line %1").arg(frame.line));
    if (transmitter && transmitter->send(frame.id, int(frame.data.size()), frame.data)) {
        finish(QStringLiteral("Stopped: line %1 could not be sent").arg(frame.line));
        return;
    }
    tmrRitardo.start();
}

void FrmInviaMesg::stop()
{
    if (m_running)
        finish(QStringLiteral("Stopped"));
}

void FrmInviaMesg::finish(const QString& state, const QString& why)
{
    tmrRitardo.stop();
    m_running = false;
    cmdInvia->setEnabled(true);
    cmdStop->setEnabled(false);
    lblState->setText(state);
    lblState->setToolTip(state);
    if (!why.isEmpty())
        emit message(why);
    emit runFinished();
}

void FrmInviaMesg::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    WindowPlacement::placeOnFirstShow(m_placement, this, m_mainWindow, &m_positioned);
}

void FrmInviaMesg::closeEvent(QCloseEvent* event)
{
    stop();
    QWidget::closeEvent(event);
}

} // namespace tessel
