#include "packets/Interface.h"

#include <cstdio>

CInterface::CInterface() = default;

void CInterface::SetCallback(CallbackInterface* callback)
{
    m_callback = callback;
}

void CInterface::Receive(const std::shared_ptr<CMsgData>& frame)
{
    Dispatch(frame);
}

bool CInterface::Accept(std::shared_ptr<CMsgData> frame)
{
    frame.reset();
    return true;
}

bool CInterface::StatusPasses(const CMsgData& frame)
{
    if (frame.FrameByte(0) == 0x00 && frame.direction == 2)
        return false;
    return frame.packet.Status == "NoError";
}

void CInterface::Reset()
{
    m_identification = Identification();
    m_configuration = Configuration();
    m_extendedIdentification = ExtendedIdentification();
    m_fskCapability = FSKCapability();
}

namespace {

// Copies what the raw frame knows about itself into the typed packet, and the
// packet's text back into the raw frame.
void CopyBlocks(CMsgData& packet, CMsgData& raw)
{
    packet.reserved1 = raw.reserved1;
    packet.reserved2 = raw.reserved2;
    packet.packet = raw.packet;
    packet.timing = raw.timing;
    packet.direction = raw.direction;
    packet.capture = raw.capture;
    raw.logData = packet.logData;
}

}  // namespace

void CInterface::Dispatch(std::shared_ptr<CMsgData> frame)
{
    if (!frame)
        return;
    if (!m_callback) {
        std::fputs("no callback,nothing to do\n", stdout);
        return;
    }
    if (!StatusPasses(*frame)) {
        m_callback->OnChecksumError(frame);
        return;
    }
    if (!Accept(frame)) {
        m_callback->OnChecksumError(frame);
        return;
    }
    const std::array<uint8_t, CMsgData::kFrameArea> area = frame->FrameArea();
    const uint8_t header = area[0];
    const bool known = frame->direction == 1 ? DispatchFsk(header, area.data(), *frame)
                                             : DispatchAsk(header, area.data(), *frame);
    if (!known)
        m_callback->OnProprietary(frame);
}

// Builds the packet of one table row on the stack, copies the frame's blocks
// into it and calls the row's slot.
#define COILSCOPE_ROW(Class, Slot, ...)          \
    {                                            \
        Class packet(__VA_ARGS__);               \
        CopyBlocks(packet, raw);                 \
        m_callback->Slot(packet);                \
        return true;                             \
    }

// The same for the four packets whose last copy the dispatcher holds: the held
// copy is updated before the slot is called.
#define COILSCOPE_HELD_ROW(Class, Held, Slot)    \
    {                                            \
        Class packet(bytes);                     \
        Held = packet;                           \
        CopyBlocks(packet, raw);                 \
        m_callback->Slot(packet);                \
        return true;                             \
    }

bool CInterface::DispatchAsk(uint8_t header, const uint8_t* bytes, CMsgData& raw)
{
    switch (header) {
    case 0x01: COILSCOPE_ROW(SignalStrength, OnSignalStrength, bytes)
    case 0x02: COILSCOPE_ROW(EndPowerTransfer, OnEndPowerTransfer, bytes)
    case 0x03: COILSCOPE_ROW(ControlError, OnControlError, bytes)
    case 0x04: COILSCOPE_ROW(ReceivedPower, OnReceivedPower, bytes, PowerReference())
    case 0x05: COILSCOPE_ROW(ChargeStatus, OnChargeStatus, bytes)
    case 0x06: COILSCOPE_ROW(PowerControlHoldOff, OnPowerControlHoldOff, bytes)
    case 0x07: COILSCOPE_ROW(GeneralRequest, OnGeneralRequest, bytes)
    case 0x09: COILSCOPE_ROW(Renegotiate, OnRenegotiate, bytes)
    case 0x18: COILSCOPE_ROW(CloakRequest, OnPacket, bytes)
    case 0x19: COILSCOPE_ROW(ExControlError, OnExControlError, bytes)
    case 0x20: COILSCOPE_ROW(SpecificRequest, OnSpecificRequest, bytes)
    case 0x22: COILSCOPE_ROW(FODStatus, OnFODStatus, bytes)
    case 0x28: COILSCOPE_ROW(GetRequest, OnPacket, bytes)
    case 0x29: COILSCOPE_ROW(EnableDataStreams, OnPacket, bytes)
    case 0x31: COILSCOPE_ROW(ReceivedPower1_2_2, OnReceivedPower1_2_2, bytes, PowerReference())
    case 0x38: COILSCOPE_ROW(SimultaneousDataStreamResponse, OnSimultaneousDataStreamResponse, bytes)
    case 0x48: COILSCOPE_ROW(SimultaneousAuxiliaryDataControl, OnSimultaneousAuxiliaryDataControl, bytes)
    case 0x51: COILSCOPE_HELD_ROW(Configuration, m_configuration, OnConfiguration)
    case 0x54: COILSCOPE_ROW(WPIDMost, OnWPIDMost, bytes)
    case 0x55: COILSCOPE_ROW(WPIDLast, OnWPIDLast, bytes)
    case 0x58: COILSCOPE_ROW(REPORT_PLA, OnPacket, bytes)
    case 0x71: COILSCOPE_HELD_ROW(Identification, m_identification, OnIdentification)
    case 0x78: COILSCOPE_ROW(PLAP, OnPacket, bytes)
    case 0x81: COILSCOPE_HELD_ROW(ExtendedIdentification, m_extendedIdentification, OnExtendedIdentification)
    case 0x84: COILSCOPE_ROW(ExtendedPowerReceiverCapabilities, OnPacket, bytes)
    default:
        return false;
    }
}

bool CInterface::DispatchFsk(uint8_t header, const uint8_t* bytes, CMsgData& raw)
{
    switch (header) {
    case 0x00: COILSCOPE_ROW(FSKDataNotAvailable, OnFSKDataNotAvailable, bytes)
    case 0x01: COILSCOPE_ROW(FSKErrorStatus, OnPacket, bytes)
    case 0x1E: COILSCOPE_ROW(FSKCLOAKRCS, OnPacket, bytes)
    case 0x1F: COILSCOPE_ROW(FSKChargeStatus, OnPacket, bytes)
    case 0x2E: COILSCOPE_ROW(FSKGetRequest, OnPacket, bytes)
    case 0x2F: COILSCOPE_ROW(FSKEDS, OnPacket, bytes)
    case 0x30: COILSCOPE_ROW(FSKIdentification, OnFSKIdentification, bytes)
    case 0x31: COILSCOPE_HELD_ROW(FSKCapability, m_fskCapability, OnFSKCapability)
    case 0x3F: COILSCOPE_ROW(FSKINVSDSRKEST, OnPacket, bytes)
    case 0x4F: COILSCOPE_ROW(SimultaneousAuxiliaryDataControl, OnPacket, bytes)
    case 0x5F: COILSCOPE_ROW(FSKPLAP, OnPacket, bytes)
    case 0x8F: COILSCOPE_ROW(FSKXIDECAP, OnPacket, bytes)
    default:
        return false;
    }
}

#undef COILSCOPE_ROW
#undef COILSCOPE_HELD_ROW
