#include "events/EventLogModel.h"

#include "common/TimeText.h"
#include "events/SessionFile.h"
#include "services/Log.h"
#include "services/SettingParams.h"

#include <QDir>
#include <QFileInfo>

#include <chrono>
#include <cstring>
#include <unordered_set>
#include <ctime>

namespace {

std::string LocalTime(const char* format)
{
    std::time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    char text[64];
    std::strftime(text, sizeof text, format, &parts);
    return text;
}

// The time of day with milliseconds, for the lines of the .log file.
std::string TimeOfDay()
{
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    const int ms = static_cast<int>(duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000);
    char text[32];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", parts.tm_hour, parts.tm_min, parts.tm_sec, ms);
    return text;
}

QString Q(const std::string& s)
{
    return QString::fromUtf8(s.data(), static_cast<int>(s.size()));
}

int32_t WindowTime()
{
    return SettingParams::Instance().m_window_time;
}

}  // namespace

uint32_t EventTag(const MsgInfo& e)
{
    std::string key = std::to_string(e.type);
    for (const std::string* part : {&e.common.logData, &e.packet.PacketData, &e.timing.startTimeStamp,
                                    &e.timing.endTimeStamp}) {
        key += '\0';
        key += *part;
    }
    return RecordStore::Checksum(key.data(), key.size());
}

QStandardItemEx::QStandardItemEx(const QString& text, StandardItemMode mode)
    : mode(mode), isGroup(false), m_compact(false), info(std::make_unique<MsgInfo>()), session(-1), sidOffset(kNotInSid)
{
    if (mode == kItemEvent) {
        m_text = text.toUtf8();
        m_compact = true;
    } else {
        setText(text);
    }
}

void QStandardItemEx::SetInfo(const MsgInfo& e)
{
    if (info)
        *info = e;
    else
        info = std::make_unique<MsgInfo>(e);
    type = e.type;
}

QVariant QStandardItemEx::data(int role) const
{
    if (m_compact && (role == Qt::DisplayRole || role == Qt::EditRole))
        return QString::fromUtf8(m_text);
    return QStandardItem::data(role);
}

void QStandardItemEx::setData(const QVariant& value, int role)
{
    if (m_compact && (role == Qt::DisplayRole || role == Qt::EditRole)) {
        m_text = value.toString().toUtf8();
        emitDataChanged();
        return;
    }
    QStandardItem::setData(value, role);
}

EventLogModel::EventLogModel()
{
    m_rootTitle = Q("Coilscope @ " + LocalTime("%Y-%m-%d %H:%M:%S"));
    m_root = new QStandardItemEx(m_rootTitle, kItemRoot);
    m_model.appendRow(m_root);
    m_lineLimit = WindowTime() * 50;
}

EventLogModel::~EventLogModel()
{
    m_model.clear();
    CloseStreams();
}

EventLogModel::Footprint EventLogModel::TreeFootprint() const
{
    Footprint f;
    std::unordered_set<const TriggerData*> seen;
    auto count = [&](const MsgInfo& info) {
        const TriggerData* c = info.capture.get();
        if (!c || !seen.insert(c).second)
            return;
        f.records += 1;
        f.recordBytes += sizeof(TriggerData) + sizeof(int32_t) * (c->samples.capacity() + c->rawSamples.capacity()) +
                         sizeof(PulseRecord) * c->pulses.capacity();
        for (const PulseRecord& p : c->pulses)
            f.recordBytes += sizeof(int32_t) * p.samples.capacity();
    };
    // Depth first without recursion: a long session's tree is wide, not deep,
    // but nothing here should depend on that.
    std::vector<const QStandardItem*> pending = {m_model.invisibleRootItem()};
    while (!pending.empty()) {
        const QStandardItem* item = pending.back();
        pending.pop_back();
        if (item != m_model.invisibleRootItem())
            f.items += 1;
        if (const auto* x = dynamic_cast<const QStandardItemEx*>(item)) {
            if (x->info) {
                count(*x->info);
                f.events += x->mode == kItemEvent && !x->isGroup;
            }
        }
        for (int r = 0; r < item->rowCount(); ++r)
            pending.push_back(item->child(r));
    }
    return f;
}

