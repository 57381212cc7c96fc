// The arbitrary line rate of a serial port (1024000 baud is no standard rate).
// Kept apart from SerialPort because the kernel's termios2 header cannot live
// in the same translation unit as <termios.h>.
#pragma once

// Sets input and output rate of the open terminal fd to baud through the
// termios2/BOTHER interface. Returns true when the driver took the request;
// a driver that ignores rates (a pseudo-terminal) may accept it or refuse it.
bool SetArbitraryBaud(int fd, int baud);
