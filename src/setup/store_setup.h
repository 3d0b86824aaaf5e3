// The empty store of a machine that never had one: what the tool itself never makes.
#pragma once

namespace opalcrt {

// Makes the folders that the tool works in, and, unless the archive holds anything already, one certificate, under a
// random id, and the books: INFO that lists it without services, an empty SERVICES, DEFAULT that names it. Where
// there is neither a serial file nor the kernel file that one is made from, a random one is written.
//
// What is there is never changed. A run that was cut off anywhere is completed by the next one: the certificate comes
// first, then INFO, SERVICES, the record of what was made (setup/record.h), and last DEFAULT, without which
// nothing is registered. Takes the recovery lock. False, told on standard error, on failure; what was made stays.
bool SetUpStore();

}  // namespace opalcrt
