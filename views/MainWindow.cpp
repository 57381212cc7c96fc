#include "views/MainWindow.h"

#include "events/SessionFile.h"
#include "events/StreamReplay.h"
#include "events/ui/QEventWindow.h"
#include "events/ui/UserSeams.h"
#include "icons/Icons.h"
#include "interchange/SigrokExport.h"
#include "interchange/SigrokImport.h"
#include "services/AppSettings.h"
#include "services/CoilscopeUpdater.h"
#include "services/Log.h"
#include "services/QAppConfig.h"
#include "services/SettingParams.h"
#include "views/ABout.h"
#include "views/PercentMonitor.h"
#include "views/Printing.h"
#include "views/QProductTest.h"
#include "views/Properties.h"
#include "views/QWindowReal.h"
#include "views/SampleGui.h"
#include "views/WaveView.h"
#include "views/TimingFindingsView.h"
#include "views/Properties.h"
#include "analysis/TimingFile.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QDockWidget>
#include <QDir>
#include <QFileInfo>
#include <QGridLayout>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QPrintPreviewDialog>
#include <QPrinter>
#include <QStatusBar>
#include <QTabWidget>
#include <QToolBar>
#include <QUrl>
#include <QVBoxLayout>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <list>

namespace {

// The maker's web site, opened by "Sniffer Webset".
const char* const kWebSite = "https://coilscope.org";

MessageKind KindOfTitle(const std::string& title)
{
    if (title == "critical")
        return MessageKind::Critical;
    if (title == "information")
        return MessageKind::Information;
    return MessageKind::Warning;  // "Waring", "Error"
}

// The acquisition controller names its boxes as the command-line program
// prints them; the window shows them in plain words. A title it does not
// know is shown as it is.
QString BoxTitle(const std::string& title)
{
    if (title == "Waring")
        return QStringLiteral("Warning");
    if (title == "information")
        return QStringLiteral("Information");
    if (title == "critical")
        return QStringLiteral("Error");
    return QString::fromStdString(title);
}

// The controller's texts as the command-line program prints them, in the
// words of this window's menus. Any other text is shown as it is.
QString BoxText(const std::string& text)
{
    static const std::pair<const char*, const char*> kShown[] = {
        {"Device is in boot mode, Please UpdateFireware under sniffer menu.",
         "The device is in boot mode. Please use Update Firmware in the Sniffer menu."},
        {"Fireware is incompatible, Please UpdateFireware under sniffer menu.",
         "The firmware is incompatible. Please use Update Firmware in the Sniffer menu."},
        {"Not found Sniffer Device.", "No sniffer device found."},
    };
    for (const auto& row : kShown)
        if (text == row.first)
            return QLatin1String(row.second);
    return QString::fromStdString(text);
}

}  // namespace

