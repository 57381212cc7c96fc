// coilscope: the desktop application. Sets Qt up the way the program needs it
// (plug-ins found beside the program wherever it is started from, the
// application font), installs the crash handler and runs the main window.
#include "services/CrashHandler.h"
#include "services/Startup.h"
#include "views/MainWindow.h"

#include <QAction>
#include <QApplication>
#include <QFont>
#include <QScreen>
#include <QTimer>

#include <QSocketNotifier>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {

// SIGTERM and SIGINT close the window as its close box does (the capture is
// stopped, the device disconnected, the settings saved): the handler only
// writes a byte, which the event loop reads.
int g_signalPipe[2] = {-1, -1};

void OnTerminate(int)
{
    const char byte = 1;
    (void)!::write(g_signalPipe[1], &byte, 1);
}

}  // namespace

int main(int argc, char* argv[])
{
    // Qt's plug-ins beside the program, before the application object exists.
    AddPluginFoldersBeside(argc > 0 ? argv[0] : nullptr);

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Coilscope"));
    QFont font(QStringLiteral("Arial Unicode"), 10, 50);
    QApplication::setFont(font);
    InstallCrashHandler();

    int result = 0;
    {
        MainWindow window;
        // Shown maximised; without a window manager (a bare X server) the
        // maximised state means nothing, so the window takes the screen's
        // free area itself.
        if (QScreen* screen = QGuiApplication::primaryScreen())
            window.setGeometry(screen->availableGeometry());
        window.show();
        if (::pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) == 0) {
            auto* notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, &window);
            QObject::connect(notifier, &QSocketNotifier::activated, &window, [&window] {
                char byte;
                while (::read(g_signalPipe[0], &byte, 1) == 1) {
                }
                window.close();
            });
            struct sigaction action {};
            action.sa_handler = OnTerminate;
            sigemptyset(&action.sa_mask);
            sigaction(SIGTERM, &action, nullptr);
            sigaction(SIGINT, &action, nullptr);
        }
        // The demo: a newcomer sees a live session without knowing the device.
        const char* demo = std::getenv("COILSCOPE_DEMO");
        if (demo && std::strcmp(demo, "1") == 0)
            QTimer::singleShot(500, &window, [&window] { window.actionBtns(window.Action("actionConnect")); });
        result = app.exec();
    }
    return result;
}
