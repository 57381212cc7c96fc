#include "capture/AcquisitionController.h"

#include "capture/CommandProtocol.h"
#include "common/Clock.h"
#include "services/AppSettings.h"
#include "services/Log.h"
#include "services/SettingParams.h"

#include <chrono>

namespace {

std::unique_ptr<StreamPort> MakeSerialPort()
{
    return std::make_unique<QSerialThread>();
}

}  // namespace

AcquisitionController::AcquisitionController(AcquisitionView& view, std::string portPattern)
    : m_view(view), m_pattern(std::move(portPattern)), m_ask(MakeSerialPort), m_fsk(MakeSerialPort), m_link(m_manager)
{
    m_link.sendDac = [this](int value) { SetDac(value); };
    m_link.showDac = [this](int value) { m_view.ShowDac(value); };
    m_link.SetDacValue(SettingParams::Instance().m_dac_value);
}

AcquisitionController::~AcquisitionController()
{
    Close();
}

void AcquisitionController::Close()
{
    if (Acquiring()) {
        DevStop();
        Disconnect();
    }
    // A start the device never confirmed still runs the decoding threads; they
    // end here, and the ports close without a word to the device.
    JoinWorkers(false);
    {
        std::lock_guard<std::mutex> lock(m_commandMutex);
        ReplaceCommandPort(nullptr);
    }
    m_found = false;
    m_ask.Close();
    m_fsk.Close();
}

void AcquisitionController::JoinWorkers(bool logSteps)
{
    if (!IsRunning())
        return;
    MyThread::Stop();
    if (logSteps)
        Log::Printf("DevStop 4");
    if (m_extraRun1.joinable())
        m_extraRun1.join();
    if (logSteps)
        Log::Printf("DevStop 5");
    if (m_pacing.joinable())
        m_pacing.join();
    if (logSteps)
        Log::Printf("DevStop 6");
}

void AcquisitionController::SendCommand(const std::vector<uint8_t>& bytes)
{
    std::lock_guard<std::mutex> lock(m_sendMutex);
    if (m_command)
        m_command->Send(bytes.data(), static_cast<int>(bytes.size()));
}

void AcquisitionController::ReplaceCommandPort(std::unique_ptr<QSerialThread> port)
{
    std::unique_ptr<QSerialThread> old;
    {
        std::lock_guard<std::mutex> lock(m_sendMutex);
        old = std::move(m_command);
        m_command = std::move(port);
    }
    if (old)
        old->ClosePort();
}

void AcquisitionController::SetActions(bool connected, bool acquiring)
{
    AcquisitionView::Actions a{};
    a.connectEnabled = !connected;
    a.connectChecked = connected;
    a.disconnectEnabled = connected;
    a.startEnabled = connected && !acquiring;
    a.startChecked = acquiring;
    a.stopEnabled = acquiring;
    a.stopChecked = false;
    m_view.SetActions(a);
}

void AcquisitionController::Connect()
{
    m_found = m_bootMode = false;
    m_firmwareHeaders = false;
    m_askPort.clear();
    m_commandPortName.clear();
    m_fskPort.clear();
    {
        std::lock_guard<std::mutex> lock(m_commandMutex);
        ReplaceCommandPort(nullptr);
    }
    DiscoveryResult d = Discover(m_pattern, replyFirstWait, replyTotalWait);
    m_found = d.found;
    m_bootMode = d.bootMode;
    m_firmwareHeaders = d.firmwareHeaders;
    m_askPort = d.askPort;
    m_commandPortName = d.commandPort;
    m_fskPort = d.fskPort;
    if (m_found) {
        {
            std::lock_guard<std::mutex> lock(m_commandMutex);
            ReplaceCommandPort(std::move(d.command));
        }
        AppSettings::Instance().MakeSessionFolders();
        SetActions(true, false);
        m_ask.Open(m_askPort, m_firmwareHeaders, 1024000, 0);
        m_fsk.Open(m_fskPort, m_firmwareHeaders, 1024000, 0);
        ReadDeviceRecordLocked();
        DevStart();
        m_view.CaptureBegins();
        return;
    }
    if (m_bootMode) {
        m_view.ShowMessage("information", "Device is in boot mode, Please UpdateFireware under sniffer menu.");
        return;
    }
    // The four actions unchecked; Connect stays enabled for the next try.
    AcquisitionView::Actions none{};
    none.connectEnabled = true;
    m_view.SetActions(none);
    m_view.ShowMessage("critical", "Not found Sniffer Device.");
}

void AcquisitionController::ReadDeviceRecordLocked()
{
    uint8_t* record = SettingParams::Instance().deviceRecord;
    std::memset(record, 0, SnifferCommand::kDeviceRecordSize);
    std::unique_lock<std::mutex> lock(m_commandMutex, std::try_to_lock);
    if (!lock.owns_lock() || !m_command)
        return;
    if (ReadDeviceRecord(*m_command, record, replyFirstWait, replyTotalWait))
        m_view.ShowDeviceRecord(record);
}

