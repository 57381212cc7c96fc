#include "events/ui/PanelDialog.h"

#include <QKeyEvent>

PanelDialog::PanelDialog(QWidget* parent, Qt::WindowFlags flags) : QDialog(parent, flags)
{
}

void PanelDialog::reject()
{
    // A panel inside another window is not closed like a dialog.
    if (isWindow())
        QDialog::reject();
}

void PanelDialog::keyPressEvent(QKeyEvent* event)
{
    if (isWindow()) {
        QDialog::keyPressEvent(event);
        return;
    }
    // Embedded, the dialog's own keys (Escape, Return, Enter) mean nothing
    // here: the event is ignored, so that it goes on to the parent.
    QWidget::keyPressEvent(event);
}
