// Finding the sniffer: every port of the port pattern is asked what it is, and
// the device is found when its command, ASK and FSK ports have answered.
#pragma once

#include "capture/QSerialThread.h"

#include <memory>
#include <string>

// The printf pattern of the ports to scan, with one %d for 0 to 99: the
// environment variable COILSCOPE_PORTS if it is set, else "/dev/ttyACM%d".
std::string PortPattern();

struct DiscoveryResult {
    bool found = false;
    bool bootMode = false;
    bool firmwareHeaders = false;  // the firmware number is above 900
    std::string askPort;
    std::string commandPort;
    std::string fskPort;
    // The command port, open in reply mode, when one answered.
    std::unique_ptr<QSerialThread> command;
};

// Scans the ports 0 to 99 of the pattern. Each port that opens is stopped
// (0x07), drained for replyTotalMs, and asked which port it is (0x09). Stops
// when the device is found or a port says the device is in boot mode.
DiscoveryResult Discover(const std::string& pattern, int replyFirstMs = 150, int replyTotalMs = 300);

// Reads the device record over the command port into record (cleared first,
// 1024 bytes). Returns whether a record arrived.
bool ReadDeviceRecord(QSerialThread& command, uint8_t* record, int replyFirstMs = 150, int replyTotalMs = 300);