MainWindow::MainWindow(std::string portPattern, QWidget* parent) : QMainWindow(parent)
{
    // The configuration dialog comes first: its construction is the first use
    // of the settings object, which loads the settings file.
    m_config = std::make_unique<QAppConfig>();
    m_panels.config = m_config.get();
    m_productTest = new QProductTest(this);
    m_about = new ABout(this);
    m_panels.productTest = m_productTest;
    m_panels.about = m_about;
    // The update check starts with the window.
    m_updater = std::make_unique<CoilscopeUpdater>();
    m_panels.updater = m_updater.get();
    m_programFolder = QCoreApplication::applicationDirPath();
    setObjectName(QStringLiteral("MainWindow"));
    setWindowTitle(QStringLiteral("Coilscope"));
    setWindowIcon(IconAt(QStringLiteral(":/icons/icons/coilscope.svg")));
    resize(817, 524);
    BuildActions();
    BuildMenus();
    m_statusLabel = new QLabel(this);
    m_statusLabel->setObjectName(QStringLiteral("statusSession"));
    statusBar()->addPermanentWidget(m_statusLabel, 1);

    auto* central = new QWidget(this);
    auto* grid = new QGridLayout(central);
    grid->setSpacing(6);
    grid->setContentsMargins(11, 11, 11, 11);
    auto* column = new QVBoxLayout();
    grid->addLayout(column, 0, 0);
    setCentralWidget(central);
    m_tabWidget = new QTabWidget(central);
    m_tabWidget->setObjectName(QStringLiteral("tabWidget"));
    m_dock = new QWindowReal();
    m_tabWidget->addTab(m_dock, QStringLiteral("Real Window"));
    m_dock->setAutoFillBackground(true);
    connect(m_tabWidget, &QTabWidget::currentChanged, this, &MainWindow::tabChanged);
    connect(m_dock->EventWindow(), &QEventWindow::filterApplied, this, &MainWindow::UpdateStatus);
    // The Go menu: the event window's find, go-to and error walking, where a
    // packet analyser's user looks for them, with their shortcuts shown.
    {
        QEventWindow* events = m_dock->EventWindow();
        auto* go = new QMenu(QStringLiteral("Go"), this);
        go->setObjectName(QStringLiteral("menuGo"));
        go->addAction(events->FindAction());
        go->addAction(events->GoToAction());
        go->addSeparator();
        go->addAction(events->NextErrorAction());
        go->addAction(events->PreviousErrorAction());
        if (auto* options = menuBar()->findChild<QMenu*>(QStringLiteral("menuOptions")))
            menuBar()->insertMenu(options->menuAction(), go);
        else
            menuBar()->addMenu(go);
    }
    BuildTimingDock();
    // The five view toggles say what the dock shows, whatever showed or hid a
    // view.
    connect(m_dock, &QWindowReal::signals_viewShown, this, [this](QWidget* view, bool shown) {
        for (const char* name : {"actionEventWindow", "actionEventInfo", "actionEventPropertyChart",
                                 "actionFrequencyChart", "actionPercentageChart"}) {
            QAction* toggle = Action(QLatin1String(name));
            if (m_dock->ViewOf(toggle->iconText()) == view)
                toggle->setChecked(shown);
        }
    });
    column->addWidget(m_tabWidget);
    setWindowState(Qt::WindowMaximized);

    for (const char* name : {"actionDisconnect", "actionStart", "actionStop"})
        Action(QLatin1String(name))->setEnabled(false);
    m_askPanel = new SampleGui(5, this);
    m_fskPanel = new SampleGui(6, this);
    m_panels.ask = m_askPanel;
    m_panels.fsk = m_fskPanel;
    m_eventClock.start();
    m_monitorClock.start();
    m_controller = std::make_unique<AcquisitionController>(*this, std::move(portPattern));
    m_monitor = new PercentMonitor(this);
    m_panels.powerMonitor = m_monitor;
    for (const char* name : {"actionLoadCfg", "actionSaveCfg", "actionSaveLog"})
        Action(QLatin1String(name))->setEnabled(false);

    connect(menuBar(), &QMenuBar::triggered, this, &MainWindow::actionBtns);
    connect(m_config.get(), &QAppConfig::signals_QAppSave, this, &MainWindow::slot_QAppSave);
    // Emitted on the pacing thread, run on this one.
    connect(this, &MainWindow::timeout_signal, this, &MainWindow::TimeOut_slot, Qt::QueuedConnection);
    connect(m_askPanel, &SampleGui::signal_dac_change, this, &MainWindow::DAC_ValueChange);
    // A packet selected in the event tree, live, paused or opened: its wave
    // in the panel of its direction.
    connect(m_dock, &QWindowReal::signals_eventSelected, this, [this](const MsgInfo& info, int mode) {
        if (mode == kItemEvent && !m_askPanel->ShowSelected(info))
            m_fskPanel->ShowSelected(info);
    });
    // A byte clicked in the wave selects its field in the dissection, and a
    // field selected there marks its bytes in the wave.
    for (SampleGui* panel : {m_askPanel, m_fskPanel}) {
        connect(panel->Wave(), &WaveView::byteClicked, this, [this](int index) {
            m_dock->PropertyView()->SelectByte(index);
        });
    }
    connect(m_dock->PropertyView(), &Properties::fieldBytesSelected, this, [this](int first, int count) {
        for (SampleGui* panel : {m_askPanel, m_fskPanel})
            if (panel->Pinned())
                panel->Wave()->SelectBytes(first, count);
    });
    // "Manual DAC" holds the automatic DAC level still.
    connect(m_askPanel->ManualBox(), &QCheckBox::toggled, this,
            [this](bool checked) { m_controller->Link().SetManualActing(checked); });
}

MainWindow::~MainWindow()
{
    // For the benchmark: how long the refreshes took.
    if (const char* path = std::getenv("COILSCOPE_REFRESH_STATS")) {
        if (std::FILE* f = std::fopen(path, "w")) {
            std::vector<int64_t> us = m_refreshUs;
            std::sort(us.begin(), us.end());
            if (!us.empty())
                std::fprintf(f, "refreshes %d, of the last %zu: median %.2f ms, worst %.2f ms\n", m_refreshes,
                             us.size(), static_cast<double>(us[us.size() / 2]) / 1000.0,
                             static_cast<double>(us.back()) / 1000.0);
            std::fclose(f);
        }
    }
    AppSettings::Instance().save();
    // The controller's end joins whatever still runs and closes the ports.
    m_controller.reset();
}

QAction* MainWindow::MakeAction(const char* objectName, const char* key, const char* text, const char* toolTip,
                                const char* shortcut, const char* icon, bool checkable, bool checked, bool hidden)
{
    auto* a = new QAction(this);
    a->setObjectName(QLatin1String(objectName));
    a->setText(QLatin1String(text));
    a->setIconText(QLatin1String(key));
    if (toolTip)
        a->setToolTip(QLatin1String(toolTip));
    if (shortcut)
        a->setShortcut(QKeySequence(QLatin1String(shortcut)));
    if (icon)
        a->setIcon(IconAt(QStringLiteral(":/icons/") + QLatin1String(icon)));
    a->setCheckable(checkable);
    a->setChecked(checked);
    a->setVisible(!hidden);
    m_actions.insert(a->objectName(), a);
    return a;
}

