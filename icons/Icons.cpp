#include "icons/Icons.h"

#include <QImageReader>

static void InitIconsResource()
{
    Q_INIT_RESOURCE(icons);
}

void InitIcons()
{
    static const bool done = [] {
        InitIconsResource();
        return true;
    }();
    (void)done;
}

QIcon IconAt(const QString& key)
{
    InitIcons();
    // The keys end in ".ico" but hold SVG: read them by content.
    // Drawn at the sizes tool bars, tabs and trees ask for.
    QIcon icon;
    for (int size : {16, 24, 32, 48}) {
        QImageReader reader(key);
        reader.setDecideFormatFromContent(true);
        reader.setScaledSize(QSize(size, size));
        const QImage image = reader.read();
        if (!image.isNull())
            icon.addPixmap(QPixmap::fromImage(image));
    }
    return icon;
}