void EventLogModel::CloseStreams()
{
    // The record file stays readable for the items that point into it.
    m_records.reset();
    PushLogLines();
    if (m_sid)
        std::fclose(m_sid);
    if (m_log)
        std::fclose(m_log);
    m_sid = m_log = nullptr;
    m_logPending.clear();
}

void EventLogModel::PushLogLines()
{
    if (m_log && !m_logPending.empty())
        std::fwrite(m_logPending.data(), 1, m_logPending.size(), m_log);
    m_logPending.clear();
}

void EventLogModel::OpenStreams()
{
    CloseStreams();
    const SettingParams& s = SettingParams::Instance();
    const std::string stamp = LocalTime("%Y_%m_%d %H_%M_%S");
    m_sidPath = s.eventPath + "EventWindow_" + stamp + ".sid";
    m_logPath = s.logPath + "LogWindow_" + stamp + ".log";
    if (!m_nextSid.empty()) {
        m_sidPath = m_nextSid;
        m_logPath = m_nextLog;
        m_nextSid.clear();
        m_nextLog.clear();
    }
    // A stream that does not open stays null: nothing is written, nothing said.
    m_sid = std::fopen(m_sidPath.c_str(), "wb");
    m_log = std::fopen(m_logPath.c_str(), "wb");
    // No stdio buffer: a .sid record and a batch of .log lines each go to the
    // file in one write, so that a process that dies leaves whole records
    // and whole lines (a buffer of its own would write out whenever it is
    // full, in the middle of a line).
    if (m_sid)
        std::setvbuf(m_sid, nullptr, _IONBF, 0);
    if (m_log)
        std::setvbuf(m_log, nullptr, _IONBF, 0);
    // The capture records go beside the .sid, numbered by their place in it.
    m_recordNumber = 0;
    m_sidBytes = 0;
    m_sidBroken = false;
    if (m_sid) {
        m_sidFiles.push_back(m_sidPath);
        m_records = std::make_shared<RecordStore>();
        m_records->Create(RecordStore::PathBeside(m_sidPath));
        m_recordFiles.push_back(m_records);
    }
}

void EventLogModel::SetSessionFiles(const std::string& sidPath, const std::string& logPath)
{
    m_nextSid = sidPath;
    m_nextLog = logPath;
}

void EventLogModel::ShowInPlace(const std::string& sidPath, std::vector<uint64_t> offsets)
{
    m_inPlacePending = true;
    m_inPlaceSid = sidPath;
    m_inPlaceOffsets = std::move(offsets);
}

void EventLogModel::OpenInPlace()
{
    CloseStreams();
    m_inPlacePending = false;
    m_inPlace = true;
    m_sidPath = m_inPlaceSid;
    // The session's log is the one written beside it, when there is one.
    m_logPath.clear();
    const size_t slash = m_sidPath.find_last_of('/');
    const std::string folder = slash == std::string::npos ? std::string() : m_sidPath.substr(0, slash + 1);
    std::string name = slash == std::string::npos ? m_sidPath : m_sidPath.substr(slash + 1);
    static const std::string kSidPrefix = "EventWindow_";
    if (name.compare(0, kSidPrefix.size(), kSidPrefix) == 0) {
        name = "LogWindow_" + name.substr(kSidPrefix.size());
        const size_t dot = name.find_last_of('.');
        const std::string log = folder + (dot == std::string::npos ? name : name.substr(0, dot)) + ".log";
        if (QFileInfo::exists(QString::fromStdString(log)))
            m_logPath = log;
    }
    m_recordNumber = 0;
    m_sidBytes = 0;
    m_sidBroken = false;
    // The opened files take a session's place: the .sid its events are read
    // back from, the record file (if any) their waves come from.
    auto records = std::make_shared<RecordStore>();
    if (!records->Open(RecordStore::PathBeside(m_sidPath)))
        records.reset();
    m_sidFiles.push_back(m_sidPath);
    m_recordFiles.push_back(records);
    m_records = records;
}