void MainWindow::BuildActions()
{
    // Each action has a key and a label. The key is its icon text: what the
    // dispatcher and the dock compare and what the application log names
    // ("action %s"), so it stays as it is. The label is what the menus and
    // tool tips show.
    struct Row {
        const char* name;
        const char* key;
        const char* label;    // null: the key
        const char* toolTip;  // null: the label
        const char* shortcut;
        const char* icon;
        bool checkable, checked, hidden;
    };
    static const Row rows[] = {
        {"actionPercentageChart", "PercentageChart", "Received Power Chart", nullptr, nullptr, "tree/channel.png",
         true, true, false},
        {"actionFrequencyChart", "FrequencyChart", "Frequency Chart", nullptr, nullptr,
         "icons/real_time_information_windows_24x24.ico", true, true, false},
        {"actionEventPropertyChart", "EventPropertyChart", "Event Properties", nullptr, nullptr,
         "icons/event_properitary_24x24.ico", true, true, false},
        {"actionEventInfo", "EventInfo", "Event Info", nullptr, nullptr, "icons/event_24x24.ico", true, true, false},
        {"actionEventWindow", "Sniffer Events", nullptr, nullptr, nullptr, "icons/event_2_24x24.ico", true, true,
         false},
        {"actionCut", "Cut", nullptr, nullptr, nullptr, "icons/cut_24x24.ico", false, false, false},
        {"actionPaste", "Paste", nullptr, nullptr, nullptr, "icons/past_24x24.ico", false, false, false},
        {"actionCopy", "Copy", nullptr, nullptr, nullptr, "icons/copy_24x24.ico", false, false, false},
        {"actionSave", "Save", nullptr, nullptr, "Ctrl+S", "icons/save_24x24.ico", false, false, true},
        {"actionOpen", "Open", nullptr, nullptr, "Ctrl+O", "icons/open_24x24.ico", false, false, false},
        {"actionPrint", "Print", nullptr, nullptr, "Ctrl+P", "icons/print_1.ico", false, false, false},
        {"actionClear", "Clear", nullptr, "Clear All", nullptr, "icons/erase_24x24.ico", false, false, false},
        {"actionConnect", "Connect", nullptr, nullptr, nullptr, "icons/usb_24x24.ico", true, false, false},
        {"actionDisconnect", "Disconnect", nullptr, nullptr, nullptr, "icons/usb_disconnect_24x24.ico", false, false,
         false},
        {"actionStart", "Start", nullptr, "Start Acquisition", nullptr, "icons/start_24x24.ico", true, false, false},
        {"actionStop", "Stop", nullptr, "Stop Acquisition", nullptr, "icons/stop_24x24.ico", false, false, false},
        {"actionCoilscope_Webset", "Sniffer Webset", "Coilscope Website", nullptr, nullptr, "icons/kestro.bmp", false,
         false, false},
        {"actionQuickStart", "QuickStart", "Quick Start", nullptr, nullptr, "icons/help_24x24.ico", false, false,
         false},
        {"actionUpdate_Fireware", "UpdateFireware", "Update Firmware", nullptr, nullptr, nullptr, false, false, false},
        {"actionExit", "Exit", nullptr, nullptr, nullptr, nullptr, false, false, false},
        {"actionPrintFreview", "Print Preview", nullptr, nullptr, nullptr, "icons/print_preview.ico", false, false,
         false},
        {"actionAbout", "About", "About Coilscope", nullptr, nullptr, "icons/about_24x24.ico", false, false, false},
        {"actionExport", "Export", "Export...", "Export the shown events as CSV, JSON lines or text", "Ctrl+E",
         nullptr, false, false, false},
        {"actionExportSigrok", "ExportSigrok", "Export sigrok Session...",
         "Export the session as a sigrok session (.sr) for PulseView and sigrok-cli", nullptr, nullptr, false, false,
         false},
        {"actionSaveExecl", "SaveExecl", "Save to Excel", nullptr, nullptr, "icons/excel_48x48.ico", false, false,
         false},
        {"actionLoadCfg", "LoadCfg", "Load Configuration", nullptr, nullptr, nullptr, false, false, false},
        {"actionSaveCfg", "SaveCfg", "Save Configuration", nullptr, nullptr, nullptr, false, false, false},
        {"actionSaveLog", "AutoLog", "Auto Log", nullptr, nullptr, nullptr, true, false, false},
        {"actionOpenLogDir", "OpenLogDir", "Open Log Folder", nullptr, nullptr, nullptr, false, false, false},
        {"action2K_Ware", "ASK", "ASK Wave", nullptr, nullptr, "icons/real_time_frequence_chart_24x24.ico", false,
         false, false},
        {"actionFSKWare", "FSK", "FSK Wave", nullptr, nullptr, "icons/special_symbol.ico", false, false, false},
        {"actionSetting", "Setting", "Settings", nullptr, nullptr, "icons/setting.ico", false, false, false},
        {"actionHelp", "Help", nullptr, nullptr, nullptr, "icons/help_24x24.ico", false, false, false},
        {"actionSniffer", "Sniffer", nullptr, nullptr, nullptr, "icons/sniffer.ico", false, false, false},
        {"actionSetSavePath", "SetSavePath", "Set Save Path", "Set Auto Save Path", nullptr, "icons/save_24x24.ico",
         false, false, false},
        {"actionPercent", "PowerMonitor", "Power Monitor", nullptr, nullptr, "tree/channel.png", false, false, false},
        {"actionCheck_For_Updates", "Check For Updates", "Check for Updates", nullptr, nullptr, nullptr, false, false,
         false},
        {"actionProductTest", "ProductTest", "Product Test", nullptr, nullptr, nullptr, false, false, false},
    };
    for (const Row& r : rows) {
        const char* label = r.label ? r.label : r.key;
        MakeAction(r.name, r.key, label, r.toolTip ? r.toolTip : label, r.shortcut, r.icon, r.checkable, r.checked,
                   r.hidden);
    }
}

