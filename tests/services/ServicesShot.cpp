// The configuration dialog and the update window as a user sees them, saved
// as PNG files to look at: the dialog with its editors (one spin box open),
// the update window after a check against a loopback server that announces a
// newer build. Run under a real X server (README, developer section).
#include "LoopbackHttpServer.h"
#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/CoilscopeUpdater.h"
#include "services/QAppConfig.h"
#include "views/PropertyTree.h"

#include <QApplication>
#include <QStandardItem>
#include <QTemporaryDir>
#include <QTreeView>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: services_shot CONFIG.png UPDATER.png\n");
        return 2;
    }
    QTemporaryDir home;
    const QByteArray base = home.path().toLocal8Bit();
    setenv("XDG_DATA_HOME", (base + "/data").constData(), 1);
    setenv("XDG_CONFIG_HOME", (base + "/config").constData(), 1);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Coilscope"));
    SetUserMessageRecorder([](const UserMessage& m) {
        std::printf("box \"%s\": %s\n", m.title.toUtf8().constData(), m.text.toUtf8().constData());
    });

    QAppConfig config;
    config.move(40, 40);
    config.show();
    QTreeView* view = config.Tree()->View();
    const QModelIndex dac = config.Tree()->ValueItem("ASK", "DAC Value")->index();
    view->setCurrentIndex(dac);
    view->edit(dac);

    LoopbackHttpServer server;
    if (!server.Start())
        return 1;
    HttpAnswer answer;
    answer.body = "{\"version\": 20230612, \"setup\": \"" + server.Base().toUtf8() +
                  "/Coilscope-1.2.1.run\", \"desc\": \"Faster event tree; FSK second reader.\"}";
    server.Serve("/version_setup.txt", answer);
    CoilscopeUpdater updater(server.Base());
    updater.move(480, 40);
    updater.show();
    if (!WaitUntil([&] { return !updater.Entries().empty(); }, 20000))
        return 1;
    WaitUntil([] { return false; }, 500);
    const bool ok = config.grab().save(QString::fromLocal8Bit(argv[1])) &&
                    updater.grab().save(QString::fromLocal8Bit(argv[2]));
    return ok ? 0 : 1;
}
