// What a caller may have left strange in the process that it started.
#pragma once

namespace opalcrt {

// To be called before anything is opened. Afterwards descriptors 0, 1 and 2 are taken, so that no file of
// ours can become standard output; one that the caller had closed gives an error when it is used (it is
// /dev/null, opened the wrong way round). SIGCHLD is at its default, because an ignored one survives exec and
// would lose the children's statuses (wait(2)); SIGPIPE and SIGXFSZ are ignored, so that a reader that
// went away, or a caller's limit on the size of files, is a failed write and not a silent death half-way. No signal
// handler is installed, and the umask stays the caller's. False when the descriptors could not be filled: the process
// must end.
[[nodiscard]] bool PrepareProcess();

// Prints this platform's one-line banner to standard output.
void PrintBanner();

}  // namespace opalcrt
