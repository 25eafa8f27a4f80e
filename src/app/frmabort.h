#pragma once

#include <QDialog>

class QPushButton;

namespace tessel {

// The abort dialog: while it is open the main window takes no input; its button asks the
// running operation to stop. Its owner closes it.
class FrmAbort : public QDialog
{
    Q_OBJECT
public:
    // inputArea: the part of the main window that takes no input while the dialog is open (not
    // the window itself, which would disable this dialog with it).
    FrmAbort(QWidget* mainWindow, QWidget* inputArea);
    QPushButton* cmdAbort = nullptr;
    // Over the middle of the main window, whose input it takes while it is open.
    void showOverMainWindow();
    void hideFromMainWindow();

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    QWidget* m_mainWindow;
    QWidget* m_inputArea;
};

} // namespace tessel