void EventLogModel::PlaceInSession(const MsgInfo& e)
{
    m_pendingOffset = -1;
    m_pendingNumber = 0;
    if (e.id <= 0)
        return;
    const auto place = static_cast<uint64_t>(e.id);
    if (place <= m_inPlaceOffsets.size())
        m_pendingOffset = static_cast<int64_t>(m_inPlaceOffsets[place - 1]);
    // The record stored under the event's place, if it is the event's own
    // (a record file that no longer lines up with its .sid gives none); a
    // damaged one is kept too, so that the event can say why it has no wave.
    uint32_t tag = 0;
    if (m_records && (m_records->Tag(place, &tag) ? tag == EventTag(e) : m_records->Damaged(place)))
        m_pendingNumber = place;
}

QString EventLogModel::RecordNote(const QStandardItemEx* item) const
{
    if (!item || item->mode != kItemEvent || item->isGroup || !item->recordNumber || item->session < 0 ||
        static_cast<size_t>(item->session) >= m_recordFiles.size())
        return QString();
    if (item->info && item->info->capture)
        return QString();
    const std::shared_ptr<RecordStore>& store = m_recordFiles[static_cast<size_t>(item->session)];
    if (store && store->Damaged(item->recordNumber))
        return QStringLiteral("Damaged in the record file: no wave");
    if (!store || !store->Has(item->recordNumber))
        return QStringLiteral("Not stored (the record file could not be written): no wave");
    return QString();
}

QString EventLogModel::SelectedRecordNote() const
{
    if (!m_selected.isValid())
        return QString();
    return RecordNote(static_cast<const QStandardItemEx*>(m_model.itemFromIndex(m_selected)));
}

void EventLogModel::StoreRecord(const MsgInfoPtr& e)
{
    m_pendingNumber = 0;
    if (!m_sid || !m_records)
        return;
    m_recordNumber += 1;
    if (!e->capture)
        return;
    // A record that cannot be stored (the store logs why, once) is dropped
    // all the same when its event leaves the live views: it shows no wave
    // rather than keep memory growing.
    m_records->Append(m_recordNumber, *e->capture, EventTag(*e));
    m_pendingNumber = m_recordNumber;
}

void EventLogModel::WriteSid(const MsgInfo& e)
{
    m_pendingOffset = -1;
    if (!m_sid)
        return;
    const size_t written = WriteSessionRecord(m_sid, e);
    if (!written) {
        // Later records may no longer begin where the count says: from here
        // on the session's events stay in memory whole.
        if (!m_sidBroken)
            Log::Printf("Could not write the session file %s: its events stay in memory from here.",
                        m_sidPath.c_str());
        m_sidBroken = true;
        return;
    }
    // A record longer than a reader takes would not read back whole.
    if (!m_sidBroken && written <= kSessionRecordBuffer)
        m_pendingOffset = static_cast<int64_t>(m_sidBytes);
    m_sidBytes += written;
}

void EventLogModel::MarkRecord(QStandardItemEx* item, const MsgInfo& e)
{
    // What the .sid does not keep stays with the item, with where its record
    // begins (an event whose record did not reach the .sid whole keeps its
    // event in memory instead).
    item->number = static_cast<int32_t>(e.common.eventNumber);
    item->direction = static_cast<int8_t>(e.direction);
    item->enqueueTick = e.enqueueTick;
    const std::string& status = e.packet.Status;
    item->status = status.empty() ? 0 : status == "NoError" ? 1 : status == "Error" ? 2 : 3;
    // The session's .sid and record file are made together: one index.
    if (m_sidFiles.empty() || m_sidFiles.size() > 32767)
        return;
    item->session = static_cast<int64_t>(m_sidFiles.size() - 1);
    // What the item's fields cannot give back exactly stays in memory whole.
    const bool kept = item->status != 3 && item->direction == e.direction;
    if (m_pendingOffset >= 0 && static_cast<uint64_t>(m_pendingOffset) < kNotInSid && kept)
        item->sidOffset = static_cast<uint64_t>(m_pendingOffset);
    else
        item->sidOffset = kNotInSid;
    if (m_pendingNumber && m_pendingNumber <= UINT32_MAX && (e.capture || m_inPlace))
        item->recordNumber = static_cast<uint32_t>(m_pendingNumber);
}

