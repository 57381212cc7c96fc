// A callback receiver that notes what the dispatcher hands it: the slot, the
// packet's class and its fields. coilscope-cli prints from it; the tests check
// the dispatch tables with it.
#pragma once

#include "packets/Interface.h"

#include <string>
#include <vector>

struct DispatchedPacket {
    std::string slot;
    std::string className;  // empty for a raw frame (checksum error, proprietary)
    uint8_t header = 0;
    uint8_t checksum = 0;
    uint8_t size = 0;
    uint32_t direction = 0;
    std::string typeString;
    std::string summary;
    std::string logData;
    uint64_t powerValue = 0;
    double powerRatio = 0.0;
    std::string rawHex;  // for a raw frame: the spaced hex of its bytes
};

// The class name of a packet's dynamic type, without namespaces or decoration.
std::string PacketClassName(const CMsgData& packet);

class RecordingCallback : public CallbackInterface {
public:
    std::vector<DispatchedPacket> calls;

    void OnChecksumError(std::shared_ptr<CMsgData> frame) override { Raw("OnChecksumError", *frame); }
    void OnSignalStrength(CMsgData& p) override { Typed("OnSignalStrength", p); }
    void OnEndPowerTransfer(CMsgData& p) override { Typed("OnEndPowerTransfer", p); }
    void OnPowerControlHoldOff(CMsgData& p) override { Typed("OnPowerControlHoldOff", p); }
    void OnConfiguration(CMsgData& p) override { Typed("OnConfiguration", p); }
    void OnIdentification(CMsgData& p) override { Typed("OnIdentification", p); }
    void OnExtendedIdentification(CMsgData& p) override { Typed("OnExtendedIdentification", p); }
    void OnReserved7(CMsgData& p) override { Typed("OnReserved7", p); }
    void OnControlError(CMsgData& p) override { Typed("OnControlError", p); }
    void OnReceivedPower(CMsgData& p) override { Typed("OnReceivedPower", p); }
    void OnChargeStatus(CMsgData& p) override { Typed("OnChargeStatus", p); }
    void OnReceivedPower1_2_2(CMsgData& p) override { Typed("OnReceivedPower1_2_2", p); }
    void OnGeneralRequest(CMsgData& p) override { Typed("OnGeneralRequest", p); }
    void OnRenegotiate(CMsgData& p) override { Typed("OnRenegotiate", p); }
    void OnSpecificRequest(CMsgData& p) override { Typed("OnSpecificRequest", p); }
    void OnFODStatus(CMsgData& p) override { Typed("OnFODStatus", p); }
    void OnWPIDMost(CMsgData& p) override { Typed("OnWPIDMost", p); }
    void OnWPIDLast(CMsgData& p) override { Typed("OnWPIDLast", p); }
    void OnProprietary(std::shared_ptr<CMsgData> frame) override { Raw("OnProprietary", *frame); }
    void OnExControlError(CMsgData& p) override { Typed("OnExControlError", p); }
    void OnSimultaneousDataStreamResponse(CMsgData& p) override { Typed("OnSimultaneousDataStreamResponse", p); }
    void OnSimultaneousAuxiliaryDataControl(CMsgData& p) override { Typed("OnSimultaneousAuxiliaryDataControl", p); }
    void OnFSKDataNotAvailable(CMsgData& p) override { Typed("OnFSKDataNotAvailable", p); }
    void OnFSKIdentification(CMsgData& p) override { Typed("OnFSKIdentification", p); }
    void OnFSKCapability(CMsgData& p) override { Typed("OnFSKCapability", p); }
    void OnPacket(CMsgData& p) override { Typed("OnPacket", p); }

private:
    void Typed(const char* slot, CMsgData& packet);
    void Raw(const char* slot, const CMsgData& frame);
};
