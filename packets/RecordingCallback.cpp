#include "packets/RecordingCallback.h"

#include "common/TimeText.h"

#include <cxxabi.h>

#include <cstdlib>
#include <typeinfo>

std::string PacketClassName(const CMsgData& packet)
{
    int status = 0;
    char* demangled = abi::__cxa_demangle(typeid(packet).name(), nullptr, nullptr, &status);
    std::string name = status == 0 && demangled ? demangled : typeid(packet).name();
    std::free(demangled);
    const size_t colon = name.rfind("::");
    return colon == std::string::npos ? name : name.substr(colon + 2);
}

void RecordingCallback::Typed(const char* slot, CMsgData& packet)
{
    DispatchedPacket d;
    d.slot = slot;
    d.className = PacketClassName(packet);
    d.header = packet.header;
    d.checksum = packet.checksum;
    d.size = packet.size;
    d.direction = packet.direction;
    packet.typeString(d.typeString);
    packet.Summary(d.summary);
    d.logData = packet.logData;
    d.powerValue = packet.powerValue;
    d.powerRatio = packet.powerRatio;
    calls.push_back(d);
}

void RecordingCallback::Raw(const char* slot, const CMsgData& frame)
{
    DispatchedPacket d;
    d.slot = slot;
    d.header = frame.FrameByte(0);
    d.size = frame.size;
    d.direction = frame.direction;
    const auto area = frame.FrameArea();
    d.rawHex = SpacedHex(area.data(), std::min<size_t>(frame.size, area.size()));
    calls.push_back(d);
}
