#include "sim/DeviceEmulator.h"

#include "sim/PseudoTerminal.h"

#include <QByteArray>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace coilsim {

namespace {

constexpr size_t kMaxCommandBytes = 1024;     // longer input without a 0x00 is garbage
constexpr uint64_t kMaxBacklogFrames = 200;   // 1 s of stream time
constexpr uint64_t kFramesPerPass = 64;       // then look at the ports again
constexpr uint64_t kRecordFlushFrames = 200;

// Record layout: offsets and sizes of the fields the host reads.
constexpr int kRecordBuildDate = 4, kRecordBuildDateSize = 32;
constexpr int kRecordBootLoader = 36;
constexpr int kRecordFirmware = 68;
constexpr int kRecordHardware = 84;
constexpr int kRecordDeviceNumber = 100;
constexpr int kRecordDeviceType = 116;
constexpr int kRecordSoftware = 148;
constexpr int kRecordTextSize = 16;

void PutText(std::vector<uint8_t>& record, int offset, int size, const std::string& text) {
    // Keeps the terminating NUL inside the field.
    const size_t n = std::min(text.size(), static_cast<size_t>(size - 1));
    std::memcpy(record.data() + offset, text.data(), n);
}

std::string FirmwareVersionText(int firmware) {
    if (firmware >= 100 && firmware <= 999)
        return "V" + std::to_string(firmware / 100) + "." + std::to_string(firmware / 10 % 10) + "." +
               std::to_string(firmware % 10);
    return "V" + std::to_string(firmware);
}

std::vector<uint8_t> Bytes(std::initializer_list<uint8_t> list) { return std::vector<uint8_t>(list); }

std::string LinkPath(const std::string& dir, int n) { return dir + "/ttyACM" + std::to_string(n); }

bool PathExists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace

const char* RoleName(PortRole role) {
    switch (role) {
    case PortRole::Command:
        return "command";
    case PortRole::Ask:
        return "ask";
    case PortRole::Fsk:
        return "fsk";
    }
    return "";
}

std::vector<uint8_t> BuildDeviceRecord(const EmulatorOptions& options) {
    std::vector<uint8_t> record(kDeviceRecordBytes, 0);
    record[0] = 0x5A;
    record[1] = 0xA5;
    record[2] = 0x01;
    PutText(record, kRecordBuildDate, kRecordBuildDateSize, options.buildDate);
    PutText(record, kRecordBootLoader, kRecordTextSize, "V1.2.0");
    PutText(record, kRecordFirmware, kRecordTextSize, FirmwareVersionText(options.firmware));
    PutText(record, kRecordHardware, kRecordTextSize, "V2.1");
    const uint8_t number[16] = {0x20, 0x23, 0x05, 0x20, 0x00, 0x17, 0x42, 0x9C, 0x01};
    std::memcpy(record.data() + kRecordDeviceNumber, number, sizeof number);
    PutText(record, kRecordDeviceType, kRecordTextSize, "QiSniffer-2K");
    PutText(record, kRecordSoftware, kDeviceRecordBytes - kRecordSoftware, "coilscope-sim 0.1.0");
    return record;
}

std::vector<uint8_t> ReplyTo(const std::vector<uint8_t>& command, PortRole role, const EmulatorOptions& options) {
    using namespace DeviceCode;
    if (command.empty()) return {};
    const uint8_t code = command[0];
    if (options.bootMode) {
        // The boot loader knows only who it is and the host's goodbye.
        if (code == kPortQuery) return Bytes({kPortQuery, kBootMode, kEnd});
        if (code == kDisconnect) return Bytes({kDisconnect, kEnd});
        return {};
    }
    switch (code) {
    case kPortQuery:
        switch (role) {
        case PortRole::Ask:
            return Bytes({kPortQuery, kAskPort, kEnd});
        case PortRole::Fsk:
            return Bytes({kPortQuery, kFskPort, kEnd});
        case PortRole::Command: {
            std::vector<uint8_t> reply{kPortQuery, kCommandPort};
            const std::string number = std::to_string(options.firmware);
            reply.insert(reply.end(), number.begin(), number.end());
            reply.push_back(kEnd);
            return reply;
        }
        }
        return {};
    case kDeviceRecord: {
        const std::vector<uint8_t> record = BuildDeviceRecord(options);
        const QByteArray text =
            QByteArray(reinterpret_cast<const char*>(record.data()), static_cast<int>(record.size())).toBase64();
        std::vector<uint8_t> reply{kDeviceRecord, kAccepted};
        reply.insert(reply.end(), text.begin(), text.end());
        reply.push_back(kEnd);
        return reply;
    }
    case kStart:
        return Bytes({kStart, kEnd});
    case kFirmwareQuery:
        return Bytes({kFirmwareQuery, options.rejectFirmware ? kRejected : kAccepted, kEnd});
    case kDisconnect:
        return Bytes({kDisconnect, kEnd});
    default:
        return {};
    }
}

DeviceEmulator::DeviceEmulator(EmulatorOptions options) : options_(std::move(options)) {
    for (auto& p : ports_) {
        p = std::make_unique<PseudoTerminal>();
        p->SetFrameQueueLimit(options_.frameQueueBytes);
    }
}

DeviceEmulator::~DeviceEmulator() { Stop(); }

std::string DeviceEmulator::PortPath(PortRole role) const { return links_[static_cast<int>(role)]; }

int DeviceEmulator::PortNumber(PortRole role) const { return numbers_[static_cast<int>(role)]; }

std::string DeviceEmulator::SlavePath(PortRole role) const { return ports_[static_cast<int>(role)]->SlavePath(); }

EmulatorCounters DeviceEmulator::Counters() const {
    EmulatorCounters c;
    c.askFramesSent = askSent_.load();
    c.fskFramesSent = fskSent_.load();
    c.askFramesDropped = askDropped_.load();
    c.fskFramesDropped = fskDropped_.load();
    c.askFramesDroppedAtStop = askDroppedAtStop_.load();
    c.fskFramesDroppedAtStop = fskDroppedAtStop_.load();
    c.commands = commands_.load();
    c.unknownCommands = unknown_.load();
    c.replies = replies_.load();
    c.streamStarts = starts_.load();
    return c;
}

bool DeviceEmulator::Start(std::string& error) {
    if (running_) return true;
    if (!(options_.speed > 0.0) || !std::isfinite(options_.speed)) {
        error = "the speed must be a positive number";
        return false;
    }
    if (options_.recordAsk.empty() != options_.recordFsk.empty()) {
        error = "recording needs two files, one for each stream";
        return false;
    }
    seed_ = options_.haveSeed ? options_.seed
                              : static_cast<uint32_t>(std::random_device{}() ^
                                                      static_cast<uint32_t>(Clock::now().time_since_epoch().count()));

    // The script first: a bad script leaves nothing behind.
    SessionScript script;
    if (!options_.scriptFile.empty()) {
        if (!SessionScript::Load(options_.scriptFile, script, error)) return false;
    } else if (!options_.scriptText.empty()) {
        if (!SessionScript::Parse(options_.scriptText, script, error)) return false;
    } else {
        script = SessionScript::Default(seed_, options_.breach);
    }
    SynthOptions synthOptions;
    synthOptions.seed = seed_;
    synthOptions.noise = options_.noise;
    synth_ = std::make_unique<StreamSynth>(std::move(script), synthOptions);
    synth_->SetDac(dac_.load());

    // The folder.
    if (options_.dir.empty()) {
        char tmpl[] = "/tmp/coilscope-sim-XXXXXX";
        if (!::mkdtemp(tmpl)) {
            error = std::string("cannot make a folder under /tmp: ") + std::strerror(errno);
            return false;
        }
        dir_ = tmpl;
        madeDir_ = true;
    } else {
        dir_ = options_.dir;
        while (dir_.size() > 1 && dir_.back() == '/') dir_.pop_back();
        struct stat st {};
        if (::stat(dir_.c_str(), &st) == 0) {
            if (!S_ISDIR(st.st_mode)) {
                error = dir_ + " is not a folder";
                return false;
            }
        } else if (::mkdir(dir_.c_str(), 0755) == 0) {
            madeDir_ = true;
        } else {
            error = "cannot make the folder " + dir_ + ": " + std::strerror(errno);
            return false;
        }
    }

    // Three distinct free numbers; the role order follows from the seed.
    std::mt19937 rng(seed_ ^ 0xC0115C0Eu);
    std::vector<int> free;
    for (int n = 0; n <= 99; ++n)
        if (!PathExists(LinkPath(dir_, n))) free.push_back(n);
    if (free.size() < kPortCount) {
        error = "fewer than three free ttyACM numbers in " + dir_;
        Cleanup();
        return false;
    }
    std::shuffle(free.begin(), free.end(), rng);
    size_t next = 0;
    for (int i = 0; i < kPortCount; ++i) {
        if (!ports_[i]->Open(error)) {
            Cleanup();
            return false;
        }
        // A number taken meanwhile (another emulator in the same folder) is
        // passed over.
        for (;;) {
            if (next >= free.size()) {
                error = "no free ttyACM number left in " + dir_;
                Cleanup();
                return false;
            }
            const int n = free[next++];
            const std::string link = LinkPath(dir_, n);
            if (::symlink(ports_[i]->SlavePath().c_str(), link.c_str()) == 0) {
                numbers_[i] = n;
                links_[i] = link;
                break;
            }
            if (errno != EEXIST) {
                error = "cannot make the link " + link + ": " + std::strerror(errno);
                Cleanup();
                return false;
            }
        }
        input_[i].clear();
        inputOverflow_[i] = false;
    }

    if (!options_.recordAsk.empty()) {
        recordAsk_ = std::fopen(options_.recordAsk.c_str(), "wb");
        recordFsk_ = std::fopen(options_.recordFsk.c_str(), "wb");
        const std::string expectedPath = options_.recordAsk + ".expected.jsonl";
        expected_ = std::fopen(expectedPath.c_str(), "w");
        if (!recordAsk_ || !recordFsk_ || !expected_) {
            error = "cannot write the record files " + options_.recordAsk + ", " + options_.recordFsk + " and " +
                    expectedPath;
            Cleanup();
            return false;
        }
        // The record gets the stream's bytes as they go out.
        ports_[static_cast<int>(PortRole::Ask)]->SetFrameSink(
            [this](const uint8_t* bytes, size_t n) { std::fwrite(bytes, 1, n, recordAsk_); });
        ports_[static_cast<int>(PortRole::Fsk)]->SetFrameSink(
            [this](const uint8_t* bytes, size_t n) { std::fwrite(bytes, 1, n, recordFsk_); });
    }

    if (!options_.commandLog.empty()) {
        commandLog_ = std::fopen(options_.commandLog.c_str(), "w");
        if (!commandLog_) {
            error = "cannot write the command log " + options_.commandLog;
            Cleanup();
            return false;
        }
    }

    if (::pipe2(wake_, O_NONBLOCK | O_CLOEXEC) != 0) {
        error = std::string("pipe: ") + std::strerror(errno);
        Cleanup();
        return false;
    }
    stop_ = false;
    streaming_ = false;
    worker_ = std::thread([this] { Run(); });
    running_ = true;
    return true;
}

void DeviceEmulator::Stop() {
    if (running_) {
        stop_ = true;
        const char byte = 1;
        (void)!::write(wake_[1], &byte, 1);
        if (worker_.joinable()) worker_.join();
        running_ = false;
        streaming_ = false;
    }
    Cleanup();
}

void DeviceEmulator::Cleanup() {
    for (int i = 0; i < kPortCount; ++i) {
        if (!links_[i].empty()) ::unlink(links_[i].c_str());
        links_[i].clear();
        numbers_[i] = -1;
        ports_[i]->SetFrameSink(nullptr);
        ports_[i]->Close();
    }
    if (madeDir_ && !dir_.empty()) ::rmdir(dir_.c_str());  // only if nothing else is in it
    madeDir_ = false;
    for (FILE** f : {&recordAsk_, &recordFsk_, &expected_, &commandLog_}) {
        if (*f) std::fclose(*f);
        *f = nullptr;
    }
    for (int& fd : wake_) {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
}

int DeviceEmulator::PollTimeoutMs() const {
    bool queued = false;
    for (const auto& p : ports_) queued = queued || p->HasQueued();
    const int idle = queued ? 20 : 200;
    if (!streaming_) return idle;
    const auto now = Clock::now();
    const uint64_t made = synth_->FramesMade();
    if (DueFrames(now) > made) return 0;
    // Here made >= paceFrame_: the next frame is due at this many seconds
    // after paceStart_.
    const double next = static_cast<double>(made + 1 - paceFrame_) * 0.005 / options_.speed;
    const double wait = next - std::chrono::duration<double>(now - paceStart_).count();
    if (!(wait > 0.0)) return 0;
    return static_cast<int>(std::min(static_cast<double>(idle), std::ceil(wait * 1000.0)));
}

void DeviceEmulator::Run() {
    while (!stop_) {
        pollfd fds[1 + kPortCount];
        fds[0] = {wake_[0], POLLIN, 0};
        for (int i = 0; i < kPortCount; ++i) {
            const short events = static_cast<short>(POLLIN | (ports_[i]->HasQueued() ? POLLOUT : 0));
            fds[i + 1] = {ports_[i]->MasterFd(), events, 0};
        }
        const int ready = ::poll(fds, 1 + kPortCount, PollTimeoutMs());
        if (ready < 0 && errno != EINTR) ::usleep(1000);
        if (stop_) break;
        if (fds[0].revents & POLLIN) {
            char sink[64];
            while (::read(wake_[0], sink, sizeof sink) > 0) {
            }
        }
        bool hangup = false;
        for (int i = 0; i < kPortCount; ++i) {
            if (fds[i + 1].revents & POLLIN)
                TakeInput(i);
            else if (fds[i + 1].revents & (POLLHUP | POLLERR))
                hangup = true;
            ports_[i]->Flush();
        }
        if (streaming_) EmitDueFrames();
        // The slave is held open here, so a hang-up shouldn't come; if it
        // does, don't spin on it.
        if (hangup) ::usleep(2000);
    }
    if (recordAsk_) std::fflush(recordAsk_);
    if (recordFsk_) std::fflush(recordFsk_);
    if (expected_) std::fflush(expected_);
}

void DeviceEmulator::TakeInput(int port) {
    uint8_t buffer[4096];
    for (int rounds = 0; rounds < 16; ++rounds) {
        const size_t n = ports_[port]->Read(buffer, sizeof buffer);
        if (n == 0) return;
        for (size_t i = 0; i < n; ++i) {
            std::vector<uint8_t>& in = input_[port];
            if (buffer[i] == DeviceCode::kEnd) {
                if (!inputOverflow_[port] && !in.empty()) HandleCommand(port, in);
                in.clear();
                inputOverflow_[port] = false;
            } else if (in.size() < kMaxCommandBytes) {
                in.push_back(buffer[i]);
            } else {
                in.clear();
                inputOverflow_[port] = true;
                unknown_.fetch_add(1);
            }
        }
        if (n < sizeof buffer) return;
    }
}

void DeviceEmulator::HandleCommand(int port, const std::vector<uint8_t>& command) {
    using namespace DeviceCode;
    commands_.fetch_add(1);
    const uint8_t code = command[0];
    const PortRole role = static_cast<PortRole>(port);
    if (commandLog_) {
        std::fputs(RoleName(role), commandLog_);
        for (uint8_t b : command) std::fprintf(commandLog_, " %02X", b);
        std::fputc('\n', commandLog_);
        std::fflush(commandLog_);
    }
    if (!options_.bootMode) {
        switch (code) {
        case kStop:
        case kDisconnect:
            StopStreaming();
            break;
        case kSetDac: {
            const QByteArray text(reinterpret_cast<const char*>(command.data()) + 1, static_cast<int>(command.size()) - 1);
            const auto decoded = QByteArray::fromBase64Encoding(
                text, QByteArray::Base64Encoding | QByteArray::AbortOnBase64DecodingErrors);
            if (decoded.decodingStatus != QByteArray::Base64DecodingStatus::Ok || decoded.decoded.size() != 4) {
                unknown_.fetch_add(1);
                break;
            }
            const auto* b = reinterpret_cast<const uint8_t*>(decoded.decoded.constData());
            const uint32_t raw = static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8) |
                                 (static_cast<uint32_t>(b[2]) << 16) | (static_cast<uint32_t>(b[3]) << 24);
            const auto value = static_cast<int32_t>(raw);
            dac_.store(value);
            synth_->SetDac(value);
            break;
        }
        case kStart:
        case kPortQuery:
        case kFirmwareQuery:
        case kDeviceRecord:
            break;
        default:
            unknown_.fetch_add(1);
            break;
        }
    }
    const bool lostReply = options_.silentStart && code == kStart;
    const std::vector<uint8_t> reply = lostReply ? std::vector<uint8_t>() : ReplyTo(command, role, options_);
    if (!reply.empty() && ports_[port]->SendReply(reply)) replies_.fetch_add(1);
    if (!options_.bootMode && code == kStart) StartStreaming();
}

void DeviceEmulator::StartStreaming() {
    if (streaming_) return;
    paceStart_ = Clock::now();
    paceFrame_ = synth_->FramesMade();
    // A new acquisition: its frames are stamped from its own start.
    synth_->RestartStamps();
    starts_.fetch_add(1);
    streaming_ = true;
}

void DeviceEmulator::StopStreaming() {
    if (!streaming_) return;
    streaming_ = false;
    // Frames that haven't begun to go out are not sent after the stop.
    const size_t askDropped = ports_[static_cast<int>(PortRole::Ask)]->DropQueuedFrames();
    const size_t fskDropped = ports_[static_cast<int>(PortRole::Fsk)]->DropQueuedFrames();
    askSent_.fetch_sub(askDropped);
    askDropped_.fetch_add(askDropped);
    askDroppedAtStop_.fetch_add(askDropped);
    fskSent_.fetch_sub(fskDropped);
    fskDropped_.fetch_add(fskDropped);
    fskDroppedAtStop_.fetch_add(fskDropped);
    if (recordAsk_) std::fflush(recordAsk_);
    if (recordFsk_) std::fflush(recordFsk_);
    if (expected_) std::fflush(expected_);
}

uint64_t DeviceEmulator::DueFrames(Clock::time_point now) const {
    const double elapsed = std::chrono::duration<double>(now - paceStart_).count();
    return paceFrame_ + static_cast<uint64_t>(std::floor(elapsed * options_.speed / 0.005));
}

void DeviceEmulator::EmitDueFrames() {
    const auto now = Clock::now();
    uint64_t made = synth_->FramesMade();
    uint64_t due = DueFrames(now);
    if (due <= made) return;
    if (due - made > kMaxBacklogFrames) {
        // Too far behind (a stalled machine, or a speed beyond what it can
        // synthesize): let stream time slip rather than burst.
        paceStart_ = now;
        paceFrame_ = made + kMaxBacklogFrames;
        due = paceFrame_;
    }
    const uint64_t target = std::min(due, made + kFramesPerPass);
    std::vector<uint8_t> askFrame, fskFrame;
    for (; made < target; ++made) {
        synth_->NextFrames(askFrame, fskFrame);
        (ports_[static_cast<int>(PortRole::Ask)]->SendFrame(askFrame) ? askSent_ : askDropped_).fetch_add(1);
        (ports_[static_cast<int>(PortRole::Fsk)]->SendFrame(fskFrame) ? fskSent_ : fskDropped_).fetch_add(1);
        WritePacketLines();
        if (recordAsk_ && synth_->FramesMade() % kRecordFlushFrames == 0) {
            std::fflush(recordAsk_);
            std::fflush(recordFsk_);
            std::fflush(expected_);
        }
    }
    streamUs_.store(synth_->StreamUs());
}

void DeviceEmulator::WritePacketLines() {
    const std::vector<ScriptedPacket> packets = synth_->TakeStartedPackets();
    if (!expected_) return;
    for (const ScriptedPacket& p : packets) {
        std::string hex = HexText(p.bytes);
        std::fprintf(expected_,
                     "{\"direction\":\"%s\",\"pattern\":%s,\"bytes\":\"%s\",\"start_us\":%llu,\"end_us\":%llu}\n",
                     p.fsk ? "FSK" : "ASK", p.pattern ? "true" : "false", hex.c_str(),
                     static_cast<unsigned long long>(p.startUs), static_cast<unsigned long long>(p.endUs));
    }
}

}  // namespace coilsim
