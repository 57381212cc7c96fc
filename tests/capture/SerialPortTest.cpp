// SerialPort on real pseudo-terminals: the test holds the master side (the far
// end, where the device would be) and the port opens the slave by its path.
#include "PtyPair.h"
#include "capture/SerialPort.h"

#include <gtest/gtest.h>

#include <QTemporaryFile>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;



// Waits until the port reports at least n readable bytes (the terminal layer
// hands bytes over asynchronously).
bool WaitAvailable(SerialPort& port, int n, int timeoutMs = 10000)
{
    const auto t0 = Clock::now();
    while (MsSince(t0) < timeoutMs) {
        if (port.BytesAvailable() >= n)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

}  // namespace

TEST(SerialPort, OpenOfMissingPathReturnsZero)
{
    SerialPort port;
    EXPECT_EQ(port.Open("/dev/coilscope-no-such-port-77", 1024000, true), 0);
    EXPECT_FALSE(port.IsOpen());
}

TEST(SerialPort, OpenOfSomethingThatIsNoTerminalReturnsZero)
{
    QTemporaryFile file;
    ASSERT_TRUE(file.open());
    SerialPort port;
    EXPECT_EQ(port.Open(file.fileName().toStdString(), 1024000, true), 0);
    EXPECT_FALSE(port.IsOpen());
    EXPECT_EQ(port.Open("/dev/null", 1024000, true), 0);
    EXPECT_FALSE(port.IsOpen());
}

TEST(SerialPort, PseudoTerminalOpensAtTheStreamRateWithOrWithoutFlowControl)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    SerialPort port;
    EXPECT_EQ(port.Open(pty.SlavePath(), 1024000, true), 1);
    EXPECT_TRUE(port.IsOpen());
    port.Close();
    EXPECT_FALSE(port.IsOpen());
    EXPECT_EQ(port.Open(pty.SlavePath(), 1024000, false), 1);
    EXPECT_TRUE(port.IsOpen());
    // Open on an open port closes it first and opens again.
    EXPECT_EQ(port.Open(pty.SlavePath(), 1024000, true), 1);
    EXPECT_TRUE(port.IsOpen());
}

TEST(SerialPort, OpenSetsRawEightNoneOneWithHandshake)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    // A second descriptor on the same terminal, taken before the port claims it,
    // shows the settings the port made.
    const int probe = ::open(pty.SlavePath().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(probe, 0);
    SerialPort port;
    ASSERT_EQ(port.Open(pty.SlavePath(), 1024000, true), 1);
    termios tio{};
    ASSERT_EQ(::tcgetattr(probe, &tio), 0);
    EXPECT_EQ(tio.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(tio.c_cflag & PARENB, 0u);
    EXPECT_EQ(tio.c_cflag & CSTOPB, 0u);
    EXPECT_NE(tio.c_cflag & CRTSCTS, 0u);
    EXPECT_NE(tio.c_cflag & CREAD, 0u);
    EXPECT_EQ(tio.c_lflag & (ICANON | ECHO | ISIG), 0u);
    EXPECT_EQ(tio.c_iflag & (IXON | IXOFF | ICRNL), 0u);
    EXPECT_EQ(tio.c_oflag & OPOST, 0u);
    EXPECT_EQ(tio.c_cc[VMIN], 0);
    EXPECT_EQ(tio.c_cc[VTIME], 0);
    port.Close();

    ASSERT_EQ(port.Open(pty.SlavePath(), 1024000, false), 1);
    ASSERT_EQ(::tcgetattr(probe, &tio), 0);
    EXPECT_EQ(tio.c_cflag & CRTSCTS, 0u);
    port.Close();
    ::close(probe);
}

TEST(SerialPort, EveryByteValuePassesUntouchedBothWays)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    SerialPort port;
    ASSERT_EQ(port.Open(pty.SlavePath(), 1024000, true), 1);

    std::vector<uint8_t> all(256);
    for (int i = 0; i < 256; ++i)
        all[static_cast<size_t>(i)] = static_cast<uint8_t>(i);
    pty.WriteFar(all);
    ASSERT_TRUE(WaitAvailable(port, 256));
    EXPECT_EQ(port.BytesAvailable(), 256);
    std::vector<uint8_t> in(256);
    EXPECT_EQ(port.Read(in.data(), 256), 256);
    EXPECT_EQ(in, all);

    EXPECT_EQ(port.Write(all.data(), 256), 256);
    EXPECT_EQ(pty.ReadFar(256, 10000), all);
}

TEST(SerialPort, OpenPurgesWhatWaitedInTheInputQueue)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    SerialPort port;
    ASSERT_EQ(port.Open(pty.SlavePath(), 1024000, true), 1);
    pty.WriteFar({'o', 'l', 'd'});
    ASSERT_TRUE(WaitAvailable(port, 3));
    port.Close();
    ASSERT_EQ(port.Open(pty.SlavePath(), 1024000, true), 1);
    EXPECT_EQ(port.BytesAvailable(), 0);
    pty.WriteFar({'n', 'e', 'w'});
    ASSERT_TRUE(WaitAvailable(port, 3));
    uint8_t in[8] = {};
    EXPECT_EQ(port.Read(in, 3), 3);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(in), 3), "new");
}

