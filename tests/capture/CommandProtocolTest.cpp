// The sniffer's command protocol: command bytes, reply parsing, the device
// record, and a command on the wire through a real pseudo-terminal.
#include "capture/CommandProtocol.h"
#include "capture/QSerialThread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

using namespace SnifferCommand;

namespace {

std::vector<uint8_t> Text(const char* code, const std::string& text, bool terminate = true)
{
    std::vector<uint8_t> b(code, code + std::strlen(code));
    b.insert(b.end(), text.begin(), text.end());
    if (terminate)
        b.push_back(0x00);
    return b;
}

std::vector<uint8_t> Cmd(uint8_t code, const std::string& text)
{
    std::vector<uint8_t> b{code};
    b.insert(b.end(), text.begin(), text.end());
    b.push_back(0x00);
    return b;
}

PortReply Port(const std::vector<uint8_t>& b)
{
    return ParsePortReply(b.data(), static_cast<int>(b.size()));
}

// The far end of a pseudo-terminal, read without waiting longer than asked.
class FarEnd {
public:
    FarEnd()
    {
        m_master = ::posix_openpt(O_RDWR | O_NOCTTY);
        char name[128] = {};
        if (m_master >= 0 && ::grantpt(m_master) == 0 && ::unlockpt(m_master) == 0 &&
            ::ptsname_r(m_master, name, sizeof name) == 0) {
            ::fcntl(m_master, F_SETFL, ::fcntl(m_master, F_GETFL) | O_NONBLOCK);
            m_slave = name;
        }
    }
    ~FarEnd()
    {
        if (m_master >= 0)
            ::close(m_master);
    }
    bool Ok() const { return m_master >= 0 && !m_slave.empty(); }
    const std::string& SlavePath() const { return m_slave; }
    std::vector<uint8_t> Read(size_t want, int timeoutMs)
    {
        std::vector<uint8_t> got;
        const auto t0 = std::chrono::steady_clock::now();
        uint8_t buf[256];
        while (got.size() < want && std::chrono::steady_clock::now() - t0 < std::chrono::milliseconds(timeoutMs)) {
            const ssize_t r = ::read(m_master, buf, sizeof buf);
            if (r > 0) {
                got.insert(got.end(), buf, buf + r);
                continue;
            }
            pollfd p{m_master, POLLIN, 0};
            ::poll(&p, 1, 5);
        }
        return got;
    }
    void Write(const std::vector<uint8_t>& b) { ASSERT_EQ(::write(m_master, b.data(), b.size()), static_cast<ssize_t>(b.size())); }

private:
    int m_master = -1;
    std::string m_slave;
};

DeviceRecordFields SampleFields()
{
    DeviceRecordFields f;
    f.firmwareBuildDate = "2023.05.20";
    f.bootLoaderVersion = "BL 1.2";
    f.firewareVersion = "FW 3.4.5";
    f.hardwareVersion = "HW C";
    for (size_t i = 0; i < f.deviceNumber.size(); ++i)
        f.deviceNumber[i] = static_cast<uint8_t>(0xA0 + i);
    f.deviceType = "QiSniffer";
    f.softwareVersion = "SW 2024.1";
    return f;
}

}  // namespace

// ---- Commands ----

TEST(CommandProtocol, PlainCommandsAreTheCodeAndATerminator)
{
    EXPECT_EQ(BuildDisconnectCommand(), (CommandBytes{0x03, 0x00}));
    EXPECT_EQ(BuildStartCommand(), (CommandBytes{0x05, 0x00}));
    EXPECT_EQ(BuildStopCommand(), (CommandBytes{0x07, 0x00}));
    EXPECT_EQ(BuildPortQueryCommand(), (CommandBytes{0x09, 0x00}));
    EXPECT_EQ(BuildDeviceRecordCommand(), (CommandBytes{0x26, 0x00}));
}

TEST(CommandProtocol, DacValue1700IsSentAs29pAYAAA00)
{
    const CommandBytes cmd = BuildSetDacCommand(1700);
    EXPECT_EQ(cmd, Cmd(0x29, "pAYAAA=="));
    EXPECT_EQ(cmd.size(), 10u);
}

