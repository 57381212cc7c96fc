// Printing the focused view: a picture of the view alone on one page, scaled
// with its aspect ratio; the whole dock when no view has the focus; nothing
// for a cancelled dialog; the preview dialog as the window sets it up; the
// step lines in the application log. The PDF page is rendered by pdftoppm and
// looked at pixel by pixel.
#include "ViewTestEvents.h"
#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/Log.h"
#include "services/SettingParams.h"
#include "events/ui/QEventWindow.h"
#include "views/MainWindow.h"
#include "views/Printing.h"
#include "views/Properties.h"
#include "views/PropertyTree.h"
#include "views/QWindowReal.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QImage>
#include <QPrintPreviewDialog>
#include <QPrinter>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeView>

#include <fstream>

namespace {

class PrintingTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        AppSettings::ReloadForTest();
        SettingParams::Instance().savePath = dir.path().toStdString() + "/sessions";
        SetUserMessageRecorder([this](const UserMessage& m) { messages.push_back(m); });
    }
    void TearDown() override
    {
        SetUserMessageRecorder(nullptr);
        SetPrintAnswerer(nullptr);
        SetPrintPreviewHook(nullptr);
    }
    std::string Empty() const { return dir.path().toStdString() + "/none/ttyACM%d"; }
    // A window with an event selected in the property tree.
    void Fill(MainWindow& w)
    {
        w.resize(1400, 850);
        w.show();
        QApplication::setActiveWindow(&w);
        MsgInfoPtr e = ControlError(3.0);
        e->common.Summary = "ControlError summary";
        w.Dock()->EventWindowSelected(*e, kItemEvent);
        QApplication::processEvents();
    }
    // The pages of a PDF rendered at 72 dots an inch.
    std::vector<QImage> Render(const QString& pdf)
    {
#ifdef COILSCOPE_PDFTOPPM
        const QString prefix = dir.path() + "/page";
        QProcess p;
        p.start(QStringLiteral(COILSCOPE_PDFTOPPM), {"-r", "72", "-png", pdf, prefix});
        EXPECT_TRUE(p.waitForFinished(60000));
        EXPECT_EQ(p.exitCode(), 0) << p.readAllStandardError().toStdString();
        std::vector<QImage> pages;
        for (const QString& name : QDir(dir.path()).entryList({"page*.png"}, QDir::Files, QDir::Name))
            pages.emplace_back(dir.path() + "/" + name);
        return pages;
#else
        (void)pdf;
        ADD_FAILURE() << "pdftoppm (poppler-utils) is needed: scripts/install-deps.sh";
        return {};
#endif
    }
    // The smallest rectangle holding every pixel that isn't white.
    static QRect Inked(const QImage& image, int* count = nullptr)
    {
        int left = image.width(), top = image.height(), right = -1, bottom = -1, n = 0;
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x)
                if (qGray(image.pixel(x, y)) < 245) {
                    left = std::min(left, x);
                    right = std::max(right, x);
                    top = std::min(top, y);
                    bottom = std::max(bottom, y);
                    ++n;
                }
        if (count)
            *count = n;
        return right < 0 ? QRect() : QRect(QPoint(left, top), QPoint(right, bottom));
    }
    QString PdfPath() const { return dir.path() + "/printed.pdf"; }
    static void ToPdf(QPrinter& printer, const QString& path)
    {
        printer.setOutputFormat(QPrinter::PdfFormat);
        printer.setOutputFileName(path);
    }

    QTemporaryDir dir;
    std::vector<UserMessage> messages;
};

}  // namespace