void MainWindow::BuildMenus()
{
    auto add = [this](auto* target, std::initializer_list<const char*> names) {
        for (const char* n : names) {
            if (n[0] == '-')
                target->addSeparator();
            else
                target->addAction(Action(QLatin1String(n)));
        }
    };
    QMenu* file = menuBar()->addMenu(QStringLiteral("File"));
    file->setObjectName(QStringLiteral("menuFile"));
    add(file, {"actionOpen", "actionSave", "actionSetSavePath", "actionExport", "actionExportSigrok", "-", "actionPrint",
               "actionPrintFreview", "actionExit"});
    QMenu* sniffer = menuBar()->addMenu(QStringLiteral("Sniffer"));
    sniffer->setObjectName(QStringLiteral("menuSniffer"));
    add(sniffer, {"actionConnect", "actionDisconnect", "-", "actionStart", "actionStop", "-", "actionEventWindow",
                  "actionEventInfo", "actionEventPropertyChart", "actionFrequencyChart", "actionPercentageChart", "-",
                  "actionClear", "-", "actionUpdate_Fireware"});
    QMenu* scope = menuBar()->addMenu(QStringLiteral("Scope"));
    scope->setObjectName(QStringLiteral("menuTester"));
    add(scope, {"action2K_Ware", "actionFSKWare", "actionPercent"});
    QMenu* options = menuBar()->addMenu(QStringLiteral("Options"));
    options->setObjectName(QStringLiteral("menuOptions"));
    add(options, {"actionSetting"});
    QMenu* help = menuBar()->addMenu(QStringLiteral("Help"));
    help->setObjectName(QStringLiteral("menuHelp"));
    add(help, {"actionCoilscope_Webset", "actionQuickStart", "actionAbout", "actionCheck_For_Updates",
               "actionProductTest"});

    // The bars' titles name them in the tool bar area's context menu.
    m_mainToolBar = new QToolBar(QStringLiteral("File"), this);
    m_mainToolBar->setObjectName(QStringLiteral("mainToolBar"));
    addToolBar(Qt::TopToolBarArea, m_mainToolBar);
    add(m_mainToolBar, {"actionOpen", "actionSave", "actionPrint", "-", "actionCut", "actionCopy", "actionPaste", "-",
                        "actionHelp"});
    m_toolBar = new QToolBar(QStringLiteral("Sniffer"), this);
    m_toolBar->setObjectName(QStringLiteral("toolBar"));
    m_toolBar->setToolTip(QStringLiteral("Sniffer"));
    m_toolBar->setStatusTip(QStringLiteral("Sniffer"));
    m_toolBar->setToolButtonStyle(Qt::ToolButtonIconOnly);
    addToolBar(Qt::TopToolBarArea, m_toolBar);
    add(m_toolBar, {"actionConnect", "actionDisconnect", "-", "actionStart", "actionStop", "-", "actionEventWindow",
                    "actionFrequencyChart", "actionPercentageChart", "actionEventPropertyChart", "actionEventInfo", "-",
                    "actionClear", "-"});
    m_snifferLabel = new QLabel(QStringLiteral("Sniffer"), m_toolBar);
    m_toolBar->insertWidget(m_toolBar->actions().value(0), m_snifferLabel);
    setStatusBar(new QStatusBar(this));
}

// ---- What the controller reports ----

void MainWindow::ShowMessage(const std::string& title, const std::string& text)
{
    ShowUserMessage(this, KindOfTitle(title), BoxTitle(title), BoxText(text));
}

void MainWindow::SetActions(const Actions& a)
{
    const std::pair<const char*, std::pair<bool, bool>> states[] = {
        {"actionConnect", {a.connectEnabled, a.connectChecked}},
        {"actionDisconnect", {a.disconnectEnabled, a.disconnectChecked}},
        {"actionStart", {a.startEnabled, a.startChecked}},
        {"actionStop", {a.stopEnabled, a.stopChecked}},
    };
    for (const auto& s : states) {
        QAction* action = Action(QLatin1String(s.first));
        action->setEnabled(s.second.first);
        action->setChecked(s.second.second);
    }
}

void MainWindow::ShowDeviceRecord(const uint8_t* record)
{
    // The product test panel shows the device's number; the ASK panel's
    // slider follows the DAC value thirty seconds later.
    m_productTest->SetSerial(record);
    m_deviceInfoClock.start();
    m_deviceInfoPending = true;
}

void MainWindow::CaptureBegins()
{
    m_fileOpen = false;
    m_dock->StartMark();
}

void MainWindow::CaptureEnds()
{
    m_dock->EndMark();
}

void MainWindow::StreamingStarted()
{
    m_eventClock.restart();
    m_monitorClock.restart();
    m_monitor->Reset();
}

