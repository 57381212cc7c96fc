// The sniffer device on three pseudo-terminals: a command port, an ASK data
// port and an FSK data port, made visible as links DIR/ttyACM<n> with three
// distinct random numbers, in an order that changes from seed to seed. It
// answers the device's command protocol on whichever port is asked and, from
// the start command to the stop or disconnect command, streams a session
// script on the two data ports, one 5 ms frame of each per 5 ms of stream
// time. One worker thread does all of it; Start and Stop run it.
#pragma once

#include "sim/StreamSynth.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace coilsim {

class PseudoTerminal;

struct EmulatorOptions {
    std::string dir;             // folder of the links; empty: a new folder under /tmp
    double speed = 1.0;          // stream time runs this many times faster than wall time
    bool haveSeed = false;       // without a seed one is drawn from the clock
    uint32_t seed = 0;
    bool noise = false;          // 2 % envelope noise, 1 sample edge jitter, 1 tick FSK noise
    int firmware = 901;          // firmware number in the command port's answer
    bool bootMode = false;       // every port answers the port query with "boot mode"
    bool rejectFirmware = false; // the firmware query is answered "$!"
    std::string buildDate = "2023.05.20";
    std::string scriptFile;      // empty: the built-in session
    std::string scriptText;      // used when scriptFile is empty and this isn't
    std::string breach;          // a timing breach of the built-in session (SessionScript.h)
    std::string recordAsk;       // raw capture files of the streams as sent; both or neither
    std::string recordFsk;
    // A text file that gets one line per command taken: the port's role and the
    // command's bytes in hex ("command 05"); empty: none.
    std::string commandLog;
    // The start command starts the streams but gets no reply, as when the
    // device's confirmation is lost: the host is left not acquiring.
    bool silentStart = false;
    // Stream bytes that may wait per data port while the host doesn't read,
    // as in the host's driver behind a real device; beyond it frames are dropped.
    size_t frameQueueBytes = 256 * 1024;
};

enum class PortRole { Command = 0, Ask = 1, Fsk = 2 };
constexpr int kPortCount = 3;
const char* RoleName(PortRole role);  // "command", "ask", "fsk"

struct EmulatorCounters {
    uint64_t askFramesSent = 0;     // gone out to the terminal, or queued and on their way
    uint64_t fskFramesSent = 0;
    uint64_t askFramesDropped = 0;  // the host didn't read fast enough, or queued at a stop
    uint64_t fskFramesDropped = 0;
    uint64_t askFramesDroppedAtStop = 0;  // of those, the ones still queued at a stop
    uint64_t fskFramesDroppedAtStop = 0;  // (the end of the stream; what went out is whole)
    uint64_t commands = 0;          // commands taken, on any port
    uint64_t unknownCommands = 0;   // commands with a code the device doesn't know, or malformed
    uint64_t replies = 0;
    uint64_t streamStarts = 0;
};

// Command codes and reply bytes of the device protocol.
namespace DeviceCode {
constexpr uint8_t kDisconnect = 0x03;
constexpr uint8_t kStart = 0x05;
constexpr uint8_t kStop = 0x07;
constexpr uint8_t kPortQuery = 0x09;
constexpr uint8_t kFirmwareQuery = 0x24;  // '$'
constexpr uint8_t kDeviceRecord = 0x26;   // '&'
constexpr uint8_t kSetDac = 0x29;         // ')'
constexpr uint8_t kAskPort = 0x10;
constexpr uint8_t kCommandPort = 0x11;
constexpr uint8_t kFskPort = 0x12;
constexpr uint8_t kBootMode = 0x13;
constexpr uint8_t kAccepted = 0x20;       // ' '
constexpr uint8_t kRejected = 0x21;       // '!'
constexpr uint8_t kEnd = 0x00;
}  // namespace DeviceCode

constexpr int kDeviceRecordBytes = 1024;

// The device record the emulator reports (before base64).
std::vector<uint8_t> BuildDeviceRecord(const EmulatorOptions& options);

// The reply to one command (its bytes without the ending 0x00) on a port of
// the given role; empty when the command has no reply.
std::vector<uint8_t> ReplyTo(const std::vector<uint8_t>& command, PortRole role, const EmulatorOptions& options);

class DeviceEmulator {
public:
    explicit DeviceEmulator(EmulatorOptions options);
    ~DeviceEmulator();
    DeviceEmulator(const DeviceEmulator&) = delete;
    DeviceEmulator& operator=(const DeviceEmulator&) = delete;

    // Creates the folder (if needed), the three ports and their links, the
    // record files, and starts the worker. False with a message, and nothing
    // left behind, when any of it fails.
    bool Start(std::string& error);
    // Stops the worker, removes the links (and the folder if Start made it)
    // and closes the ports and files. Safe to call more than once.
    void Stop();
    bool Running() const { return running_; }

    std::string Directory() const { return dir_; }
    std::string PortPath(PortRole role) const;  // DIR/ttyACM<n>
    int PortNumber(PortRole role) const;        // n
    std::string SlavePath(PortRole role) const; // the pseudo-terminal behind the link
    uint32_t Seed() const { return seed_; }

    int32_t DacValue() const { return dac_.load(std::memory_order_relaxed); }
    bool Streaming() const { return streaming_.load(std::memory_order_relaxed); }
    // Stream time sent since the first start command, microseconds.
    uint64_t StreamUs() const { return streamUs_.load(std::memory_order_relaxed); }
    EmulatorCounters Counters() const;

private:
    using Clock = std::chrono::steady_clock;

    void Run();
    void TakeInput(int port);
    void HandleCommand(int port, const std::vector<uint8_t>& command);
    void StartStreaming();
    void StopStreaming();
    uint64_t DueFrames(Clock::time_point now) const;
    void EmitDueFrames();
    void WritePacketLines();
    int PollTimeoutMs() const;
    void Cleanup();

    EmulatorOptions options_;
    uint32_t seed_ = 0;
    std::string dir_;
    bool madeDir_ = false;
    int numbers_[kPortCount] = {-1, -1, -1};
    std::string links_[kPortCount];
    std::unique_ptr<PseudoTerminal> ports_[kPortCount];
    std::vector<uint8_t> input_[kPortCount];
    bool inputOverflow_[kPortCount] = {false, false, false};
    std::unique_ptr<StreamSynth> synth_;

    FILE* recordAsk_ = nullptr;
    FILE* recordFsk_ = nullptr;
    FILE* expected_ = nullptr;
    FILE* commandLog_ = nullptr;

    int wake_[2] = {-1, -1};
    std::thread worker_;
    std::atomic<bool> stop_{false};
    bool running_ = false;

    // Pacing of the frames: frame number paceFrame_ is due at paceStart_.
    Clock::time_point paceStart_;
    uint64_t paceFrame_ = 0;

    std::atomic<int32_t> dac_{kDefaultDac};
    std::atomic<bool> streaming_{false};
    std::atomic<uint64_t> streamUs_{0};
    std::atomic<uint64_t> askSent_{0}, fskSent_{0}, askDropped_{0}, fskDropped_{0},
        askDroppedAtStop_{0}, fskDroppedAtStop_{0};
    std::atomic<uint64_t> commands_{0}, unknown_{0}, replies_{0}, starts_{0};
};

}  // namespace coilsim