TEST_F(PrintingTest, FocusedPropertyTreePrintsAloneOnOnePageWithItsAspectRatio)
{
    MainWindow w(Empty());
    Fill(w);
    Properties* tree = w.Dock()->PropertyView();
    tree->Tree()->View()->setFocus();
    QApplication::processEvents();
    ASSERT_EQ(w.PrintedWidget(), tree);
    {
        QPrinter printer(QPrinter::HighResolution);
        ToPdf(printer, PdfPath());
        w.plotPic(&printer);
    }
    ASSERT_TRUE(QFile::exists(PdfPath()));
    const std::vector<QImage> pages = Render(PdfPath());
    ASSERT_EQ(pages.size(), 1u);
    const QImage& page = pages[0];
    int inked = 0;
    const QRect picture = Inked(page, &inked);
    ASSERT_FALSE(picture.isNull()) << "the page is blank";
    EXPECT_GT(inked, 1000);
    const double expected = static_cast<double>(tree->width()) / tree->height();
    const double got = static_cast<double>(picture.width()) / picture.height();
    EXPECT_NEAR(got, expected, expected * 0.03) << picture.width() << "x" << picture.height();
    // At the page's width or height, whichever binds.
    EXPECT_TRUE(picture.width() > page.width() * 0.85 || picture.height() > page.height() * 0.85)
        << picture.width() << "x" << picture.height() << " on " << page.width() << "x" << page.height();
    page.save(dir.path() + "/look.png");
    if (const char* keep = std::getenv("COILSCOPE_KEEP_PRINT"))
        page.save(QString::fromLocal8Bit(keep));
}

TEST_F(PrintingTest, WithNoViewFocusedTheWholeDockIsPrinted)
{
    MainWindow w(Empty());
    Fill(w);
    w.setFocus();
    QApplication::processEvents();
    EXPECT_EQ(w.PrintedWidget(), w.Dock());
    {
        QPrinter printer(QPrinter::HighResolution);
        ToPdf(printer, PdfPath());
        w.plotPic(&printer);
    }
    const std::vector<QImage> pages = Render(PdfPath());
    ASSERT_EQ(pages.size(), 1u);
    const QRect picture = Inked(pages[0]);
    ASSERT_FALSE(picture.isNull());
    const double expected = static_cast<double>(w.Dock()->width()) / w.Dock()->height();
    EXPECT_NEAR(static_cast<double>(picture.width()) / picture.height(), expected, expected * 0.03);
}