void EventLogModel::Release(QStandardItemEx* item)
{
    if (item && item->isGroup && item != m_phaseGroup && item != m_subGroup) {
        Compact(item);
        return;
    }
    if (!item || item->mode != kItemEvent || !item->info)
        return;
    if (item->session >= 0 && item->sidOffset != kNotInSid)
        item->info.reset();
    else if (item->recordNumber)
        item->info->capture.reset();
}

void EventLogModel::DropRecord(const QPersistentModelIndex& index)
{
    if (!index.isValid() || index == m_selected)
        return;
    Release(static_cast<QStandardItemEx*>(m_model.itemFromIndex(index)));
}

void EventLogModel::ReleaseOldRecords()
{
    while (m_live.size() > m_liveRecords) {
        Live& old = m_live.front();
        // A record not stored stays with its event: it has nowhere else.
        if (old.event && old.stored)
            old.event->capture.reset();
        DropRecord(old.item);
        m_live.pop_front();
    }
}

TriggerDataPtr EventLogModel::LoadRecord(const QStandardItemEx* item)
{
    if (!item || item->session < 0 || !item->recordNumber)
        return nullptr;
    const CacheKey key(item->session, item->recordNumber);
    for (auto it = m_cache.begin(); it != m_cache.end(); ++it) {
        if (it->first == key) {
            m_cache.splice(m_cache.begin(), m_cache, it);
            return m_cache.front().second;
        }
    }
    if (key.first < 0 || static_cast<size_t>(key.first) >= m_recordFiles.size() || !m_recordFiles[key.first])
        return nullptr;
    TriggerDataPtr record = m_recordFiles[key.first]->Load(key.second);
    if (!record)
        return nullptr;
    m_cache.emplace_front(key, record);
    while (m_cache.size() > kCachedRecords)
        m_cache.pop_back();
    return record;
}

MsgInfo& EventLogModel::Select(QStandardItemEx* item)
{
    const QPersistentModelIndex index(item->index());
    if (m_selected.isValid() && m_selected != index) {
        auto* before = static_cast<QStandardItemEx*>(m_model.itemFromIndex(m_selected));
        bool live = false;
        for (const Live& l : m_live)
            live = live || l.item == m_selected;
        if (before && !live)
            Release(before);
    }
    m_selected = index;
    // (A "Proprietary" phase group has the kind of an event; closed, it
    // expands from its digest as any group.)
    if (item->mode == kItemEvent && !item->isGroup && !item->info) {
        MsgInfoPtr event = LoadEvent(item);
        if (!event) {
            // The .sid became unreadable: the item shows what it still knows.
            Log::Printf("The event could not be read back from %s.",
                        item->session >= 0 && static_cast<size_t>(item->session) < m_sidFiles.size()
                            ? m_sidFiles[item->session].c_str()
                            : "its session file");
            event = std::make_shared<MsgInfo>();
            event->type = item->type;
            event->direction = item->direction;
            event->str = item->text();
        }
        item->info = std::make_unique<MsgInfo>(std::move(*event));
    }
    Expand(item);
    if (item->mode == kItemEvent && !item->info->capture)
        item->info->capture = LoadRecord(item);
    return *item->info;
}

MsgInfoPtr EventLogModel::LoadEvent(const QStandardItemEx* item) const
{
    if (!item || item->session < 0 || item->sidOffset == kNotInSid ||
        static_cast<size_t>(item->session) >= m_sidFiles.size() || m_sidFiles[item->session].empty())
        return nullptr;
    MsgInfoPtr e = ReadSessionRecordAt(m_sidFiles[item->session], item->sidOffset);
    if (!e)
        return nullptr;
    // Numbered as the tree numbered it, with what the .sid does not keep.
    const int32_t n = item->number;
    e->common.eventNumber = n;
    e->id = n;
    e->eventG.FirstEventNumber = n;
    e->eventG.lastEventNumber = n;
    e->direction = item->direction;
    e->enqueueTick = item->enqueueTick;
    static const char* const kStatus[] = {"", "NoError", "Error"};
    e->packet.Status = item->status < 3 ? kStatus[item->status] : "";
    return e;
}

