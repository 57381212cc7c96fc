#include "app/SessionPrinter.h"

#include "app/CliShow.h"

SessionPrinter::SessionPrinter(EventLogModel& model, std::ostream& out, bool json)
    : m_model(model), m_out(out), m_json(json)
{
    m_builder["indentation"] = "";
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
