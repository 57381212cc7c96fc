#include "views/Printing.h"

#include "services/Log.h"

#include <algorithm>

#include <QFontDatabase>
#include <QFontMetrics>
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

int RowsPerPage(int height, int lineHeight)
{
    if (lineHeight <= 0)
        return 1;
    return std::max(1, height / lineHeight - 3);
}

int PaintEventPages(QPrinter* printer, const QString& session, const QStringList& columns,
                    const std::vector<QStringList>& rows)
{
    if (!printer)
        return 0;
    QPainter painter;
    if (!painter.begin(printer))
        return 0;
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setPointSizeF(8.0);
    painter.setFont(font);
    const QFontMetrics metrics(font, printer);
    const QRect page = printer->pageLayout().paintRectPixels(printer->resolution());
    const int width = page.width();
    const int line = metrics.lineSpacing();
    const int perPage = RowsPerPage(page.height(), line);
    const int pages = std::max(1, static_cast<int>((rows.size() + perPage - 1) / perPage));
    // Each column as wide as its widest text; the last takes what is left.
    std::vector<int> at(static_cast<size_t>(columns.size()), 0);
    int x = 0;
    for (int c = 0; c < columns.size(); ++c) {
        at[static_cast<size_t>(c)] = x;
        int widest = metrics.horizontalAdvance(columns[c]);
        for (const QStringList& r : rows)
            if (c < r.size())
                widest = std::max(widest, metrics.horizontalAdvance(r[c]));
        x += widest + metrics.horizontalAdvance(QStringLiteral("    "));
    }
    const int digitsRight = columns.size() - 1;  // all but the text are right-aligned numbers and words
    auto cell = [&](int y, int c, const QString& text) {
        const int left = at[static_cast<size_t>(c)];
        if (c < digitsRight) {
            const int right = at[static_cast<size_t>(c + 1)] - metrics.horizontalAdvance(QStringLiteral("    "));
            painter.drawText(QRect(left, y, right - left, line), Qt::AlignRight | Qt::AlignVCenter, text);
        } else {
            painter.drawText(QRect(left, y, std::max(0, width - left), line), Qt::AlignLeft | Qt::AlignVCenter,
                             metrics.elidedText(text, Qt::ElideRight, std::max(0, width - left)));
        }
    };
    for (int p = 0; p < pages; ++p) {
        if (p > 0)
            printer->newPage();
        int y = 0;
        painter.drawText(QRect(0, y, width, line), Qt::AlignLeft | Qt::AlignVCenter, session);
        painter.drawText(QRect(0, y, width, line), Qt::AlignRight | Qt::AlignVCenter,
                         QStringLiteral("Page %1 of %2").arg(p + 1).arg(pages));
        y += line * 2;
        QFont bold = font;
        bold.setBold(true);
        painter.setFont(bold);
        for (int c = 0; c < columns.size(); ++c)
            cell(y, c, columns[c]);
        painter.setFont(font);
        painter.drawLine(0, y + line, width, y + line);
        y += line;
        const size_t first = static_cast<size_t>(p) * static_cast<size_t>(perPage);
        for (size_t r = first; r < rows.size() && r < first + static_cast<size_t>(perPage); ++r) {
            for (int c = 0; c < columns.size() && c < rows[r].size(); ++c)
                cell(y, c, rows[r][c]);
            y += line;
        }
    }
    painter.end();
    return pages;
}