TEST_F(PrintingTest, CancelledPrintDialogPaintsNothingAndAcceptedOnePrints)
{
    MainWindow w(Empty());
    Fill(w);
    SetPrintAnswerer([this](QPrinter* printer) {
        EXPECT_EQ(printer->resolution(), QPrinter(QPrinter::HighResolution).resolution());
        ToPdf(*printer, PdfPath());
        return false;
    });
    w.actionBtns(w.Action("actionPrint"));
    EXPECT_FALSE(QFile::exists(PdfPath()));
    SetPrintAnswerer([this](QPrinter* printer) {
        ToPdf(*printer, PdfPath());
        return true;
    });
    Log::Printf("PrintingTest marker");
    w.actionBtns(w.Action("actionPrint"));
    EXPECT_TRUE(QFile::exists(PdfPath()));
    EXPECT_TRUE(messages.empty());
    // The step lines, in order, after the marker.
    std::ifstream in(Log::Instance().FilePath(), std::ios::binary);
    const std::string log((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t at = log.rfind("PrintingTest marker");
    ASSERT_NE(at, std::string::npos);
    const size_t s2 = log.find("plotPic 2\r\n", at);
    const size_t s3 = log.find("plotPic 3\r\n", at);
    const size_t s4 = log.find("plotPic 4\r\n", at);
    EXPECT_TRUE(s2 != std::string::npos && s2 < s3 && s3 < s4 && s4 != std::string::npos) << log.substr(at);
}

TEST_F(PrintingTest, PreviewIsModalMaximisedInPdfAndPaintsThroughPlotPic)
{
    MainWindow w(Empty());
    Fill(w);
    bool seen = false;
    SetPrintPreviewHook([&](QPrintPreviewDialog* dialog) {
        seen = true;
        EXPECT_TRUE(dialog->isModal());
        EXPECT_TRUE(dialog->windowState() & Qt::WindowMaximized);
        QPrinter* printer = dialog->printer();
        EXPECT_EQ(printer->outputFormat(), QPrinter::PdfFormat);
        printer->setOutputFileName(PdfPath());
        emit dialog->paintRequested(printer);
    });
    w.actionBtns(w.Action("actionPrintFreview"));
    EXPECT_TRUE(seen);
    EXPECT_TRUE(QFile::exists(PdfPath()));
    EXPECT_TRUE(messages.empty());
}

TEST_F(PrintingTest, NoWidgetOrNoPrinterPaintsNothing)
{
    QPrinter printer(QPrinter::HighResolution);
    ToPdf(printer, PdfPath());
    PaintWidgetPicture(nullptr, &printer);
    QWidget widget;
    PaintWidgetPicture(&widget, nullptr);
    EXPECT_FALSE(QFile::exists(PdfPath()));
}

// The event window focused: its shown events as text pages (the columns, the
// session's name and page numbers), not its picture.
TEST_F(PrintingTest, FocusedEventWindowPrintsTheShownEventsAsTextPages)
{
    const QString pdftotext = QStandardPaths::findExecutable(QStringLiteral("pdftotext"));
    if (pdftotext.isEmpty())
        GTEST_SKIP() << "no pdftotext";
    MainWindow w(Empty());
    Fill(w);
    QEventWindow* events = w.Dock()->EventWindow();
    SettingParams::Instance().eventPath = SettingParams::Instance().logPath = dir.path().toStdString() + "/";
    events->StartAcquisition();
    std::vector<MsgInfoPtr> batch;
    for (int i = 0; i < 200; ++i) {
        MsgInfoPtr e = i % 2 ? ControlError(i) : MakeEvent(4, 2, "ReceivedPower " + std::to_string(i), "04 10 14 ");
        e->timing.startTime = 1000 * (i + 1);
        batch.push_back(e);
    }
    events->AddEvents(batch);
    events->SetFilter("type == 4");
    events->CatchUpNow();
    events->EventView()->setFocus();
    ASSERT_EQ(w.Dock()->FocusedView(), events);
    SetPrintPreviewHook([&](QPrintPreviewDialog* dialog) {
        dialog->printer()->setOutputFileName(PdfPath());
        emit dialog->paintRequested(dialog->printer());
    });
    w.actionBtns(w.Action("actionPrintFreview"));
    ASSERT_TRUE(QFile::exists(PdfPath()));
    QProcess p;
    p.start(pdftotext, {QStringLiteral("-layout"), PdfPath(), QStringLiteral("-")});
    ASSERT_TRUE(p.waitForFinished(10000));
    const QString text = QString::fromUtf8(p.readAllStandardOutput());
    const QString name = QFileInfo(QString::fromStdString(events->Model().SidPath())).fileName();
    const int pages = text.count(QChar('\f')) + (text.endsWith('\f') ? 0 : 1);
    ASSERT_GE(pages, 2) << text.toStdString();
    EXPECT_TRUE(text.contains(name)) << text.toStdString();
    EXPECT_TRUE(text.contains(QString("Page 1 of %1").arg(pages)));
    EXPECT_TRUE(text.contains(QString("Page %1 of %1").arg(pages)));
    EXPECT_TRUE(text.contains(QRegularExpression("No\\.\\s+Time \\(ms\\)\\s+\\S+ \\(ms\\)\\s+Dir\\s+Event")))
        << text.left(400).toStdString();
    // The first shown event: number 2 (the Start marker is 1) at 1 ms; the
    // next shown one 2 ms later; the control errors are filtered out.
    EXPECT_TRUE(text.contains(QRegularExpression("\\b2\\s+1\\.000\\s+rx\\s+Rx ReceivedPower 0\\b"))) << text.left(600).toStdString();
    EXPECT_TRUE(text.contains(QRegularExpression("\\b4\\s+3\\.000\\s+2\\.000\\s+rx\\s+Rx ReceivedPower 2\\b")));
    EXPECT_TRUE(text.contains("ReceivedPower 198"));
    EXPECT_FALSE(text.contains("ControlError"));
}