void MainWindow::ShowDac(int value)
{
    // Comes from a decoding thread: the slider moves on this one.
    QMetaObject::invokeMethod(this, [this, value] { m_askPanel->SetSliderValue(value); }, Qt::QueuedConnection);
}

void MainWindow::StreamingStopped()
{
    // The decoding threads have ended: what they heard in the last second goes
    // into this session now, before its Stop marker, and not into the next one.
    std::vector<MsgInfoPtr> rest;
    m_controller->Manager().TakeAllEvents(rest);
    m_dock->AddLastEvents(rest);
}

void MainWindow::Tick()
{
    emit timeout_signal();
}

// ---- The dispatcher ----

void MainWindow::actionBtns(QAction* action)
{
    if (!action)
        return;
    const QString name = action->iconText();
    Log::Printf("action %s", name.toLocal8Bit().constData());
    if (m_dock->TakeAction(action))
        return;
    if (name == QLatin1String("Open")) {
        OpenSession();
    } else if (name == QLatin1String("Save")) {
        SaveSession();
    } else if (name == QLatin1String("Clear")) {
        ClearAll();
    } else if (name == QLatin1String("Connect")) {
        m_controller->Connect();
    } else if (name == QLatin1String("Disconnect")) {
        StopAndDisconnect();
    } else if (name == QLatin1String("Export")) {
        ExportEvents();
    } else if (name == QLatin1String("ExportSigrok")) {
        ExportSigrok();
    } else if (name == QLatin1String("Start")) {
        // A session opened in place lent its folder to the window: an
        // acquisition saves into the folder it had before, never beside it.
        if (m_foldersBeforeOpen.size() == 3) {
            SettingParams& p = SettingParams::Instance();
            p.eventPath = m_foldersBeforeOpen[0];
            p.logPath = m_foldersBeforeOpen[1];
            p.capturePath = m_foldersBeforeOpen[2];
            m_foldersBeforeOpen.clear();
        }
        m_openedFile.clear();
        m_controller->DevStart();
    } else if (name == QLatin1String("Stop")) {
        m_controller->DevStop();
    } else if (name == QLatin1String("Exit")) {
        Exit();
    } else if (name == QLatin1String("Print Preview")) {
        PrintPreview();
    } else if (name == QLatin1String("Print")) {
        Print();
    } else if (name == QLatin1String("SaveExecl")) {
    } else if (name == QLatin1String("Sniffer Webset")) {
        OpenWithDesktop(QUrl(QLatin1String(kWebSite)));
    } else if (name == QLatin1String("QuickStart")) {
        OpenWithDesktop(QUrl(QStringLiteral("file:///") + QDir::currentPath() +
                             QStringLiteral("/coilscope quick start.pdf")));
    } else if (name == QLatin1String("About")) {
        if (m_panels.about)
            m_panels.about->show();
    } else if (name == QLatin1String("OpenLogDir")) {
        OpenWithDesktop(QUrl::fromLocalFile(QDir::homePath() + QStringLiteral("/coilscope/")));
    } else if (name == QLatin1String("ASK")) {
        TogglePanel(m_panels.ask);
    } else if (name == QLatin1String("FSK")) {
        TogglePanel(m_panels.fsk);
    } else if (name == QLatin1String("Setting")) {
        // Refilled from the settings before it is shown: the save path, for
        // one, may have changed since.
        if (m_panels.config == m_config.get() && !m_config->isVisible())
            emit m_config->signals_UpdateUI();
        TogglePanel(m_panels.config);
    } else if (name == QLatin1String("UpdateFireware")) {
        UpdateFirmware();
    } else if (name == QLatin1String("SetSavePath")) {
        SetSavePath();
    } else if (name == QLatin1String("PowerMonitor")) {
        TogglePanel(m_panels.powerMonitor);
    } else if (name == QLatin1String("Check For Updates")) {
        TogglePanel(m_panels.updater);
    } else if (name == QLatin1String("ProductTest")) {
        TogglePanel(m_panels.productTest);
    } else {
        ShowUserMessage(this, MessageKind::Information, QStringLiteral("Information"), QStringLiteral("Support later."));
    }
}

bool MainWindow::UpdateFirmware()
{
    if (m_controller->Found()) {
        ShowUserMessage(this, MessageKind::Information, QStringLiteral("Information"),
                        QStringLiteral("Please Disconnect First."));
        return false;
    }
    return StartFirmwareTool(m_programFolder);
}

void MainWindow::TogglePanel(QWidget* panel)
{
    if (!panel)
        return;
    panel->setVisible(!panel->isVisible());
}

void MainWindow::StopAndDisconnect()
{
    m_controller->DevStop();
    m_controller->Disconnect();
}

// ---- The refresh cycle ----

