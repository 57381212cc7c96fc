// Events as the data manager makes them, for the widget tests.
#pragma once

#include "events/MsgInfo.h"

#include <memory>
#include <string>

inline MsgInfoPtr MakeEvent(int type, int direction, const std::string& text, const std::string& hex = std::string())
{
    auto e = std::make_shared<MsgInfo>();
    e->type = type;
    e->direction = direction;
    e->str = QString::fromStdString(text);
    e->common.logData = text;
    e->common.typeString = "Packet";
    e->packet.PacketData = hex;
    e->eventG.eventCount = 1;
    return e;
}

inline MsgInfoPtr ControlError(double percent)
{
    auto e = MakeEvent(3, 2, "ControlError " + std::to_string(percent), "03 00 03 ");
    e->packet.controlErrorValue = static_cast<float>(percent);
    e->packet.controlErrorFreq = 120000;
    return e;
}