void EventLogModel::SetRecordSource(const std::string& sidPath)
{
    m_source = std::make_unique<RecordStore>();
    if (!m_source->Open(RecordStore::PathBeside(sidPath)))
        m_source.reset();
}

QString EventLogModel::LogText() const
{
    QString text;
    for (const QString& line : m_logLines)
        text += line + QLatin1Char('\n');
    return text;
}

QString EventLogLine(int32_t number, const QString& text, int direction)
{
    const char* prefix = direction == 1 ? "Tx " : direction == 2 ? "Rx " : "   ";
    return QString::fromLatin1(prefix) + QStringLiteral("[%1] ").arg(number) + text;
}

void EventLogModel::LogLine(int32_t number, const QString& text, int direction)
{
    const QString line = EventLogLine(number, text, direction);
    m_logLines.append(line);
    m_linesWritten += 1;
    if (m_log) {
        const QByteArray utf8 = line.toUtf8();
        const char* kind = direction == 1 ? " FSK " : direction == 2 ? " ASK " : "";
        // Whole lines wait for the end of the batch (PushLogLines).
        m_logPending += TimeOfDay();
        m_logPending += kind;
        m_logPending.append(utf8.constData(), std::strlen(utf8.constData()));
        m_logPending += "\r\n";
    }
}

int EventLogModel::PhaseOf(const MsgInfo& e)
{
    const int t = e.type;
    if (e.direction == 1) {
        if (t == 0 || t == 48 || t == 49)
            return 3;
        return m_phase;
    }
    switch (t) {
    case 1:
    case 253:
        return 1;
    case 2:
        return m_phase == 5 ? 5 : 1;
    case 3:
    case 25:
        return m_calibration ? 4 : 5;
    case 4:
    case 5:
    case 256:
        return 5;
    case 6:
    case 81:
    case 113:
    case 129:
    case 258:
        return 2;
    case 7:
    case 9:
    case 32:
    case 34:
    case 84:
    case 85:
        return 3;
    case 49:
        if (!m_calibration)
            return 5;
        // The "Mode 2" received power is the last of calibration.
        if (e.str.contains(QStringLiteral("Mode 2")))
            m_calibration = 0;
        return 4;
    default:
        return m_phase;
    }
}

void EventLogModel::CloseGroups()
{
    SetPhaseGroup(nullptr);
    SetSubGroup(nullptr);
}

void EventLogModel::SetPhaseGroup(QStandardItemEx* group)
{
    if (m_phaseGroup && m_phaseGroup != group)
        Compact(m_phaseGroup);
    m_phaseGroup = group;
}

void EventLogModel::SetSubGroup(QStandardItemEx* group)
{
    if (m_subGroup && m_subGroup != group)
        Compact(m_subGroup);
    m_subGroup = group;
}

// A closed group takes no more events: of its record it keeps only what a
// group's record holds (totals, span, direction), a tenth of a whole record,
// and gets the whole record back when it is shown.
void EventLogModel::Compact(QStandardItemEx* group)
{
    if (!m_compactGroups || !group || !group->info || group->mode == kItemRoot ||
        QPersistentModelIndex(group->index()) == m_selected)
        return;
    auto digest = std::make_unique<GroupDigest>();
    digest->eventG = std::move(group->info->eventG);
    digest->timings = std::move(group->info->timings);
    digest->direction = group->info->direction;
    group->digest = std::move(digest);
    group->info.reset();
}

MsgInfo& EventLogModel::Expand(QStandardItemEx* item)
{
    if (!item->info) {
        item->info = std::make_unique<MsgInfo>();
        if (item->digest) {
            item->info->eventG = item->digest->eventG;
            item->info->timings = item->digest->timings;
            item->info->direction = item->digest->direction;
            item->info->type = item->type;
        }
    }
    return *item->info;
}