TEST(SerialPort, ReadWaitsAtMostFiftyMillisecondsForMissingBytes)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    SerialPort port;
    ASSERT_EQ(port.Open(pty.SlavePath(), 1024000, true), 1);

    // Each read waits its time and not much longer: a try that a loaded
    // machine held up past the bound is made again.
    const int64_t empty = FastestOf(5, 250, [&] {
        uint8_t in[16] = {};
        const auto t0 = Clock::now();
        EXPECT_EQ(port.Read(in, 16), 0);
        const int64_t ms = MsSince(t0);
        EXPECT_GE(ms, 45);
        return ms;
    });
    EXPECT_LE(empty, 250);

    const int64_t partial = FastestOf(5, 250, [&] {
        pty.WriteFar({1, 2, 3});
        EXPECT_TRUE(WaitAvailable(port, 3));
        uint8_t in[16] = {};
        const auto t0 = Clock::now();
        EXPECT_EQ(port.Read(in, 16), 3);
        const int64_t ms = MsSince(t0);
        EXPECT_GE(ms, 45);
        EXPECT_EQ(in[0], 1);
        EXPECT_EQ(in[2], 3);
        return ms;
    });
    EXPECT_LE(partial, 250);
}

TEST(SerialPort, ReadReturnsAtOnceWhenAllBytesAreThere)
{
    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    SerialPort port;
    ASSERT_EQ(port.Open(pty.SlavePath(), 1024000, true), 1);
    // A try that a loaded machine held up past the bound is made again.
    const int64_t fastest = FastestOf(5, 39, [&] {
        pty.WriteFar({9, 8, 7, 6});
        EXPECT_TRUE(WaitAvailable(port, 4));
        uint8_t in[4] = {};
        const auto t0 = Clock::now();
        EXPECT_EQ(port.Read(in, 4), 4);
        const int64_t ms = MsSince(t0);
        EXPECT_EQ(port.BytesAvailable(), 0);
        return ms;
    });
    EXPECT_LT(fastest, 40);
}

TEST(SerialPort, WriteIntoAFullLineReturnsWithinItsTimeout)
{
    // Nobody reads the far end: the terminal's buffers fill and the write
    // gives up after its time-out with what went out. A try that a loaded
    // machine held up past the bound is made again, on a fresh terminal.
    std::vector<uint8_t> big(4 * 1024 * 1024, 0x55);
    const int64_t fastest = FastestOf(5, 500, [&]() -> int64_t {
        PtyPair pty;
        EXPECT_TRUE(pty.Ok());
        SerialPort port;
        EXPECT_EQ(port.Open(pty.SlavePath(), 1024000, true), 1);
        const auto t0 = Clock::now();
        const int put = port.Write(big.data(), static_cast<int>(big.size()));
        const int64_t ms = MsSince(t0);
        EXPECT_LT(put, static_cast<int>(big.size()));
        return ms;
    });
    EXPECT_LE(fastest, 500);
}

TEST(SerialPort, ClosedPortReadsWritesAndCountsNothing)
{
    SerialPort port;
    uint8_t b[4] = {1, 2, 3, 4};
    EXPECT_EQ(port.BytesAvailable(), 0);
    EXPECT_EQ(port.Read(b, 4), 0);
    EXPECT_EQ(port.Write(b, 4), 0);
    port.Close();  // closing twice is harmless
    EXPECT_FALSE(port.IsOpen());

    PtyPair pty;
    ASSERT_TRUE(pty.Ok());
    ASSERT_EQ(port.Open(pty.SlavePath(), 1024000, true), 1);
    port.Close();
    EXPECT_EQ(port.BytesAvailable(), 0);
    EXPECT_EQ(port.Read(b, 4), 0);
    EXPECT_EQ(port.Write(b, 4), 0);
}

TEST(SerialPort, FarSideGoneGivesZeroEverywhereAndNeverBlocks)
{
    // A try that a loaded machine held up past the bound is made again, on a
    // fresh terminal.
    const int64_t fastest = FastestOf(5, 250, []() -> int64_t {
        PtyPair pty;
        EXPECT_TRUE(pty.Ok());
        SerialPort port;
        EXPECT_EQ(port.Open(pty.SlavePath(), 1024000, true), 1);
        pty.CloseFar();

        uint8_t b[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        const auto t0 = Clock::now();
        EXPECT_EQ(port.BytesAvailable(), 0);
        EXPECT_EQ(port.Read(b, 8), 0);
        EXPECT_EQ(port.Write(b, 8), 0);
        const int64_t ms = MsSince(t0);
        EXPECT_TRUE(port.IsOpen());
        port.Close();
        EXPECT_FALSE(port.IsOpen());
        return ms;
    });
    EXPECT_LE(fastest, 250);
}