void AcquisitionController::DevStart()
{
    SettingParams& settings = SettingParams::Instance();
    settings.detectedPolarity.store(0);
    const int64_t begin = TickMs();
    // Nothing of an earlier acquisition reaches this one: the data ports drop
    // what they still hold, the chains start afresh and count their time from
    // this start, as the device stamps its frames from it.
    if (!IsRunning()) {
        m_ask.BeginAcquisition();
        m_fsk.BeginAcquisition();
        m_manager.BeginAcquisition();
    }
    std::list<DataPtr> replies;
    if (m_command) {
        SendCommand(BuildStartCommand());
        m_command->WaitReplies(replies, replyFirstWait, replyTotalWait);
    }
    Log::Printf("DevStart t1=%d %d", static_cast<int>(TickMs() - begin), static_cast<int>(replies.size()));
    if (StartConfirmed(replies)) {
        m_link.SetAcquiring(true);
        SetActions(true, true);
    }
    SendCommand(BuildFirmwareQueryCommand());
    m_manager.ResetCounters();
    {
        std::lock_guard<std::mutex> lock(m_tickMutex);
        m_tickPending = 0;
    }
    // The second ASK reader reads the stream's samples when the setting says so.
    const bool secondReader = settings.m_ask_second_reader != 0;
    m_manager.SetSecondAskReader(secondReader);
    m_ask.Stream().SetWireFeed(secondReader);
    // And the second FSK reader the stream's period words.
    const bool secondFskReader = settings.m_fsk_second_reader != 0;
    m_manager.SetSecondFskReader(secondFskReader);
    m_manager.SetFskBand(settings.m_min_freq, settings.m_max_freq);
    m_fsk.SetWireFeed(secondFskReader);
    MyThread::Start();
    // The FSK decoding loop runs twice, as two workers on the same lists.
    if (!m_extraRun1.joinable())
        m_extraRun1 = std::thread([this] { Run1(); });
    if (!m_pacing.joinable())
        m_pacing = std::thread([this] { PacingLoop(); });
    m_view.StreamingStarted();
    if (settings.m_dac_locked == 0) {
        m_link.SetDacValue(settings.m_dac_value);
        SetDac(settings.m_dac_value);
    }
}

void AcquisitionController::DevStop()
{
    Log::Printf("DevStop 1");
    m_link.SetAcquiring(false);
    Log::Printf("DevStop 2");
    Log::Printf("DevStop 3");
    JoinWorkers(true);
    // Nothing more will be decoded: the frames that the two ASK readers still
    // hold for each other go out with the next refresh.
    m_manager.SettleHeldFrames();
    Log::Printf("DevStop 7");
    m_manager.ResetCounters();
    Log::Printf("DevStop 8");
    if (m_command) {
        SendCommand(BuildStopCommand());
        m_stopCommands.fetch_add(1, std::memory_order_relaxed);
        std::list<DataPtr> ignored;
        m_command->WaitReplies(ignored, replyFirstWait, replyTotalWait);
    }
    m_view.StreamingStopped();
    Log::Printf("DevStop 9");
    SetActions(m_command != nullptr, false);
    Log::Printf("DevStop 10");
}

void AcquisitionController::Disconnect()
{
    // The decoding threads are stopped first, so that nothing is left running
    // on ports that close.
    if (IsRunning())
        DevStop();
    Log::Printf("DevDisconnect 1");
    {
        std::lock_guard<std::mutex> lock(m_commandMutex);
        if (m_command) {
            SendCommand(BuildDisconnectCommand());
            std::list<DataPtr> ignored;
            m_command->WaitReplies(ignored, replyFirstWait, replyTotalWait);
            ReplaceCommandPort(nullptr);
        }
    }
    m_found = false;
    Log::Printf("DevDisconnect 2");
    SetActions(false, false);
    Log::Printf("DevDisconnect 3");
    m_ask.Close();
    Log::Printf("DevDisconnect 4");
    m_fsk.Close();
    Log::Printf("DevDisconnect 5");
    m_view.CaptureEnds();
    Log::Printf("DevDisconnect 6");
}

void AcquisitionController::Run()
{
    RunAskDecoding(m_running, m_ask.Stream(), m_link);
}

void AcquisitionController::Run1()
{
    RunFskDecoding(m_running, m_fsk, m_link);
}

void AcquisitionController::SetDac(int value)
{
    m_lastDacSent.store(value, std::memory_order_relaxed);
    SendCommand(BuildSetDacCommand(value));
}

void AcquisitionController::PacingLoop()
{
    while (m_running.load(std::memory_order_relaxed)) {
        bool tick = false;
        {
            std::unique_lock<std::mutex> lock(m_tickMutex, std::try_to_lock);
            if (lock.owns_lock() && m_tickPending == 0) {
                m_tickPending = 1;
                tick = true;
            }
        }
        if (tick)
            m_view.Tick();
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    int pending;
    {
        std::lock_guard<std::mutex> lock(m_tickMutex);
        pending = m_tickPending;
    }
    Log::Printf("Run2 exit %d", pending);
}

void AcquisitionController::TickDone()
{
    std::lock_guard<std::mutex> lock(m_tickMutex);
    m_tickPending = 0;
}

bool AcquisitionController::CheckReplies()
{
    std::list<DataPtr> replies;
    {
        std::unique_lock<std::mutex> lock(m_commandMutex, std::try_to_lock);
        if (!lock.owns_lock() || !m_command)
            return true;
        m_command->WaitReplies(replies, 0, 0);
    }
    for (const DataPtr& reply : replies) {
        if (FirmwareIncompatible(reply->buffer.get(), reply->length, SettingParams::Instance().deviceRecord)) {
            DevStop();
            Disconnect();
            m_view.ShowMessage("Error", "Fireware is incompatible, Please UpdateFireware under sniffer menu.");
            return false;
        }
    }
    return true;
}