TEST(CommandProtocol, DacValueIsASignedLittleEndianWord)
{
    EXPECT_EQ(BuildSetDacCommand(2400), Cmd(0x29, "YAkAAA=="));
    EXPECT_EQ(BuildSetDacCommand(-1), Cmd(0x29, "/////w=="));
    for (int32_t v : {0, 1500, 1700, 2400, -1, INT32_MIN, INT32_MAX}) {
        const CommandBytes cmd = BuildSetDacCommand(v);
        EXPECT_EQ(cmd.size(), 10u);
        int32_t back = 12345;
        ASSERT_TRUE(DecodeSetDacCommand(cmd.data(), static_cast<int>(cmd.size()), back));
        EXPECT_EQ(back, v);
    }
    const CommandBytes other = BuildStartCommand();
    int32_t back = 0;
    EXPECT_FALSE(DecodeSetDacCommand(other.data(), static_cast<int>(other.size()), back));
}

TEST(CommandProtocol, DacValue1700ArrivesOnTheWireAfterSend)
{
    FarEnd far;
    ASSERT_TRUE(far.Ok());
    QSerialThread port;
    ASSERT_TRUE(port.OpenPort(far.SlavePath(), 1024000, 1, true));
    const CommandBytes cmd = BuildSetDacCommand(1700);
    EXPECT_EQ(port.Send(cmd.data(), static_cast<int>(cmd.size()), 0), 10);
    const std::vector<uint8_t> wire = far.Read(10, 10000);
    EXPECT_EQ(wire, (std::vector<uint8_t>{0x29, 'p', 'A', 'Y', 'A', 'A', 'A', '=', '=', 0x00}));
    port.ClosePort();
}

TEST(CommandProtocol, FirmwareQueryCarriesTheThreeImageWords)
{
    const CommandBytes cmd = BuildFirmwareQueryCommand();
    EXPECT_EQ(cmd, Cmd(0x24, "AAACCPhwAADzEC9a"));
    EXPECT_EQ(cmd.size(), 18u);
    std::vector<uint8_t> payload;
    ASSERT_TRUE(DecodeBase64Command(cmd.data(), static_cast<int>(cmd.size()), kFirmwareQuery, payload));
    EXPECT_EQ(payload, (std::vector<uint8_t>{0x00, 0x00, 0x02, 0x08, 0xF8, 0x70, 0x00, 0x00, 0xF3, 0x10, 0x2F, 0x5A}));
}

// ---- Port query ----

TEST(CommandProtocol, PortQueryRepliesNameThePort)
{
    EXPECT_EQ(Port({0x09, 0x10, 0x00}).kind, PortKind::Ask);
    EXPECT_EQ(Port({0x09, 0x12, 0x00}).kind, PortKind::Fsk);
    EXPECT_EQ(Port({0x09, 0x13, 0x00}).kind, PortKind::Boot);
    EXPECT_EQ(Port({0x09, 0x11, '5', 0x00}).kind, PortKind::Command);
    EXPECT_EQ(Port({0x09, 0x14, 0x00}).kind, PortKind::None);
    EXPECT_EQ(Port({0x05, 0x10, 0x00}).kind, PortKind::None);
    EXPECT_EQ(Port({0x09}).kind, PortKind::None);
    EXPECT_EQ(Port({}).kind, PortKind::None);
    EXPECT_FALSE(Port({0x09, 0x10, '9', '9', '9', 0x00}).firmwareHeaders);
}

TEST(CommandProtocol, CommandPortWithFirmware901SetsTheHeaderFlag)
{
    const PortReply r = Port({0x09, 0x11, '9', '0', '1', 0x00});
    EXPECT_EQ(r.kind, PortKind::Command);
    EXPECT_TRUE(r.hasFirmwareNumber);
    EXPECT_EQ(r.firmwareNumber, 901);
    EXPECT_TRUE(r.firmwareHeaders);
}

TEST(CommandProtocol, CommandPortWithFirmware900LeavesTheHeaderFlagClear)
{
    const PortReply r = Port({0x09, 0x11, '9', '0', '0', 0x00});
    EXPECT_EQ(r.kind, PortKind::Command);
    EXPECT_TRUE(r.hasFirmwareNumber);
    EXPECT_EQ(r.firmwareNumber, 900);
    EXPECT_FALSE(r.firmwareHeaders);
}

TEST(CommandProtocol, BareCommandPortReplyGivesNoFirmwareNumber)
{
    const PortReply r = Port({0x09, 0x11, 0x00});
    EXPECT_EQ(r.kind, PortKind::Command);
    EXPECT_FALSE(r.hasFirmwareNumber);
    EXPECT_EQ(r.firmwareNumber, 0);
    EXPECT_FALSE(r.firmwareHeaders);
    const PortReply two = Port({0x09, 0x11});
    EXPECT_EQ(two.kind, PortKind::Command);
    EXPECT_FALSE(two.hasFirmwareNumber);
    EXPECT_FALSE(two.firmwareHeaders);
}

