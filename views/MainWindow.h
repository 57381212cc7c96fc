// The main window: menus, tool bars and the one tab that holds the real-time
// dock. It owns the acquisition controller and drives it through the menu,
// shows what the controller reports (message boxes, action states), runs the
// refresh cycle on the interface thread when the pacing thread asks for it,
// feeds the wave panels and the power monitor from it, prints the focused view,
// and opens and saves sessions. The dialogs that are not its own plug into the
// panel seam below as they come.
#pragma once

#include "capture/AcquisitionController.h"
#include "events/EventLogModel.h"

#include <QElapsedTimer>
#include <QMainWindow>
#include <QMap>

#include <memory>
#include <string>
#include <vector>

class CoilscopeUpdater;
class ABout;
class PercentMonitor;
class QAction;
class QAppConfig;
class QLabel;
class QProductTest;
class SampleGui;
class QMenu;
class QPrinter;
class QTabWidget;
class QToolBar;
class QWindowReal;

// The windows that the menus show and hide and that the refresh feeds, once
// they exist; a null one is left out.
struct MainWindowPanels {
    QWidget* ask = nullptr;           // "ASK" wave panel
    QWidget* fsk = nullptr;           // "FSK" wave panel
    QWidget* powerMonitor = nullptr;  // "PowerMonitor"
    QWidget* config = nullptr;        // "Setting"
    QWidget* updater = nullptr;       // "Check For Updates"
    QWidget* productTest = nullptr;   // "ProductTest"
    QWidget* about = nullptr;         // "About"
};

class MainWindow : public QMainWindow, public AcquisitionView {
    Q_OBJECT
public:
    explicit MainWindow(std::string portPattern = PortPattern(), QWidget* parent = nullptr);
    ~MainWindow() override;

    // What the acquisition controller reports.
    void ShowMessage(const std::string& title, const std::string& text) override;
    void SetActions(const Actions& actions) override;
    void ShowDac(int value) override;
    void ShowDeviceRecord(const uint8_t* record) override;
    void CaptureBegins() override;
    void CaptureEnds() override;
    void StreamingStarted() override;
    void StreamingStopped() override;
    void Tick() override;

    // The routines behind the menu.
    void OpenSession();
    void SaveSession();
    void SetSavePath();
    void ClearAll();
    // The status bar: events shown of the total, errors, the session file's
    // name and the session's duration; the window title names the file.
    void UpdateStatus();
    QLabel* StatusLabel() const { return m_statusLabel; }
    // File > Export: the events shown as CSV, JSON lines or the text of the
    // log, by the chosen file's ending (.csv, .json or .jsonl, other: text).
    void ExportEvents();
    // File > Export sigrok Session: the session shown (its autosave with the
    // capture records beside it) as a sigrok session (.sr) that PulseView
    // opens. Refused while acquiring.
    void ExportSigrok();
    void Exit();
    // "Print" and "Print Preview" of the focused view.
    void Print();
    void PrintPreview();
    // The view that printing pictures: the dock's focused view, else the
    // current tab's page.
    QWidget* PrintedWidget();

    AcquisitionController& Controller() { return *m_controller; }
    QWindowReal* Dock() const { return m_dock; }
    class TimingFindingsView* TimingView() const { return m_timingView; }
    QTabWidget* Tabs() const { return m_tabWidget; }
    QAction* Action(const QString& objectName) const { return m_actions.value(objectName); }
    MainWindowPanels& Panels() { return m_panels; }
    QAppConfig* Config() const { return m_config.get(); }
    CoilscopeUpdater* Updater() const { return m_updater.get(); }
    // The folder the firmware tool is started from: the program's own.
    // Tests point it elsewhere.
    void SetProgramFolder(const QString& folder) { m_programFolder = folder; }
    // "UpdateFireware": refused while the port is open, else the firmware
    // tool is started; a missing tool is silently not started. True when it
    // was started.
    bool UpdateFirmware();
    SampleGui* AskPanel() const { return m_askPanel; }
    SampleGui* FskPanel() const { return m_fskPanel; }
    PercentMonitor* Monitor() const { return m_monitor; }
    QProductTest* ProductTest() const { return m_productTest; }
    ABout* About() const { return m_about; }
    // The last DAC value handed to the device from this window's slider.
    int DacValue() const { return m_dacValue; }
    // How long after the device record the ASK panel's slider is moved to the
    // current DAC value, once per connection.
    int dacSliderDelayMs = 30000;
    // A session file is shown (Open), rather than a capture.
    bool FileOpen() const { return m_fileOpen; }
    // Refreshes run, and how long the latest of them took (TimeOut_slot
    // through the dock's redraw), in microseconds: the last 4096.
    int Refreshes() const { return m_refreshes; }
    const std::vector<int64_t>& RefreshMicroseconds() const { return m_refreshUs; }

signals:
    void timeout_signal();

public slots:
    void actionBtns(QAction* action);
    void TimeOut_slot();
    void plotPic(QPrinter* printer);
    void tabChanged(int index);
    void slot_QAppSave();
    void DAC_ValueChange(int value);

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void BuildActions();
    void BuildMenus();
    // key: the icon text, which the dispatcher compares; text: the label.
    QAction* MakeAction(const char* objectName, const char* key, const char* text, const char* toolTip,
                        const char* shortcut, const char* icon, bool checkable, bool checked, bool hidden);
    void TogglePanel(QWidget* panel);
    void StopAndDisconnect();

    // Made first: its construction loads the settings file.
    std::unique_ptr<QAppConfig> m_config;
    std::unique_ptr<AcquisitionController> m_controller;
    std::unique_ptr<CoilscopeUpdater> m_updater;
    QString m_programFolder;
    QMap<QString, QAction*> m_actions;
    QTabWidget* m_tabWidget = nullptr;
    void BuildTimingDock();
    QWindowReal* m_dock = nullptr;
    class TimingFindingsView* m_timingView = nullptr;  // in the "Timing Findings" dock
    QToolBar* m_mainToolBar = nullptr;
    QToolBar* m_toolBar = nullptr;
    QLabel* m_snifferLabel = nullptr;
    QLabel* m_statusLabel = nullptr;
    // The session file opened last; empty while a capture is shown.
    QString m_openedFile;
    // The session folders (events, log, captures) of the settings before a
    // session was opened in place; put back at the next Start.
    std::vector<std::string> m_foldersBeforeOpen;
    MainWindowPanels m_panels;
    QProductTest* m_productTest = nullptr;
    ABout* m_about = nullptr;
    SampleGui* m_askPanel = nullptr;
    SampleGui* m_fskPanel = nullptr;
    PercentMonitor* m_monitor = nullptr;
    QElapsedTimer m_eventClock;
    QElapsedTimer m_monitorClock;
    QElapsedTimer m_deviceInfoClock;  // since the device record came
    bool m_deviceInfoPending = false;
    bool m_fileOpen = false;
    int m_dacValue = 0;
    int m_refreshes = 0;
    std::vector<int64_t> m_refreshUs;
    bool m_closing = false;
};
