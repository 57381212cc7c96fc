// Test entry point: points the data and config folders at a fresh temporary
// folder before anything opens the application log or the settings.
#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cstdlib>

int main(int argc, char** argv)
{
    QTemporaryDir home;
    home.setAutoRemove(true);
    const QByteArray base = home.path().toLocal8Bit();
    setenv("XDG_DATA_HOME", (base + "/data").constData(), 1);
    setenv("XDG_CONFIG_HOME", (base + "/config").constData(), 1);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
