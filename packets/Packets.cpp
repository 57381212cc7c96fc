#include "packets/Packets.h"

#include "common/TimeText.h"

uint8_t CMsgData::FrameByte(size_t i) const
{
    if (i < kMessageBytes)
        return message[i];
    if (i == kMessageBytes)
        return checksum;
    if (i == kMessageBytes + 1)
        return size;
    return 0;
}

void CMsgData::SetFrameByte(size_t i, uint8_t value)
{
    if (i < kMessageBytes)
        message[i] = value;
    else if (i == kMessageBytes)
        checksum = value;
    else if (i == kMessageBytes + 1)
        size = value;
}

void CMsgData::SetFrame(const uint8_t* bytes, size_t n)
{
    for (size_t i = 0; i < n && i < kFrameArea; ++i)
        SetFrameByte(i, bytes[i]);
    size = static_cast<uint8_t>(n);
}

std::array<uint8_t, CMsgData::kFrameArea> CMsgData::FrameArea() const
{
    std::array<uint8_t, kFrameArea> area{};
    for (size_t i = 0; i < kFrameArea; ++i)
        area[i] = FrameByte(i);
    return area;
}

void FillTiming(CMsgData& frame, const TriggerData& capture, uint64_t carrierHz)
{
    TimingRecord& t = frame.timing;
    t.startTime = capture.startTime;
    t.endTime = capture.endTime;
    t.bitTimesUs = capture.endTime - capture.startTime;
    t.carrierCurrentHz = carrierHz;
    t.startTimeStamp = TimeText(static_cast<int64_t>(t.startTime));
    t.endTimeStamp = TimeText(static_cast<int64_t>(t.endTime));
    t.duration = TimeText(static_cast<int64_t>(t.bitTimesUs));
}
