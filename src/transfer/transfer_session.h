#ifndef TRANSFER_TRANSFER_SESSION_H
#define TRANSFER_TRANSFER_SESSION_H

class FirmwareImage;
class OrvinGroup;

// Brings the open image to every device of the device list and starts its installation. True when
// the content went out whole; devices that failed a step have then left the device list, each with
// a line on the console. Main thread.
[[nodiscard]] bool transferFirmware(OrvinGroup& group, FirmwareImage& image);

#endif
