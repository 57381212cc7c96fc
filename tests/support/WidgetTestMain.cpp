// Entry point of the widget tests: the real Qt widgets on the offscreen
// platform (no display needed), with the data and config folders pointed at a
// fresh temporary folder.
#include <gtest/gtest.h>

#include <QApplication>
#include <QTemporaryDir>

#include <cstdlib>

int main(int argc, char** argv)
{
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QTemporaryDir home;
    home.setAutoRemove(true);
    const QByteArray base = home.path().toLocal8Bit();
    setenv("XDG_DATA_HOME", (base + "/data").constData(), 1);
    setenv("XDG_CONFIG_HOME", (base + "/config").constData(), 1);
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
