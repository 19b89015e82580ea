// Line settings applied to a descriptor that another library opened (the
// RTU client's), the same way SerialLine applies them to its own.
#ifndef ZQDEVICES_SERIAL_IOCTL_H
#define ZQDEVICES_SERIAL_IOCTL_H

#include <string>

#include "zqdevices/SerialLine.h"

namespace zqdevices {
namespace details {

// Switches the driver's RS-485 mode on. False with the reason in `error`;
// settings the driver changed are appended to `adjusted`.
bool set_rs485(int fd, const Rs485Settings& rs485, std::string& error, std::string& adjusted);
// Sets any speed (BOTHER for non-standard ones), keeping the other settings.
bool set_speed(int fd, unsigned int baud, std::string& error);

}  // namespace details
}  // namespace zqdevices

#endif
