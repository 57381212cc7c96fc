// One program start as far as the update check goes: loads the settings,
// makes the update window against the server given on the command line, waits
// for the check to end and prints what the user would have seen: each message
// box as "box <title>: <text>" and then the window's text as "text: ...".
// The tests run it twice to see the settings file carry the announced
// version from one start to the next.
#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/CoilscopeUpdater.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTextBrowser>
#include <QThread>

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: update_check_once SERVER\n");
        return 2;
    }
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Coilscope"));
    SetUserMessageRecorder([](const UserMessage& m) {
        std::printf("box %s: %s\n", m.title.toUtf8().constData(), m.text.toUtf8().constData());
    });
    AppSettings::Instance();
    bool finished = false;
    CoilscopeUpdater updater(QString::fromLocal8Bit(argv[1]));
    QObject::connect(&updater.Download(), &HttpDownload::taskFinished, [&finished] { finished = true; });
    QElapsedTimer clock;
    clock.start();
    while (!finished && clock.elapsed() < 30000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(2);
    }
    std::printf("text: %s\n", updater.TextBrowser()->toPlainText().replace('\n', '|').toUtf8().constData());
    // The orderly end saves the settings, as the main window's end does.
    AppSettings::Instance().save();
    return finished ? 0 : 1;
}