// The timing findings in a dock of their own: a row per finding, the
// session's summary, a double click selects the finding's event; the
// property pane shows each packet's timing from the same checker.
void MainWindow::BuildTimingDock()
{
    QEventWindow* events = m_dock->EventWindow();
    auto* dock = new QDockWidget(QStringLiteral("Timing Findings"), this);
    dock->setObjectName(QStringLiteral("dockTimingFindings"));
    m_timingView = new TimingFindingsView(dock);
    dock->setWidget(m_timingView);
    addDockWidget(Qt::BottomDockWidgetArea, dock);
    resizeDocks({dock}, {150}, Qt::Vertical);
    // Hidden until a session has a finding, or the Sniffer menu shows it.
    dock->hide();
    QAction* toggle = dock->toggleViewAction();
    toggle->setObjectName(QStringLiteral("actionTimingFindings"));
    if (QMenu* sniffer = findChild<QMenu*>(QStringLiteral("menuSniffer"))) {
        const QList<QAction*> entries = sniffer->actions();
        QAction* before = nullptr;
        for (int i = 0; i + 1 < entries.size(); ++i)
            if (entries[i]->objectName() == QLatin1String("actionPercentageChart"))
                before = entries[i + 1];
        sniffer->insertAction(before, toggle);
    }
    connect(events, &QEventWindow::timingFinding, dock, [dock] {
        if (!dock->isVisible())
            dock->show();
    });
    connect(events, &QEventWindow::timingFinding, m_timingView, &TimingFindingsView::AddFinding);
    connect(events, &QEventWindow::timingCleared, m_timingView, &TimingFindingsView::ClearFindings);
    connect(m_timingView, &TimingFindingsView::eventActivated, this, [events](qint64 number) { events->GoTo(number); });
    m_dock->PropertyView()->SetTimingChecker(&events->Timing());
}

void MainWindow::TimeOut_slot()
{
    if (!m_controller->Acquiring()) {
        m_controller->TickDone();
        return;
    }
    ++m_refreshes;
    QElapsedTimer took;
    took.start();
    RealTimeSample sample;
    if (m_tabWidget->currentIndex() == 0) {
        m_controller->Manager().GetEvents(sample.events);
        // The carrier's edges reach the timing checker before the events.
        std::vector<CarrierEdge> edges;
        m_controller->Manager().TakeCarrierEdges(edges);
        if (!edges.empty())
            m_dock->EventWindow()->AddCarrierEdges(edges);
        m_timingView->UpdateSummary(m_dock->EventWindow()->Timing());
    }
    // The wave panels in AutoTrigger mode look at the newest event of the batch.
    if (m_askPanel->isVisible() && !m_askPanel->FreeRun())
        m_askPanel->ShowPackets(sample.events);
    if (m_fskPanel->isVisible() && !m_fskPanel->FreeRun())
        m_fskPanel->ShowPackets(sample.events);
    CDataManager& m = m_controller->Manager();
    sample.firstValue = m.FirstHistoryValue();
    sample.frequencyHz = m.CarrierFrequency();
    sample.percent = m.ReceivedPowerPercent();
    sample.controlError = m.ControlErrorValue();
    sample.packets = static_cast<int64_t>(m.FilterCounters());
    sample.time = static_cast<float>(static_cast<double>(m_eventClock.elapsed()) / 1000.0);
    m_dock->PushSample(sample);
    UpdateStatus();
    m_dock->Redraw();
    if (m_refreshUs.size() >= 4096)
        m_refreshUs.erase(m_refreshUs.begin(), m_refreshUs.begin() + 2048);
    m_refreshUs.push_back(took.nsecsElapsed() / 1000);
    m_monitor->Update(static_cast<int32_t>(m_monitorClock.elapsed()), m.NegotiatedPower(), m.ReceivedPowerValue(),
                      m.ReceivedPowerPercent(), m.ReceivedPowerRaw());
    // The display queues of the two streams are emptied at every refresh; the
    // free-running wave panels draw them.
    const std::list<uint16_t> askSamples = m_controller->Ask().TakeDisplaySamples();
    if (m_askPanel->isVisible() && m_askPanel->FreeRun() && m_controller->Acquiring())
        m_askPanel->ShowSamples(askSamples);
    const std::list<uint16_t> fskWords = m_controller->Fsk().TakeDisplayWords();
    if (!fskWords.empty() && m_controller->Acquiring()) {
        const int v = fskWords.front();
        m_fskPanel->AdjustYRange(v - 150, v + 150);
        if (m_fskPanel->isVisible() && m_fskPanel->FreeRun())
            m_fskPanel->ShowSamples(fskWords);
    }
    if (m_controller->Acquiring() && !m_fileOpen)
        m_controller->CheckReplies();
    if (m_deviceInfoPending && m_deviceInfoClock.elapsed() >= dacSliderDelayMs) {
        m_deviceInfoPending = false;
        const int current = m_controller->LastDacSent() != 0 ? m_controller->LastDacSent()
                                                              : m_controller->Link().DacValue();
        m_askPanel->SetSliderValue(current);
    }
    m_controller->TickDone();
}

// ---- Sessions ----

