#pragma once

#include "frmdiagno.h"
#include "frmmain.h"

#include <QString>
#include <QStringList>

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
    FrmMain window;
    QStringList messages;
    QString loadError;
};

} // namespace tessel::test
