#include "app/SessionPrinter.h"

#include "analysis/Export.h"
#include "app/CliShow.h"

SessionPrinter::SessionPrinter(EventLogModel& model, std::ostream& out, bool json, const analysis::Filter* filter)
    : m_model(model), m_out(out), m_json(json), m_filter(filter && !filter->IsEmpty() ? filter : nullptr)
{
    m_builder["indentation"] = "";
    if (m_filter) {
        m_model.eventAdded = [this](const MsgInfo& e, int phase) {
            if (m_filter->Matches(m_fields.Next(e, e.id, phase)))
                m_matched.insert(&e);
        };
        if (!json) {
            m_model.groupOpened = [this](const QString& phase, const MsgInfo&) {
                m_pendingHeading = "-- " + phase.toStdString() + " --";
            };
        }
        return;
    }
    if (json)
        return;
    m_model.groupOpened = [this](const QString& phase, const MsgInfo& e) {
        // The event that opened the group has written its line already,
        // unless it is one of the kinds that the log leaves out.
        const bool hasLine = e.type != kTypeDeviceStatus && e.type != kTypeContract;
        const int64_t at = m_model.LinesWritten() - (hasLine ? 1 : 0);
        m_headings[at] = "-- " + phase.toStdString() + " --";
    };
}

void SessionPrinter::Before()
{
    m_before = m_model.LinesWritten();
}

void SessionPrinter::After(const std::vector<MsgInfoPtr>& batch)
{
    if (m_filter) {
        for (const auto& e : batch) {
            if (!m_matched.count(e.get()))
                continue;
            m_shown += 1;
            if (m_json) {
                m_out << Json::writeString(m_builder, EventJson(*e)) << "\n";
                continue;
            }
            const std::string line = analysis::EventLogText(*e, e->id);
            if (line.empty())
                continue;
            if (!m_pendingHeading.empty()) {
                m_out << m_pendingHeading << "\n";
                m_pendingHeading.clear();
            }
            m_out << line << "\n";
        }
        m_matched.clear();
        m_out.flush();
        return;
    }
    if (m_json) {
        for (const auto& e : batch)
            m_out << Json::writeString(m_builder, EventJson(*e)) << "\n";
        m_out.flush();
        return;
    }
    const QStringList& lines = m_model.LogLines();
    const int64_t written = m_model.LinesWritten();
    // Lines trimmed within the batch (more than the line limit at once) are
    // gone from the model: the newest ones are shown.
    const int64_t first = std::max(m_before, written - static_cast<int64_t>(lines.size()));
    for (int64_t n = first; n < written; ++n) {
        auto heading = m_headings.find(n);
        if (heading != m_headings.end())
            m_out << heading->second << "\n";
        m_out << lines[static_cast<int>(lines.size() - (written - n))].toStdString() << "\n";
    }
    // A heading with no line after it yet waits for the next batch.
    m_headings.erase(m_headings.begin(), m_headings.lower_bound(written));
    m_out.flush();
}
