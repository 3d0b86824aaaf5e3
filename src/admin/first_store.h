// `opalcrt init`: the store of a machine that never had one.
#pragma once

namespace opalcrt {

// Makes the folders that the tool works in, the serial file where it can be made of nothing else, and the archive
// with one generated certificate, INFO, SERVICES and DEFAULT. An archive that holds anything is left alone, and that
// is said. The archive is made aside and renamed into place: a run that was cut off anywhere leaves none, and the next
// one begins anew. Takes the recovery lock. False, told, on failure.
bool InitStore();

}  // namespace opalcrt
