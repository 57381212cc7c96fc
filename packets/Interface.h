// Packet dispatch: a raw frame becomes a typed packet, chosen by direction and
// header, and reaches the slot of the callback interface that handles it.
#pragma once

#include "packets/Packets.h"

#include <memory>
#include <string>

// The receiver of decoded packets: the data manager implements all 26 slots.
// A packet passed by reference lives on the dispatcher's stack for the call;
// a receiver copies what it keeps.
class CallbackInterface {
public:
    virtual ~CallbackInterface() = default;
    virtual void OnChecksumError(std::shared_ptr<CMsgData> frame) = 0;
    virtual void OnSignalStrength(CMsgData& packet) = 0;
    virtual void OnEndPowerTransfer(CMsgData& packet) = 0;
    virtual void OnPowerControlHoldOff(CMsgData& packet) = 0;
    virtual void OnConfiguration(CMsgData& packet) = 0;
    virtual void OnIdentification(CMsgData& packet) = 0;
    virtual void OnExtendedIdentification(CMsgData& packet) = 0;
    virtual void OnReserved7(CMsgData& packet) = 0;
    virtual void OnControlError(CMsgData& packet) = 0;
    virtual void OnReceivedPower(CMsgData& packet) = 0;
    virtual void OnChargeStatus(CMsgData& packet) = 0;
    virtual void OnReceivedPower1_2_2(CMsgData& packet) = 0;
    virtual void OnGeneralRequest(CMsgData& packet) = 0;
    virtual void OnRenegotiate(CMsgData& packet) = 0;
    virtual void OnSpecificRequest(CMsgData& packet) = 0;
    virtual void OnFODStatus(CMsgData& packet) = 0;
    virtual void OnWPIDMost(CMsgData& packet) = 0;
    virtual void OnWPIDLast(CMsgData& packet) = 0;
    virtual void OnProprietary(std::shared_ptr<CMsgData> frame) = 0;
    virtual void OnExControlError(CMsgData& packet) = 0;
    virtual void OnSimultaneousDataStreamResponse(CMsgData& packet) = 0;
    virtual void OnSimultaneousAuxiliaryDataControl(CMsgData& packet) = 0;
    virtual void OnFSKDataNotAvailable(CMsgData& packet) = 0;
    virtual void OnFSKIdentification(CMsgData& packet) = 0;
    virtual void OnFSKCapability(CMsgData& packet) = 0;
    virtual void OnPacket(CMsgData& packet) = 0;
};

class CInterface {
public:
    CInterface();
    virtual ~CInterface() = default;

    virtual void Dispatch(std::shared_ptr<CMsgData> frame);
    // A step between the status test and the table lookup: releases its
    // argument and always accepts.
    virtual bool Accept(std::shared_ptr<CMsgData> frame);
    virtual void SetCallback(CallbackInterface* callback);
    // The entry of the data manager's pump.
    virtual void Receive(const std::shared_ptr<CMsgData>& frame);

    // Forgets what the link negotiated: the held packets become empty ones.
    // The power reference stays.
    void Reset();
    void SetPowerReference(int watts) { powerReference = static_cast<float>(watts); }
    int PowerReference() const { return static_cast<int>(powerReference); }

    // True when the frame passes the status test: not an ASK frame with first
    // byte 0x00, and a Status of exactly "NoError".
    static bool StatusPasses(const CMsgData& frame);

    const Configuration& HeldConfiguration() const { return m_configuration; }
    const Identification& HeldIdentification() const { return m_identification; }
    const ExtendedIdentification& HeldExtendedIdentification() const { return m_extendedIdentification; }
    const FSKCapability& HeldFSKCapability() const { return m_fskCapability; }

private:
    bool DispatchAsk(uint8_t header, const uint8_t* bytes, CMsgData& raw);
    bool DispatchFsk(uint8_t header, const uint8_t* bytes, CMsgData& raw);

    CallbackInterface* m_callback = nullptr;
    Configuration m_configuration;
    Identification m_identification;
    ExtendedIdentification m_extendedIdentification;
    FSKCapability m_fskCapability;
    std::string m_unused;
    float powerReference = 5.0f;
};