void EventLogModel::OpenGroup(const MsgInfo& e)
{
    SetSubGroup(nullptr);
    m_phase = PhaseOf(e);
    static const char* titles[] = {"Power Ping Phase", "ID & Configure Phase", "Nego Phase", "Calibration Phase",
                                   "Power Transfer Phase"};
    QStandardItemEx* group;
    if (m_phase >= 1 && m_phase <= 5)
        group = new QStandardItemEx(QString::fromLatin1(titles[m_phase - 1]), kItemPhase);
    else
        group = new QStandardItemEx(QStringLiteral("Proprietary"), kItemEvent);
    group->info->direction = e.direction;
    group->isGroup = true;
    m_root->appendRow(group);
    SetPhaseGroup(group);
    if (m_phase == 3)
        m_calibration = 1;
    if (groupOpened)
        groupOpened(PhaseName(m_phase), e);
}

void EventLogModel::PhaseStep(const MsgInfo& e)
{
    if (m_phaseGroup) {
        if (PhaseOf(e) != m_phase)
            OpenGroup(e);
    } else {
        OpenGroup(e);
    }
}

void EventLogModel::RollUp(QStandardItemEx* item, const MsgInfo& e)
{
    for (QStandardItem* at = item; at; at = at->parent()) {
        auto* x = static_cast<QStandardItemEx*>(at);
        if (x->mode == kItemEvent && x == item) {
            x->SetInfo(e);
            continue;
        }
        MsgInfo& info = Expand(x);
        EventGroup& g = info.eventG;
        g.eventCount += e.eventG.eventCount;
        g.failureCount += e.eventG.failureCount;
        g.warningCount += e.eventG.warningCount;
        if (g.FirstEventNumber == 0)
            g.FirstEventNumber = e.eventG.FirstEventNumber;
        g.lastEventNumber = e.eventG.lastEventNumber;
        TimingsGroup& t = info.timings;
        if (t.startTime == 0) {
            // Taken with the start only: a group's span stays its first event's.
            t.startTime = static_cast<int64_t>(e.timing.startTime);
            t.startTimeStamp = e.timing.startTimeStamp;
            t.endTime = static_cast<int64_t>(e.timing.endTime);
            t.endTimeStamp = e.timing.endTimeStamp;
        }
        t.duration = TimeText(t.endTime - t.startTime);
    }
}

void EventLogModel::RetitleSubGroup()
{
    if (!m_subGroup || m_subGroupErrors.empty())
        return;
    const ControlErrorMark* low = &m_subGroupErrors.front();
    const ControlErrorMark* high = low;
    for (const ControlErrorMark& e : m_subGroupErrors) {
        if (e.value < low->value)
            low = &e;
        if (e.value > high->value)
            high = &e;
    }
    auto told = [](const ControlErrorMark* e) {
        return QString::asprintf("%.1f", static_cast<double>(e->value)) + QStringLiteral("%") +
               QString::asprintf(" %dHZ", e->freq);
    };
    const char* kind = m_phase == 1 ? "Digital Ping" : "Control Error";
    m_subGroup->setText(QString::fromLatin1(kind) + QStringLiteral(": ") + told(low) + QStringLiteral(" to ") +
                        told(high) + QStringLiteral(" (%1 events)").arg(m_subGroup->rowCount()));
}

QString EventLogModel::PhaseName(int phase)
{
    static const char* names[] = {"Power Ping Phase", "Power Identify&Configure Phase", "Negotiation Phase",
                                  "Calibration Phase", "Power Transfer Phase"};
    return phase >= 1 && phase <= 5 ? QString::fromLatin1(names[phase - 1]) : QStringLiteral("Proprietary");
}

void EventLogModel::RetitlePhase()
{
    if (!m_phaseGroup || m_phaseGroup->mode != kItemPhase || m_phase < 1 || m_phase > 5)
        return;
    // The calibration group has no count in its title.
    if (m_phase == 4)
        m_phaseGroup->setText(PhaseName(4));
    else
        m_phaseGroup->setText(PhaseName(m_phase) +
                              QStringLiteral(" (%1 events)").arg(static_cast<qlonglong>(m_phaseGroup->info->eventG.eventCount)));
}

void EventLogModel::RetitleRoot()
{
    m_root->setText(m_rootTitle + QStringLiteral(" (%1 events)").arg(static_cast<qlonglong>(m_root->info->eventG.eventCount)));
}