TEST(CommandProtocol, FirmwareNumberIsReadLikeAtoi)
{
    EXPECT_EQ(Port({0x09, 0x11, '1', '2', '0', '0', 'b', 0x00}).firmwareNumber, 1200);
    EXPECT_TRUE(Port({0x09, 0x11, ' ', '9', '5', '0', 0x00}).firmwareHeaders);
    EXPECT_EQ(Port({0x09, 0x11, 'x', '9', '5', '0', 0x00}).firmwareNumber, 0);
    // Text without a terminator is read up to the reply's end, never beyond.
    EXPECT_EQ(Port({0x09, 0x11, '9', '1', '0'}).firmwareNumber, 910);
}

TEST(CommandProtocol, PortReplyBuiltForTheDeviceParsesBack)
{
    const CommandBytes b = BuildPortReply(kPortCommand, "1023");
    EXPECT_EQ(b, (CommandBytes{0x09, 0x11, '1', '0', '2', '3', 0x00}));
    const PortReply r = Port(b);
    EXPECT_EQ(r.firmwareNumber, 1023);
    EXPECT_TRUE(r.firmwareHeaders);
    EXPECT_EQ(BuildPortReply(kPortAsk), (CommandBytes{0x09, 0x10, 0x00}));
}

TEST(CommandProtocol, PortRepliesOnTheWireAreFramedByTheAssembler)
{
    FarEnd far;
    ASSERT_TRUE(far.Ok());
    QSerialThread port;
    ASSERT_TRUE(port.OpenPort(far.SlavePath(), 1024000, 1, true));
    const CommandBytes query = BuildPortQueryCommand();
    ASSERT_EQ(port.Send(query.data(), 2, 0), 2);
    EXPECT_EQ(far.Read(2, 10000), (std::vector<uint8_t>{0x09, 0x00}));
    far.Write(BuildPortReply(kPortCommand, "901"));
    std::list<DataPtr> replies;
    // Each wait returns on the first reply or at 300 ms; a loaded machine may
    // take longer to bring it.
    const auto t0 = std::chrono::steady_clock::now();
    while (replies.empty() && std::chrono::steady_clock::now() - t0 < std::chrono::seconds(10))
        port.WaitReplies(replies, 0, 300);
    ASSERT_EQ(replies.size(), 1u);
    const PortReply r = ParsePortReply(*replies.front());
    EXPECT_EQ(r.kind, PortKind::Command);
    EXPECT_TRUE(r.firmwareHeaders);
    port.ClosePort();
}

// ---- Start confirmation ----

TEST(CommandProtocol, StartIsConfirmedByAReplyStartingWith05)
{
    std::list<DataPtr> replies;
    EXPECT_FALSE(StartConfirmed(replies));
    const uint8_t other[] = {0x07, 0x00};
    replies.push_back(Data::FromBytes(other, 2));
    EXPECT_FALSE(StartConfirmed(replies));
    const uint8_t ok[] = {0x05, 0x00};
    replies.push_back(Data::FromBytes(ok, 2));
    EXPECT_TRUE(StartConfirmed(replies));
    EXPECT_FALSE(ReplyStartsWith(nullptr, 0, 0x05));
}

// ---- Device record ----

TEST(CommandProtocol, DeviceRecordLayoutRoundTrip)
{
    uint8_t record[kDeviceRecordSize];
    std::memset(record, 0xEE, sizeof record);
    WriteDeviceRecord(SampleFields(), record);
    const CommandBytes reply = BuildDeviceRecordReply(record, kDeviceRecordSize);
    EXPECT_EQ(reply[0], 0x26);
    EXPECT_EQ(reply[1], 0x20);
    EXPECT_EQ(reply.back(), 0x00);

    uint8_t received[kDeviceRecordSize] = {};
    EXPECT_EQ(DecodeDeviceRecordReply(reply.data(), static_cast<int>(reply.size()), received, kDeviceRecordSize),
              kDeviceRecordSize);
    EXPECT_EQ(std::memcmp(received, record, kDeviceRecordSize), 0);

    const DeviceGroup g = DeviceGroupFromRecord(received);
    EXPECT_EQ(g.firmwareBuildDate, "2023.05.20");
    EXPECT_EQ(g.bootLoaderVersion, "BL 1.2");
    EXPECT_EQ(g.firewareVersion, "FW 3.4.5");
    EXPECT_EQ(g.hardwareVersion, "HW C");
    EXPECT_EQ(g.serialNumber, "A0 A1 A2 A3 A4 A5 A6 A7 A8 ");
    EXPECT_EQ(g.deviceType, "QiSniffer");
    EXPECT_EQ(g.softwareVersion, "SW 2024.1");
    EXPECT_TRUE(BuildDateMatchesHost(received));
}

