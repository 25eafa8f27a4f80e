#pragma once

#include "frmdiagno.h"
#include "frmmain.h"
#include "serverprocess.h"

#include <QtTest>
#include <QtWidgets>

#include <memory>

namespace tessel::test {

// A main window on the test's server, with its messages recorded instead of shown.
struct Tessel
{
    explicit Tessel(const QString& socketPath)
    {
        window.link()->setLocalSocketPath(socketPath);
        window.setMessageHandler([this](const QString& text) { messages << text; });
    }
    bool load(const QString& answer = QStringLiteral("localhost"))
    {
        QString error;
        if (!window.formLoad(answer, &error)) {
            qWarning("formLoad: %s", qPrintable(error));
            loadError = error;
            return false;
        }
        return true;
    }
    QString trace() const { return window.monitor()->traceText(); }
    // Messages as a user meets them: a modal box, answered with a click on OK. A box whose
    // click does not arrive is closed after 5 s and recorded as "unanswerable: TEXT".
    void answerMessagesWithAClick()
    {
        window.setMessageHandler([this](const QString& text) {
            QMessageBox box(QMessageBox::Critical, window.windowTitle(), text, QMessageBox::Ok,
                            &window);
            bool answered = false;
            QTimer::singleShot(
                50, &box, [&] { QTest::mouseClick(box.button(QMessageBox::Ok), Qt::LeftButton); });
            QTimer::singleShot(5000, &box, [&] { box.done(QMessageBox::Cancel); });
            answered = box.exec() == QMessageBox::Ok;
            messages << (answered ? text : QStringLiteral("unanswerable: ") + text);
        });
    }
    FrmMain window;
    QStringList messages;
    QString loadError;
};

// What every test of the windows runs on: settings in a private folder, and a fresh server on
// an unpaced bus for each test function.
struct WindowTestBench
{
    void useOwnSettings()
    {
        QSettings::setPath(QSettings::IniFormat, QSettings::SystemScope,
                           settings.filePath("system"));
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settings.filePath("user"));
    }
    bool startServer()
    {
        server = std::make_unique<qorcalib::test::ServerProcess>();
        return server->start({QStringLiteral("--unpaced")});
    }
    QTemporaryDir settings;
    std::unique_ptr<qorcalib::test::ServerProcess> server;
};

} // namespace tessel::test