void MainWindow::OpenSession()
{
    if (m_controller->Acquiring()) {
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Warning"), QStringLiteral("Stop first."));
        return;
    }
    const QString path = AskOpenFileName(this, QStringLiteral("Open Sniffer File"),
                                         QString::fromStdString(SettingParams::Instance().savePath),
                                         QStringLiteral("Sniffer Files (*.sid);;sigrok Sessions (*.sr)"));
    if (path.isEmpty()) {
        m_fileOpen = false;
        return;
    }
    // A file that holds no event is refused before anything changes: the view
    // keeps what it shows and no session folder is made.
    std::vector<MsgInfoPtr> events;
    std::vector<uint64_t> offsets;
    std::string error;
    const bool sigrok = path.endsWith(QLatin1String(".sr"), Qt::CaseInsensitive);
    if (sigrok) {
        // A sigrok capture of a link is decoded as a raw capture is: its
        // events come with their capture records.
        interchange::SigrokCapture capture;
        interchange::ImportedStreams streams;
        if (!interchange::ReadSigrokSession(path.toStdString(), capture, error) ||
            !interchange::StreamsFromSigrok(capture, std::string(), streams, error)) {
            ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Open Session"), QString::fromStdString(error));
            return;
        }
        StreamReplay replay(std::move(streams.ask), std::move(streams.fsk));
        replay.Run([&](std::vector<MsgInfoPtr>& batch) { events.insert(events.end(), batch.begin(), batch.end()); });
    } else if (!OpenSessionFile(path.toStdString(), events, error, &offsets)) {
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Open Session"), QString::fromStdString(error));
        return;
    }
    m_fileOpen = true;
    ClearAll();
    SettingParams& p = SettingParams::Instance();
    if (sigrok) {
        // A decoded sigrok capture is a new session: the Start marker saves
        // it as a capture is saved, in the window's own session folders.
        if (m_foldersBeforeOpen.size() == 3) {
            p.eventPath = m_foldersBeforeOpen[0];
            p.logPath = m_foldersBeforeOpen[1];
            p.capturePath = m_foldersBeforeOpen[2];
            m_foldersBeforeOpen.clear();
        }
        m_dock->Clear();
    } else {
        // Played through the dock as a capture is: Start marker, the events
        // in one batch, Stop marker; but shown where it lies: nothing is
        // written, the events read back from the opened .sid and their waves
        // from the record file beside it, and the session folder is the one
        // the file came from.
        if (m_foldersBeforeOpen.empty())
            m_foldersBeforeOpen = {p.eventPath, p.logPath, p.capturePath};
        const std::string folder = QFileInfo(path).absolutePath().toStdString() + "/";
        p.eventPath = p.logPath = p.capturePath = folder;
        m_dock->Clear();
        // (With the event tree hidden the dock sets no markers: nothing to show.)
        if (m_dock->showEvents)
            m_dock->EventWindow()->Model().ShowInPlace(path.toStdString(), std::move(offsets));
    }
    m_dock->StartMark();
    // The carrier's edges saved beside the .sid: the session is judged again
    // as it was live, and its findings come back.
    std::vector<CarrierEdge> edges;
    std::vector<analysis::TimingFinding> saved;
    if (analysis::TimingFile::Read(analysis::TimingFile::PathBeside(path.toStdString()), edges, saved))
        m_dock->EventWindow()->AddCarrierEdges(edges);
    RealTimeSample sample;
    sample.events = std::move(events);
    m_dock->PushSample(sample);
    m_dock->Redraw();
    m_dock->EndMark();
    m_timingView->UpdateSummary(m_dock->EventWindow()->Timing());
    m_openedFile = path;
    UpdateStatus();
}

void MainWindow::SaveSession()
{
    if (m_controller->Acquiring()) {
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Warning"), QStringLiteral("Stop first."));
        return;
    }
    const QString path =
        AskSaveFileName(this, QStringLiteral("Save Sniffer File"), QString(), QStringLiteral("Sniffer Files (*.qbin)"));
    if (path.isEmpty())
        return;
    // The session is on disk already (its autosave): the file is only made.
    std::FILE* file = std::fopen(path.toLocal8Bit().constData(), "wb");
    if (!file) {
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Warning"), QStringLiteral("Can't open file."));
        return;
    }
    std::fclose(file);
    ShowUserMessage(this, MessageKind::Information, QStringLiteral("Information"), QStringLiteral("Save Success."));
}

void MainWindow::SetSavePath()
{
    if (m_controller->Acquiring()) {
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Warning"), QStringLiteral("Stop first."));
        return;
    }
    const QString folder = AskDirectory(this, QStringLiteral("Set Auto Save Path"), QString());
    if (folder.isEmpty())
        return;
    SettingParams::Instance().savePath = folder.toStdString();
    AppSettings::Instance().save();
}

void MainWindow::ClearAll()
{
    m_eventClock.restart();
    if (!m_controller->Acquiring()) {
        m_monitorClock.restart();
        m_monitor->Reset();
    }
    m_controller->Manager().Clear();
    m_dock->Clear();
    m_dock->Redraw();
    m_controller->Ask().ClearDisplaySamples();
    m_controller->Fsk().TakeDisplayWords();
    UpdateStatus();
}

void MainWindow::UpdateStatus()
{
    QEventWindow* events = m_dock->EventWindow();
    QString file = m_openedFile;
    if (file.isEmpty())
        file = QString::fromStdString(events->Model().SidPath());
    const QString name = QFileInfo(file).fileName();
    // What the second readers changed of the first readers' frames, where
    // they changed anything.
    QString readers;
    for (const char* mark : {"recovered", "corrected", "disputed", "refused", "unconfirmed"}) {
        const int n = events->ReadingCount(mark);
        if (n > 0)
            readers += (readers.isEmpty() ? QStringLiteral("   Second readers: ") : QStringLiteral(", ")) +
                       QString::number(n) + QLatin1Char(' ') + QLatin1String(mark);
    }
    const QString text = QStringLiteral("Events %1 / %2 shown   Errors %3%4   %5   %6 s")
                             .arg(events->ShownEvents())
                             .arg(events->TotalEvents())
                             .arg(events->ErrorCount())
                             .arg(readers)
                             .arg(name.isEmpty() ? QStringLiteral("no session file") : name)
                             .arg(events->DurationMs() / 1000.0, 0, 'f', 3);
    if (m_statusLabel->text() != text)
        m_statusLabel->setText(text);
    const QString title = name.isEmpty() ? QStringLiteral("Coilscope") : QStringLiteral("Coilscope - ") + name;
    if (windowTitle() != title)
        setWindowTitle(title);
}