TEST(CommandProtocol, DeviceRecordFieldsSitAtTheirOffsets)
{
    uint8_t record[kDeviceRecordSize] = {};
    std::memcpy(record + 0, "\x01\x02\x03\x04", 4);  // not interpreted
    std::memcpy(record + 4, "2022.01.02", 10);
    std::memcpy(record + 36, "boot", 4);
    std::memcpy(record + 52, "ignored", 7);
    std::memcpy(record + 68, "fw", 2);
    std::memcpy(record + 84, "hw", 2);
    const uint8_t number[16] = {0x01, 0x02, 0x03, 0x0A, 0xBC, 0xDE, 0xF0, 0x00, 0xFF, 0x77, 0x77, 0x77, 0x77, 0x77, 0x77, 0x77};
    std::memcpy(record + 100, number, 16);
    std::memcpy(record + 116, "type", 4);
    std::memcpy(record + 132, "ignored", 7);
    std::memcpy(record + 148, "software", 8);

    const DeviceGroup g = DeviceGroupFromRecord(record);
    EXPECT_EQ(g.firmwareBuildDate, "2022.01.02");
    EXPECT_EQ(g.bootLoaderVersion, "boot");
    EXPECT_EQ(g.firewareVersion, "fw");
    EXPECT_EQ(g.hardwareVersion, "hw");
    EXPECT_EQ(g.serialNumber, "01 02 03 0A BC DE F0 00 FF ");
    EXPECT_EQ(g.deviceType, "type");
    EXPECT_EQ(g.softwareVersion, "software");
    EXPECT_EQ(DeviceSerialText(record), g.serialNumber);
    EXPECT_FALSE(BuildDateMatchesHost(record));
}

TEST(CommandProtocol, TextsWithoutTerminatorStopAtTheirFieldEnd)
{
    uint8_t record[kDeviceRecordSize];
    std::memset(record, 'x', sizeof record);
    const DeviceGroup g = DeviceGroupFromRecord(record);
    EXPECT_EQ(g.firmwareBuildDate, std::string(32, 'x'));
    EXPECT_EQ(g.bootLoaderVersion, std::string(16, 'x'));
    EXPECT_EQ(g.firewareVersion, std::string(16, 'x'));
    EXPECT_EQ(g.hardwareVersion, std::string(16, 'x'));
    EXPECT_EQ(g.deviceType, std::string(16, 'x'));
    EXPECT_EQ(g.softwareVersion, std::string(kDeviceRecordSize - 148, 'x'));
    EXPECT_EQ(g.serialNumber, "78 78 78 78 78 78 78 78 78 ");
}

TEST(CommandProtocol, LongTextsAreCutToKeepTheirTerminator)
{
    DeviceRecordFields f = SampleFields();
    f.bootLoaderVersion = std::string(40, 'b');
    f.softwareVersion = std::string(2000, 's');
    uint8_t record[kDeviceRecordSize];
    WriteDeviceRecord(f, record);
    const DeviceGroup g = DeviceGroupFromRecord(record);
    EXPECT_EQ(g.bootLoaderVersion, std::string(15, 'b'));
    EXPECT_EQ(g.softwareVersion, std::string(kDeviceRecordSize - 148 - 1, 's'));
    EXPECT_EQ(g.firewareVersion, "FW 3.4.5");  // the neighbour is untouched
}

TEST(CommandProtocol, EmptyRecordGivesEmptyTextsAndZeroSerial)
{
    const uint8_t record[kDeviceRecordSize] = {};
    const DeviceGroup g = DeviceGroupFromRecord(record);
    EXPECT_EQ(g.firmwareBuildDate, "");
    EXPECT_EQ(g.softwareVersion, "");
    EXPECT_EQ(g.serialNumber, "00 00 00 00 00 00 00 00 00 ");
}

TEST(CommandProtocol, DeviceRecordReplyIsCutAt1024Bytes)
{
    std::vector<uint8_t> big(1500);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<uint8_t>(i * 7);
    const CommandBytes reply = BuildDeviceRecordReply(big.data(), static_cast<int>(big.size()));
    std::vector<uint8_t> record(kDeviceRecordSize + 16, 0xCC);  // guard bytes behind
    EXPECT_EQ(DecodeDeviceRecordReply(reply.data(), static_cast<int>(reply.size()), record.data(), kDeviceRecordSize),
              kDeviceRecordSize);
    EXPECT_EQ(std::memcmp(record.data(), big.data(), kDeviceRecordSize), 0);
    for (size_t i = kDeviceRecordSize; i < record.size(); ++i)
        EXPECT_EQ(record[i], 0xCC);
}

