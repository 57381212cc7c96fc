#include "views/QWindowReal.h"

#include "events/ui/QEventWindow.h"
#include "services/SettingParams.h"
#include "views/Properties.h"
#include "views/QEventInfo.h"
#include "views/QwtChart.h"

#include <QAction>
#include <QEvent>
#include <QSplitter>
#include <QVBoxLayout>

#include <algorithm>

QWindowReal::QWindowReal(QWidget* parent) : PanelDialog(parent)
{
    setObjectName(QStringLiteral("QWindowReal"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    m_eventInfo = new QEventInfo();
    m_properties = new Properties();
    m_frequencyChart = new QwtChart(kChartFrequency, static_cast<int>(kHistorySeconds));
    m_percentChart = new QwtChart(kChartPercent, static_cast<int>(kHistorySeconds));
    m_eventWindow = new QEventWindow();

    m_top = new QSplitter(Qt::Horizontal, this);
    m_top->setLineWidth(1);
    m_top->setAutoFillBackground(true);
    m_left = new QSplitter(m_top);
    m_middle = new QSplitter(Qt::Vertical, m_top);
    m_right = new QSplitter(Qt::Vertical, m_top);
    for (QSplitter* s : {m_middle, m_right})
        s->setLineWidth(1);
    m_left->addWidget(m_eventWindow);
    m_middle->addWidget(m_frequencyChart);
    m_middle->addWidget(m_percentChart);
    m_middle->setStretchFactor(0, 1);
    m_middle->setStretchFactor(1, 1);
    m_right->addWidget(m_properties);
    m_right->addWidget(m_eventInfo);
    m_right->setStretchFactor(0, 1);
    m_right->setStretchFactor(1, 0);
    // Until the user drags a handle, the columns and the right column's two
    // views are fitted to each new size (see FitSplitters).
    m_top->installEventFilter(this);
    m_right->installEventFilter(this);
    connect(m_top, &QSplitter::splitterMoved, this, [this] { m_topMoved = true; });
    connect(m_right, &QSplitter::splitterMoved, this, [this] { m_rightMoved = true; });
    layout->addWidget(m_top);
    installEventFilter(this);
    // The show flags follow each view's own showing and hiding.
    for (QWidget* view : {static_cast<QWidget*>(m_eventWindow), static_cast<QWidget*>(m_frequencyChart),
                          static_cast<QWidget*>(m_percentChart), static_cast<QWidget*>(m_properties),
                          static_cast<QWidget*>(m_eventInfo)})
        view->installEventFilter(this);
    setAutoFillBackground(true);

    connect(m_eventWindow, &QEventWindow::EventWindowSelect_Signal, this, &QWindowReal::EventWindowSelected);
}

QWindowReal::~QWindowReal()
{
    removeEventFilter(this);
    m_top->removeEventFilter(this);
    m_right->removeEventFilter(this);
    for (QWidget* view : {static_cast<QWidget*>(m_eventWindow), static_cast<QWidget*>(m_frequencyChart),
                          static_cast<QWidget*>(m_percentChart), static_cast<QWidget*>(m_properties),
                          static_cast<QWidget*>(m_eventInfo)})
        view->removeEventFilter(this);
}

bool* QWindowReal::FlagOf(const QWidget* view)
{
    if (view == m_eventWindow)
        return &showEvents;
    if (view == m_frequencyChart)
        return &showFrequency;
    if (view == m_percentChart)
        return &showPercent;
    if (view == m_properties)
        return &showProperties;
    if (view == m_eventInfo)
        return &showInfo;
    return nullptr;
}

QWidget* QWindowReal::ViewOf(const QString& name) const
{
    if (name == QLatin1String("Sniffer Events"))
        return m_eventWindow;
    if (name == QLatin1String("EventInfo"))
        return m_eventInfo;
    if (name == QLatin1String("FrequencyChart"))
        return m_frequencyChart;
    if (name == QLatin1String("PercentageChart"))
        return m_percentChart;
    if (name == QLatin1String("EventPropertyChart"))
        return m_properties;
    return nullptr;
}

void QWindowReal::ApplyFlags()
{
    std::lock_guard<std::mutex> lock(m_viewMutex);
    m_eventWindow->setVisible(showEvents);
    m_frequencyChart->setVisible(showFrequency);
    m_percentChart->setVisible(showPercent);
    m_properties->setVisible(showProperties);
    m_eventInfo->setVisible(showInfo);
}

bool QWindowReal::TakeAction(QAction* action)
{
    if (!action)
        return false;
    QWidget* view = ViewOf(action->iconText());
    bool* flag = FlagOf(view);
    if (!flag)
        return false;
    // A checkable toggle has already turned to what the user wants to see.
    *flag = action->isCheckable() ? action->isChecked() : !*flag;
    ApplyFlags();
    // The view's show or hide event has set the toggle, unless nothing
    // changed; either way it says what is shown.
    if (action->isCheckable())
        action->setChecked(*flag);
    return true;
}

void QWindowReal::PushSample(const RealTimeSample& sample)
{
    m_pending.insert(m_pending.end(), sample.events.begin(), sample.events.end());
    const double t = sample.time;
    while (!m_time.isEmpty() && t - m_time.first() > kHistorySeconds) {
        m_time.removeFirst();
        m_firstValue.removeFirst();
        m_frequency.removeFirst();
        m_percent.removeFirst();
        m_controlError.removeFirst();
        m_packets.removeFirst();
    }
    m_time.append(t);
    m_firstValue.append(sample.firstValue);
    m_frequency.append(sample.frequencyHz / 1000.0);
    m_percent.append(sample.percent);
    m_controlError.append(sample.controlError);
    m_packets.append(sample.packets);
}

void QWindowReal::AddLastEvents(const std::vector<MsgInfoPtr>& events)
{
    m_pending.insert(m_pending.end(), events.begin(), events.end());
    std::vector<MsgInfoPtr> batch(m_pending.begin(), m_pending.end());
    m_pending.clear();
    if (showEvents && !batch.empty())
        m_eventWindow->AddEvents(batch);
}

void QWindowReal::Redraw()
{
    if (showInfo) {
        if (m_time.isEmpty()) {
            m_eventInfo->SetControlError(0.0);
            m_eventInfo->SetFrequency(0.0);
            m_eventInfo->SetPower(0.0);
        } else {
            m_eventInfo->SetControlError(m_controlError.last());
            m_eventInfo->SetFrequency(m_frequency.last());
            m_eventInfo->SetPackets(m_packets.last());
            m_eventInfo->SetPower(m_percent.last());
        }
    }
    std::vector<MsgInfoPtr> batch(m_pending.begin(), m_pending.end());
    m_pending.clear();
    // A hidden event window is not handed the batch: those events leave the
    // live view (the session file has them all the same).
    if (showEvents && !batch.empty())
        m_eventWindow->AddEvents(batch);
    if (!m_time.isEmpty()) {
        QVector<double> axis(m_time.size());
        const double first = m_time.first();
        for (int i = 0; i < m_time.size(); ++i)
            axis[i] = m_time[i] - first;
        if (showFrequency)
            m_frequencyChart->SetPoints(axis, m_frequency);
        if (showPercent)
            m_percentChart->SetPoints(axis, m_percent);
    }
}

void QWindowReal::Clear()
{
    m_pending.clear();
    m_time.clear();
    m_firstValue.clear();
    m_frequency.clear();
    m_percent.clear();
    m_controlError.clear();
    m_packets.clear();
    if (showEvents)
        m_eventWindow->ClearAll();
    if (showFrequency)
        m_frequencyChart->Clear();
    if (showPercent)
        m_percentChart->Clear();
    if (showInfo)
        m_eventInfo->Clear();
}

void QWindowReal::NewFrequencyLimits()
{
    const SettingParams& s = SettingParams::Instance();
    if (showFrequency)
        m_frequencyChart->SetYRange(s.m_min_freq / 1000, s.m_max_freq / 1000);
    if (showInfo)
        m_eventInfo->SetLimits(s.m_min_freq, s.m_max_freq);
}

void QWindowReal::StartMark()
{
    if (showEvents)
        m_eventWindow->StartAcquisition(std::string());
}

void QWindowReal::EndMark()
{
    if (showEvents)
        m_eventWindow->StopAcquisition(std::string());
}

QWidget* QWindowReal::FocusedView()
{
    if (showEvents && m_eventWindow->HasFocus())
        return m_eventWindow;
    if (showInfo && m_eventInfo->FocusTest())
        return m_eventInfo;
    if (showProperties && m_properties->FocusTest())
        return m_properties;
    for (QwtChart* chart : {m_frequencyChart, m_percentChart}) {
        const bool shown = chart == m_frequencyChart ? showFrequency : showPercent;
        if (!shown)
            continue;
        bool focus = chart->hasFocus();
        for (QWidget* w : chart->findChildren<QWidget*>())
            focus = focus || w->hasFocus();
        if (focus)
            return chart;
    }
    return nullptr;
}

void QWindowReal::EventWindowSelected(MsgInfo& info, StandardItemMode mode)
{
    // The property tree follows a selection (hidden, it drops it), and so
    // do the wave panels.
    if (showProperties) {
        m_properties->Fill(info, mode);
        m_properties->ShowRecordNote(m_eventWindow->Model().SelectedRecordNote());
    }
    emit signals_eventSelected(info, static_cast<int>(mode));
}

// The columns take 40, 32 and 28 hundredths of the width, whatever the
// widgets' own preferred widths: the tree has room for its texts and the
// charts for their axis numbers. On the right the gauges take the height
// they ask for, all four in view, as long as the property tree keeps a
// fifth of the column; the property tree has the rest. A splitter whose
// handle the user dragged keeps what the user chose.
void QWindowReal::FitSplitters(QSplitter* splitter)
{
    if (splitter == m_top && !m_topMoved) {
        // In pixels: QSplitter raises a size below a widget's minimum to the
        // minimum before it weighs the sizes against each other.
        const int width = m_top->width() - 2 * m_top->handleWidth();
        if (width <= 0)
            return;
        const int left = width * 40 / 100;
        const int middle = width * 32 / 100;
        m_top->setSizes({left, middle, width - left - middle});
    } else if (splitter == m_right && !m_rightMoved) {
        const int height = m_right->height() - m_right->handleWidth();
        if (height <= 0)
            return;
        const int gauges = std::min(m_eventInfo->sizeHint().height(), height * 4 / 5);
        m_right->setSizes({height - gauges, gauges});
    }
}

bool QWindowReal::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == m_top || watched == m_right) {
        if (event->type() == QEvent::Resize)
            FitSplitters(static_cast<QSplitter*>(watched));
        return PanelDialog::eventFilter(watched, event);
    }
    if (watched != this) {
        // A view was shown or hidden within the dock, by a toggle or by
        // anything else: its flag and its toggle follow.
        if (event->type() == QEvent::ShowToParent || event->type() == QEvent::HideToParent) {
            auto* view = static_cast<QWidget*>(watched);
            if (bool* flag = FlagOf(view)) {
                *flag = !view->isHidden();
                emit signals_viewShown(view, *flag);
            }
        }
        return PanelDialog::eventFilter(watched, event);
    }
    // The focus tests make the gauges' and the event window's tab titles bold.
    // A show or hide in progress holds the mutex: then the test is skipped.
    std::unique_lock<std::mutex> lock(m_viewMutex, std::try_to_lock);
    if (lock.owns_lock()) {
        if (showEvents)
            m_eventWindow->HasFocus();
        if (showInfo)
            m_eventInfo->FocusTest();
    }
    return PanelDialog::eventFilter(watched, event);
}