void MainWindow::ExportEvents()
{
    const QString path = AskSaveFileName(this, QStringLiteral("Export Events"),
                                         QString::fromStdString(SettingParams::Instance().savePath),
                                         QStringLiteral("CSV (*.csv);;JSON lines (*.jsonl *.json);;Text (*.txt)"));
    if (path.isEmpty())
        return;
    const QString suffix = QFileInfo(path).suffix().toLower();
    const analysis::ExportFormat format = suffix == QLatin1String("csv") ? analysis::ExportFormat::Csv
                                          : suffix == QLatin1String("json") || suffix == QLatin1String("jsonl")
                                              ? analysis::ExportFormat::Json
                                              : analysis::ExportFormat::Text;
    std::ofstream out(path.toLocal8Bit().constData(), std::ios::binary);
    if (!out) {
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Export"), QStringLiteral("Can't write ") + path);
        return;
    }
    m_dock->EventWindow()->ExportShown(out, format);
    out.flush();
    if (!out)
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Export"), QStringLiteral("Can't write ") + path);
}

void MainWindow::ExportSigrok()
{
    if (m_controller->Acquiring()) {
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Warning"), QStringLiteral("Stop first."));
        return;
    }
    const std::string sid = m_dock->EventWindow()->Model().SidPath();
    if (sid.empty()) {
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Export sigrok Session"),
                        QStringLiteral("There is no session to export: capture or open one first."));
        return;
    }
    const QString path = AskSaveFileName(this, QStringLiteral("Export sigrok Session"),
                                         QString::fromStdString(SettingParams::Instance().savePath),
                                         QStringLiteral("sigrok Sessions (*.sr)"));
    if (path.isEmpty())
        return;
    std::string error;
    if (!interchange::ExportSession(sid, path.toStdString(), error))
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Export sigrok Session"),
                        QString::fromStdString(error));
}

void MainWindow::Exit()
{
    if (m_controller->Acquiring())
        StopAndDisconnect();
    close();
}

// ---- Slots ----

// ---- Printing ----

QWidget* MainWindow::PrintedWidget()
{
    QWidget* widget = m_tabWidget->currentWidget();
    if (m_tabWidget->currentIndex() == 0) {
        if (QWidget* focused = m_dock->FocusedView())
            widget = focused;
    }
    return widget;
}

void MainWindow::Print()
{
    if (m_controller->Acquiring()) {
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Warning"), QStringLiteral("Stop first."));
        return;
    }
    QPrinter printer(QPrinter::HighResolution);
    if (AskPrint(this, &printer))
        plotPic(&printer);
}

void MainWindow::PrintPreview()
{
    if (m_controller->Acquiring()) {
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Warning"), QStringLiteral("Stop first."));
        return;
    }
    QPrinter printer(QPrinter::HighResolution);
    QPrintPreviewDialog preview(&printer, this);
    connect(&preview, &QPrintPreviewDialog::paintRequested, this, &MainWindow::plotPic);
    printer.setOutputFormat(QPrinter::PdfFormat);
    RunPrintPreview(&preview);
}

void MainWindow::plotPic(QPrinter* printer)
{
    // The event window prints its shown events as text pages; the other
    // views as their picture.
    QEventWindow* events = m_dock->EventWindow();
    if (PrintedWidget() == events) {
        QString file = m_openedFile;
        if (file.isEmpty())
            file = QString::fromStdString(events->Model().SidPath());
        const QString name = file.isEmpty() ? QStringLiteral("Coilscope session") : QFileInfo(file).fileName();
        PaintEventPages(printer, name, events->ShownColumnTitles(), events->ShownRows());
        return;
    }
    PaintWidgetPicture(PrintedWidget(), printer);
}

void MainWindow::tabChanged(int index)
{
    for (const char* name : {"actionLoadCfg", "actionSaveCfg", "actionSaveLog"})
        Action(QLatin1String(name))->setEnabled(index == 2);
}

void MainWindow::slot_QAppSave()
{
    m_dock->NewFrequencyLimits();
}

void MainWindow::DAC_ValueChange(int value)
{
    m_dacValue = value;
    m_controller->SetDac(value);
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    Log::Printf("MainWindow::closeEvent");
    for (QWidget* panel : {m_panels.powerMonitor, m_panels.ask, m_panels.fsk, m_panels.updater, m_panels.config,
                           m_panels.productTest})
        if (panel)
            panel->hide();
    // A confirmed capture is stopped and disconnected; the threads are
    // joined in any case.
    m_controller->Close();
    QMainWindow::closeEvent(event);
}
