#include "events/DecoderLink.h"

#include "common/Clock.h"
#include "services/SettingParams.h"

#include <algorithm>

void DecoderLink::AutoDacLevel(int64_t amplitude)
{
    if (m_manualActing.load(std::memory_order_relaxed))
        return;
    if (m_manager.GoodPackets() < 11)
        return;
    const int64_t now = TickMs();
    if (now - m_manager.LastLevelChange() < 201)
        return;
    m_manager.SetLastLevelChange(now);
    const int before = m_dacValue.load(std::memory_order_relaxed);
    int value = before;
    if (amplitude >= 3201)
        value += 10;
    else if (amplitude < 2800)
        value -= 10;
    value = std::min(value, 2400);
    value = std::max(value, 1500);
    m_dacValue.store(value, std::memory_order_relaxed);
    if (value != before && SettingParams::Instance().m_dac_manual == 0) {
        if (sendDac)
            sendDac(value);
        if (showDac)
            showDac(value);
    }
}

bool DecoderLink::ClaimLinkLoss()
{
    int64_t last = m_lastAskTime.load(std::memory_order_relaxed);
    if (last == 0 || TickMs() - last <= 1800)
        return false;
    // Two FSK loops may see the same loss; only one declares it.
    return m_lastAskTime.compare_exchange_strong(last, 0, std::memory_order_relaxed);
}

void DecoderLink::LinkLost()
{
    m_manager.ResetLink();
    m_manager.AddCepTimeout();
    const SettingParams& settings = SettingParams::Instance();
    if (settings.m_dac_manual == 0) {
        m_dacValue.store(settings.m_dac_value, std::memory_order_relaxed);
        if (sendDac)
            sendDac(settings.m_dac_value);
        if (showDac)
            showDac(settings.m_dac_value);
    }
}
