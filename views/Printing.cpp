#include "views/Printing.h"

#include "services/Log.h"

#include <QPainter>
#include <QPixmap>
#include <QPrintDialog>
#include <QPrintPreviewDialog>
#include <QPrinter>
#include <QWidget>

namespace {

std::function<bool(QPrinter*)>& PrintAnswerer()
{
    static std::function<bool(QPrinter*)> answerer;
    return answerer;
}

std::function<void(QPrintPreviewDialog*)>& PreviewHook()
{
    static std::function<void(QPrintPreviewDialog*)> hook;
    return hook;
}

}  // namespace

void PaintWidgetPicture(QWidget* widget, QPrinter* printer)
{
    if (!widget || !printer)
        return;
    QPainter painter(printer);
    if (!painter.isActive())
        return;
    Log::Printf("plotPic 2");
    const QPixmap picture = widget->grab(QRect(0, 0, widget->width(), widget->height()));
    Log::Printf("plotPic 3");
    const QRect viewport = painter.viewport();
    QSize size = picture.size();
    size.scale(viewport.size(), Qt::KeepAspectRatio);
    Log::Printf("plotPic 4");
    painter.setViewport(viewport.x(), viewport.y(), size.width(), size.height());
    painter.setWindow(picture.rect());
    painter.drawPixmap(0, 0, picture);
}

bool AskPrint(QWidget* parent, QPrinter* printer)
{
    if (PrintAnswerer())
        return PrintAnswerer()(printer);
    QPrintDialog dialog(printer, parent);
    return dialog.exec() == QDialog::Accepted;
}

void RunPrintPreview(QPrintPreviewDialog* dialog)
{
    dialog->setWindowState(dialog->windowState() | Qt::WindowMaximized);
    dialog->setModal(true);
    if (PreviewHook()) {
        PreviewHook()(dialog);
        return;
    }
    dialog->exec();
}

void SetPrintAnswerer(std::function<bool(QPrinter*)> answerer)
{
    PrintAnswerer() = std::move(answerer);
}

void SetPrintPreviewHook(std::function<void(QPrintPreviewDialog*)> hook)
{
    PreviewHook() = std::move(hook);
}
