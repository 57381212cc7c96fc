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

#include <cstdlib>
#include <cstring>

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
        // The demo: a newcomer sees a live session without knowing the device.
        const char* demo = std::getenv("COILSCOPE_DEMO");
        if (demo && std::strcmp(demo, "1") == 0)
            QTimer::singleShot(500, &window, [&window] { window.actionBtns(window.Action("actionConnect")); });
        result = app.exec();
    }
    return result;
}
