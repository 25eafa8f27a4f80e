#pragma once

#include "canlink.h"

#include <QObject>
#include <QString>

#include <array>

class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QStatusBar;

namespace tessel {

// "OR TX EW BO" from a controller's status bits, in that order, single blanks between them.
QString controllerStatusText(quint32 bits);

// The main window's status bar: the server's name, each controller's error state, what the last
// operation did (whole in its tool tip where it does not fit), the offer to follow a drive's new
// bit rate, and the progress of a transfer.
class StatusLine : public QObject
{
    Q_OBJECT
public:
    static constexpr int kRows = CanLink::kControllerRows;

    explicit StatusLine(QStatusBar* bar);

    std::array<QLabel*, kRows + 1> sbrStato{}; // panel 0: the server; 1..4: the controllers
    QLabel* sbrDone = nullptr;
    QPushButton* cmdFollowRate = nullptr;
    QProgressBar* prbStato = nullptr;

    void reportDone(const QString& text);
    // The result box ("Abort Code:") keeps a bare abort code; its meaning goes beside it, here
    // and in the box's tool tip. Any other result is reported as it stands.
    void explain(QLineEdit* resultBox, const QString& result);
    void clearDone();
    void showServer(const QString& name);
    void showServerLost();
    // The controller's status bits, or nullopt when they could not be read ("?"); a controller
    // that is not enabled shows nothing.
    void showControllerStatus(int controller, bool enabled, std::optional<quint32> bits);
    void showProgress(float percent);
    void offerRate(int controller, int bitRateIndex);

signals:
    // The user took the offer.
    void rateFollowed(int controller, int bitRateIndex);

private:
    QString m_resultTip; // the result box's own tool tip
};

} // namespace tessel
