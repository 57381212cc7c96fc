#include "services/Startup.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QStringList>
#include <QTextCodec>

void AddPluginFoldersBeside(const char* argv0)
{
    const QString program = QTextCodec::codecForLocale()->toUnicode(argv0 ? argv0 : "");
    // An absolute folder: the working directory may change later.
    const QString folder = QFileInfo(program).absolutePath();
    QStringList paths = QCoreApplication::libraryPaths();
    for (const char* sub : {"/plugins/iconengines", "/plugins/imageformats", "/plugins/platforms", "/plugins/plugins",
                            "/plugins/printsupport", "/plugins/translations", "/plugins"})
        paths.append(folder + QLatin1String(sub));
    QCoreApplication::setLibraryPaths(paths);
}
