// What the package has made on this machine, noted so that purging it removes that and nothing else. The notes lie
// in /var/lib/opalcrt and are for sh and coreutils (the package's postrm runs when this program is gone already):
//   folders      one path a line, in the order of making, each noted before it is made
//   checksums    as sha256sum(1) writes it: the files of the store and of the certificate generation, as made
//   unfinished   the id of the certificate whose store is being made; gone when the store is whole
#pragma once

#include <string>
#include <vector>

namespace opalcrt {

inline constexpr char kRecordFolder[] = "/var/lib/opalcrt";
inline constexpr char kFoldersRecord[] = "/var/lib/opalcrt/folders";
inline constexpr char kChecksumsRecord[] = "/var/lib/opalcrt/checksums";
inline constexpr char kUnfinishedRecord[] = "/var/lib/opalcrt/unfinished";

// Reads a small file whole; a missing one is empty. False with errno set when it cannot be read.
bool ReadRecord(const char *path, std::string &text);

// Makes the absolute folder and those missing above it, root's with mode 0755, and notes each before it is made. What
// is there already is not touched. The record's own folder must exist. False with errno set.
bool MakeNotedFolder(const std::string &path);

// The lines of `checksums` for every regular file at and below the folder, added to `lines`. False with errno set.
bool AppendChecksums(const std::string &folder, std::string &lines);

// One such line, for a file that holds `text`.
std::string ChecksumLine(const std::string &path, const std::string &text);

}  // namespace opalcrt