QStandardItemEx* EventLogModel::AddToTree(const MsgInfoPtr& e)
{
    if (!m_phaseGroup) {
        Log::Printf("Must not Arrive there, state is not ok.");
        return nullptr;
    }
    QStandardItemEx* item = nullptr;
    if (e->type == kTypeDigitalPing || e->type == 3) {
        if (!m_subGroup) {
            const bool ping = e->type == kTypeDigitalPing;
            m_subGroup = new QStandardItemEx(ping ? QStringLiteral("Digital Ping") : QStringLiteral("Control Error"),
                                             ping ? kItemDigitalPing : kItemControlError);
            m_subGroup->isGroup = true;
            m_phaseGroup->appendRow(m_subGroup);
            m_subGroupErrors.clear();
        }
        item = new QStandardItemEx(QString(), kItemEvent);
        item->SetCompactText(Intern(e->str));
        MarkRecord(item, *e);
        m_subGroup->appendRow(item);
        m_subGroupErrors.push_back(ControlErrorMark{e->packet.controlErrorValue, e->packet.controlErrorFreq});
        RollUp(item, *e);
        RetitleSubGroup();
        return item;
    }
    const QString prefix = e->direction == 1 ? QStringLiteral("Tx ") : e->direction == 2 ? QStringLiteral("Rx ") : QString();
    item = new QStandardItemEx(QString(), kItemEvent);
    item->SetCompactText(Intern(prefix + e->str));
    MarkRecord(item, *e);
    m_phaseGroup->appendRow(item);
    SetSubGroup(nullptr);
    RollUp(item, *e);
    return item;
}

QByteArray EventLogModel::Intern(const QString& text)
{
    const QByteArray utf8 = text.toUtf8();
    const auto found = m_texts.constFind(utf8);
    if (found != m_texts.constEnd())
        return *found;
    // Texts that change with every event (powers, times) would fill the pool
    // for nothing: it starts again once full; items keep what they share.
    if (m_texts.size() >= kInternedTexts)
        m_texts.clear();
    m_texts.insert(utf8);
    return utf8;
}

void EventLogModel::ViolationItem(const MsgInfo& e)
{
    auto* item = new QStandardItemEx(Q(e.common.logData), kItemNotice);
    const int32_t number = m_nextNumber;
    item->info->common.eventNumber = number;
    item->info->common.logData = e.common.logData;
    item->info->common.typeString = e.common.typeString;
    item->info->common.Summary = e.common.Summary;
    item->info->timingsample.time = LocalTime("%Y-%m-%d %H:%M:%S");
    item->info->id = number;
    item->info->eventG.FirstEventNumber = number;
    item->info->eventG.lastEventNumber = number;
    item->info->type = e.type;
    item->type = e.type;
    m_root->appendRow(item);
    // A violation takes up two numbers: its record's and its item's.
    LogLine(number, e.str, 0);
    m_nextNumber += 1;
    CloseGroups();
    m_phase = 1;
    m_calibration = 0;
    RetitleRoot();
}

void EventLogModel::ContractItem(const MsgInfo& e)
{
    auto* item = new QStandardItemEx(e.str, kItemNotice);
    item->SetInfo(e);
    m_root->appendRow(item);
    CloseGroups();
    // Contract events come without a capture record; nothing to keep here.
}

