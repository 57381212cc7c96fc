// The acquisition controller: finds the sniffer, opens its ports, starts and
// stops streaming, runs the decoding threads and paces the display. The main
// window owns one and drives it from its menu; coilscope-cli capture and the
// tests run the very same sequences through the same interface.
#pragma once

#include "capture/Discovery.h"
#include "capture/QSerialThread.h"
#include "common/MyThread.h"
#include "decode/Thread2K.h"
#include "decode/ThreadFSK.h"
#include "events/DataManager.h"
#include "events/DecoderLink.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

// What the controller tells its window (or the terminal).
class AcquisitionView {
public:
    struct Actions {
        bool connectEnabled, connectChecked;
        bool disconnectEnabled, disconnectChecked;
        bool startEnabled, startChecked;
        bool stopEnabled, stopChecked;
    };
    virtual ~AcquisitionView() = default;
    // A message box with one button; title "Waring", "information", "critical"
    // or "Error".
    virtual void ShowMessage(const std::string& title, const std::string& text) = 0;
    virtual void SetActions(const Actions& actions) = 0;
    // The device record arrived (the product test panel shows it).
    virtual void ShowDeviceRecord(const uint8_t* record) = 0;
    // Connect has started the capture (the dock's Start marker) and
    // Disconnect has ended it (the Stop marker).
    virtual void CaptureBegins() = 0;
    virtual void CaptureEnds() = 0;
    // DevStart has asked the device to stream (the session clocks restart,
    // the power monitor begins), and DevStop has asked it to stop.
    virtual void StreamingStarted() {}
    virtual void StreamingStopped() {}
    // The pacing thread asks for a refresh; it comes from that thread, and the
    // view runs its refresh on its own thread and then calls TickDone().
    virtual void Tick() = 0;
    // The DAC value moved (the ASK panel's slider).
    virtual void ShowDac(int value) { (void)value; }
};

class AcquisitionController : public MyThread {
public:
    AcquisitionController(AcquisitionView& view, std::string portPattern = PortPattern());
    ~AcquisitionController() override;

    // The four actions of the menu.
    void Connect();
    void Disconnect();
    void Start() override { DevStart(); }
    void Stop() override { DevStop(); }

    void DevStart();
    void DevStop();

    // Leaving (the window's close, the end of a terminal capture): a confirmed
    // capture is stopped and the device disconnected; otherwise no command
    // goes out. Either way the decoding threads are joined and the ports
    // closed. The destructor does the same, so a controller that was
    // disconnected before it goes away disconnects once.
    void Close();

    // The ASK and the FSK decoding threads.
    void Run() override;
    void Run1() override;

    // The one sender of the DAC value.
    void SetDac(int value);
    // Run on the interface thread at each refresh: the replies of the command
    // port (the firmware check). Returns false when the firmware check failed
    // and the device was stopped and disconnected.
    bool CheckReplies();
    // The refresh is done; the pacing thread may ask for the next one.
    void TickDone();

    bool Found() const { return m_found; }
    bool BootMode() const { return m_bootMode; }
    bool Acquiring() const { return m_link.IsAcquiring(); }
    bool FirmwareHeaders() const { return m_firmwareHeaders; }
    const std::string& AskPort() const { return m_askPort; }
    const std::string& CommandPort() const { return m_commandPortName; }
    const std::string& FskPort() const { return m_fskPort; }
    int LastDacSent() const { return m_lastDacSent.load(std::memory_order_relaxed); }
    int StopCommandsSent() const { return m_stopCommands.load(std::memory_order_relaxed); }

    CDataManager& Manager() { return m_manager; }
    DecoderLink& Link() { return m_link; }
    CThread2K& Ask() { return m_ask; }
    CThreadFSK& Fsk() { return m_fsk; }

    int replyFirstWait = 150;
    int replyTotalWait = 300;

private:
    void SendCommand(const std::vector<uint8_t>& bytes);
    void ReplaceCommandPort(std::unique_ptr<QSerialThread> port);
    void ReadDeviceRecordLocked();
    void PacingLoop();
    // Ends the decoding loops, the extra FSK loop and the pacing thread if
    // they run; with logSteps, DevStop's step lines mark the joins.
    void JoinWorkers(bool logSteps);
    void SetActions(bool connected, bool acquiring);

    AcquisitionView& m_view;
    std::string m_pattern;
    std::unique_ptr<QSerialThread> m_command;
    std::mutex m_commandMutex;
    // Guards the command port pointer for the single writes (the DAC value from
    // the decoding threads, the start and firmware commands) against its close.
    std::mutex m_sendMutex;
    CThread2K m_ask;
    CThreadFSK m_fsk;
    CDataManager m_manager;
    DecoderLink m_link;
    std::atomic<int> m_lastDacSent{0};
    std::thread m_extraRun1;
    std::thread m_pacing;
    std::mutex m_tickMutex;
    int m_tickPending = 0;
    bool m_found = false;
    bool m_bootMode = false;
    std::string m_askPort, m_commandPortName, m_fskPort;
    bool m_firmwareHeaders = false;
    std::atomic<int> m_stopCommands{0};
};
