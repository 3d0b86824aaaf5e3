// The CA's serial file, which openssl-x509(1) reads, advances and writes back (-CAserial).
#pragma once

namespace opalcrt
{

inline constexpr char kSerialFile[] = "/usr/opal/etc/ssl/.mkcert.serial";

// One line, the machine's hardware address. Only the appliance's kernel has it.
inline constexpr char kMacAddressFile[] = "/proc/sys/kernel/opal_mac_address1";

// Whether the file must be made. An empty one counts as missing: openssl truncates it in place, and a kill
// just there would make every later signature fail for ever.
bool IsSerialFileMissing();

// Writes the file as a whole: the time and the end of the machine's MAC address, cut to 31 characters, and
// one "1" more where that is an odd number. The first line is the serial number in hexadecimal. The folder
// must exist. 0 on success; -1, logged, otherwise.
int genSerialFile();

}  // namespace opalcrt