TEST(CommandProtocol, ShortDeviceRecordFillsOnlyItsStart)
{
    const uint8_t part[] = {1, 2, 3, 4, 5};
    const CommandBytes reply = BuildDeviceRecordReply(part, 5);
    uint8_t record[kDeviceRecordSize] = {};
    EXPECT_EQ(DecodeDeviceRecordReply(reply.data(), static_cast<int>(reply.size()), record, kDeviceRecordSize), 5);
    EXPECT_EQ(record[4], 5);
    EXPECT_EQ(record[5], 0);
}

TEST(CommandProtocol, OtherRepliesAreNoDeviceRecord)
{
    uint8_t record[kDeviceRecordSize] = {};
    const std::vector<uint8_t> noBlank = Text("&", "AQID");
    EXPECT_EQ(DecodeDeviceRecordReply(noBlank.data(), static_cast<int>(noBlank.size()), record, kDeviceRecordSize), -1);
    const std::vector<uint8_t> start = {0x05, 0x00};
    EXPECT_EQ(DecodeDeviceRecordReply(start.data(), 2, record, kDeviceRecordSize), -1);
    const std::vector<uint8_t> bare = {0x26};
    EXPECT_EQ(DecodeDeviceRecordReply(bare.data(), 1, record, kDeviceRecordSize), -1);
    const std::vector<uint8_t> empty = {0x26, 0x20, 0x00};
    EXPECT_EQ(DecodeDeviceRecordReply(empty.data(), 3, record, kDeviceRecordSize), 0);
    const Data asData = *Data::FromBytes(Text("& ", "AQID").data(), 7);
    EXPECT_EQ(DecodeDeviceRecordReply(asData, record, kDeviceRecordSize), 3);
    EXPECT_EQ(record[2], 3);
}

// ---- "$" replies ----

TEST(CommandProtocol, DollarRepliesAreAcceptedOrRejected)
{
    const std::vector<uint8_t> accepted = Text("$ ", "");
    const std::vector<uint8_t> rejected = Text("$!", "");
    const std::vector<uint8_t> other = Text("$x", "");
    EXPECT_EQ(ParseFirmwareReply(accepted.data(), static_cast<int>(accepted.size())), FirmwareAnswer::Accepted);
    EXPECT_EQ(ParseFirmwareReply(rejected.data(), static_cast<int>(rejected.size())), FirmwareAnswer::Rejected);
    EXPECT_EQ(ParseFirmwareReply(other.data(), static_cast<int>(other.size())), FirmwareAnswer::None);
    const uint8_t lone[] = {0x24};
    EXPECT_EQ(ParseFirmwareReply(lone, 1), FirmwareAnswer::None);
    const uint8_t start[] = {0x05, 0x20, 0x00};
    EXPECT_EQ(ParseFirmwareReply(start, 3), FirmwareAnswer::None);
    EXPECT_EQ(ParseFirmwareReply(*Data::FromBytes(rejected.data(), 3)), FirmwareAnswer::Rejected);
}

TEST(CommandProtocol, FirmwareIsIncompatibleWhenRejectedOrBuiltOnAnotherDate)
{
    uint8_t good[kDeviceRecordSize];
    WriteDeviceRecord(SampleFields(), good);
    DeviceRecordFields f = SampleFields();
    f.firmwareBuildDate = "2023.05.21";
    uint8_t other[kDeviceRecordSize];
    WriteDeviceRecord(f, other);
    const uint8_t empty[kDeviceRecordSize] = {};

    const std::vector<uint8_t> accepted = Text("$ ", "");
    const std::vector<uint8_t> rejected = Text("$!", "");
    const int na = static_cast<int>(accepted.size());
    const int nr = static_cast<int>(rejected.size());
    EXPECT_FALSE(FirmwareIncompatible(accepted.data(), na, good));
    EXPECT_TRUE(FirmwareIncompatible(accepted.data(), na, other));
    EXPECT_TRUE(FirmwareIncompatible(accepted.data(), na, empty));
    EXPECT_TRUE(FirmwareIncompatible(rejected.data(), nr, good));
    const uint8_t unrelated[] = {0x07, 0x00};
    EXPECT_FALSE(FirmwareIncompatible(unrelated, 2, other));

    EXPECT_STREQ(kHostFirmwareBuildDate, "2023.05.20");
    EXPECT_STREQ(kFirmwareErrorTitle, "Error");
    EXPECT_STREQ(kFirmwareErrorText, "Fireware is incompatible, Please UpdateFireware under sniffer menu.");
}
