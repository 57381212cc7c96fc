// Printing a view as a screen picture scaled to the page, and the two print
// dialogs behind a seam: a test answers the print dialog and takes the preview
// dialog in hand instead of a person.
#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <vector>

class QPrinter;
class QPrintPreviewDialog;
class QWidget;

// Paints a picture of widget onto the printer's page, as large as the page
// allows with the widget's aspect ratio, from the page's top left corner.
// Before each step a step number goes to the application log, so that a
// printer driver that hangs shows where.
void PaintWidgetPicture(QWidget* widget, QPrinter* printer);

// The shown events as text pages: a page head with the session's name and
// "Page n of m", the columns' titles, then one line an event, each column
// at its own place. `columns` are the titles; each row has one text a
// column, the last of which (the event's text) is cut at the page's edge.
// Returns the pages printed.
int PaintEventPages(QPrinter* printer, const QString& session, const QStringList& columns,
                    const std::vector<QStringList>& rows);
// How many rows a page takes for a page of `height` with lines `lineHeight`
// apart (two head lines and a gap before them).
int RowsPerPage(int height, int lineHeight);

// The print dialog on printer: true when the user accepted it.
bool AskPrint(QWidget* parent, QPrinter* printer);
// Opens the preview dialog maximised and modal, until it is closed.
void RunPrintPreview(QPrintPreviewDialog* dialog);

// Tests: the answer of the print dialog, and what is done with the preview
// dialog instead of opening it (an empty function puts the real dialogs back).
void SetPrintAnswerer(std::function<bool(QPrinter*)> answerer);
void SetPrintPreviewHook(std::function<void(QPrintPreviewDialog*)> hook);