void EventLogModel::AddEvents(const std::vector<MsgInfoPtr>& events)
{
    for (const MsgInfoPtr& e : events) {
        if (!e)
            continue;
        // An opened session's events get their records from its record file.
        if (m_source && !m_inPlace && !e->capture && e->id > 0) {
            uint32_t tag = 0;
            TriggerDataPtr record = m_source->Load(static_cast<uint64_t>(e->id), &tag);
            if (record && tag == EventTag(*e))
                e->capture = std::move(record);
        }
        if (m_inPlace) {
            PlaceInSession(*e);
        } else {
            WriteSid(*e);
            StoreRecord(e);
        }
        const int32_t number = m_nextNumber++;
        e->common.eventNumber = number;
        e->id = number;
        e->eventG.FirstEventNumber = number;
        e->eventG.lastEventNumber = number;

        if (e->type == kTypeViolation) {
            const int phase = m_phase;
            ViolationItem(*e);
            if (eventAdded)
                eventAdded(*e, phase);
            continue;
        }
        if (e->type != kTypeDeviceStatus && e->type != kTypeContract)
            LogLine(number, e->str, e->type == kTypeDigitalPing ? 0 : e->direction);
        if (e->type == kTypeContract) {
            ContractItem(*e);
            if (eventAdded)
                eventAdded(*e, m_phase);
            continue;
        }
        PhaseStep(*e);
        QStandardItemEx* item = AddToTree(e);
        RetitlePhase();
        if (eventAdded)
            eventAdded(*e, m_phase);
        if (item) {
            m_live.push_back(Live{QPersistentModelIndex(item->index()), e, m_pendingNumber != 0 && e->capture});
            ReleaseOldRecords();
        }
    }

    if (m_phaseGroup) {
        // Long sessions: the group keeps its first row and loses the next ones,
        // at most ten a batch; its totals go on counting them.
        for (int k = 0; k < 10 && m_phaseGroup->rowCount() > m_lineLimit / 10; ++k) {
            // With a limit below two rows the row removed can be the open
            // sub-group itself: the next event of its kind starts a new one.
            if (m_subGroup && m_phaseGroup->child(1) == m_subGroup)
                SetSubGroup(nullptr);
            m_phaseGroup->removeRow(1);
        }
    }
    while (m_logLines.size() > m_lineLimit)
        m_logLines.removeFirst();
    RetitleRoot();
    // The batch's lines reach the file at its end: a refresh behind at most.
    PushLogLines();
}

void EventLogModel::Marker(StandardItemMode mode, bool start)
{
    const std::string when = LocalTime("%Y-%m-%d %H:%M:%S");
    const DeviceGroup device = deviceGroup ? deviceGroup() : DeviceGroup();
    if (start) {
        m_nextNumber = 1;
        m_rootTitle = Q("Coilscope @ " + when);
        m_root->setText(m_rootTitle);
        m_root->info->device = device;
    }
    const std::string text = start ? "Start Acquisition: Acquisition started at " + when
                                   : "Stop Acquisition: Acquisition stoped at " + when;
    auto* item = new QStandardItemEx(Q(text), mode);
    item->info->device = device;
    item->info->common.logData = text;
    item->info->common.typeString = start ? "Start Acquisition" : "Stop Acquisition";
    item->info->common.Summary = (start ? "Acquisition started at" : "Acquisition stoped at") + when;
    item->info->timingsample.time = when;
    item->info->str = Q(text);
    m_root->appendRow(item);
    LogLine(m_nextNumber, Q(text), 0);
    PushLogLines();
    m_nextNumber += 1;
    CloseGroups();
}

void EventLogModel::StartAcquisition(const std::string&)
{
    if (m_root) {
        // A session shown in place writes nothing, not even its Start line
        // into the log of the session before it: its files are the opened ones.
        if (m_inPlacePending)
            CloseStreams();
        Marker(kItemStart, true);
        if (m_inPlacePending)
            OpenInPlace();
        else
            OpenStreams();
        m_phase = 1;
        m_calibration = 0;
    }
    m_lineLimit = WindowTime() * 500;
}

void EventLogModel::StopAcquisition(const std::string&)
{
    m_source.reset();
    m_inPlace = false;
    m_inPlacePending = false;
    m_inPlaceOffsets.clear();
    m_inPlaceOffsets.shrink_to_fit();
    if (!m_root)
        return;
    Marker(kItemStop, false);
    RetitleRoot();
}

void EventLogModel::ClearAll()
{
    for (Live& l : m_live)
        if (l.event && l.stored)
            l.event->capture.reset();
    m_live.clear();
    m_cache.clear();
    m_selected = QPersistentModelIndex();
    // No item points into the files of earlier sessions any more; their
    // slots stay so that the current file keeps its index.
    for (auto& f : m_recordFiles)
        if (f != m_records)
            f.reset();
    for (size_t i = 0; i + 1 < m_sidFiles.size(); ++i)
        m_sidFiles[i].clear();
    m_phaseGroup = m_subGroup = nullptr;
    m_model.clear();
    m_root = new QStandardItemEx(m_rootTitle, kItemRoot);
    m_model.appendRow(m_root);
    m_phase = 1;
    m_logLines.clear();
}
