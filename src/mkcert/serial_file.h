// The CA's serial file, which openssl-x509(1) reads, advances and writes back (-CAserial).
#pragma once

namespace opalcrt {

inline constexpr char kSerialFile[] = "/usr/opal/etc/ssl/.mkcert.serial";

// One line, the machine's hardware address. Only the appliance's kernel has it.
inline constexpr char kMacAddressFile[] = "/proc/sys/kernel/opal_mac_address1";

// Whether there is one that openssl can read (or that could not be looked at: openssl then says why). Any other must
// be made anew, or every signature would fail for ever: openssl truncates it in place, so a kill leaves it empty, and a
// clock before 2001 gave it an odd number of digits.
bool HasSerialFile();

// Writes the file as a whole: the time in decimal and the end of the machine's hardware address, cut to 31 characters,
// and one "1" more where that is an odd number; where openssl could not read this, its hexadecimal digits alone. The
// first line is the serial number in hexadecimal. The folder must exist. 0 on success; -1, logged, otherwise.
int genSerialFile();

}  // namespace opalcrt
