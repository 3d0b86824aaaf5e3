// Service definition files: SUBSCRIBER.cfg in the system's or the packages' definition directory, a JSON
// object of at most 1 MiB:
//   owner      string, required    user that owns the subscriber's services
//   isPkg      boolean, required   must agree with the directory
//   services   array, required     objects with `service` and `display_name` (strings, required),
//                                  `display_name_i18n` (string), `user_setable`, `multiple_cert` (booleans)
//   service    string              registers only this service when the command line names none
// All of it is UTF-8, as JSON is (RFC 8259, 8.1): other readers would refuse the books for what is not.
#pragma once

#include <json/value.h>
#include <sys/stat.h>

#include <optional>
#include <string>

namespace opalcrt {

// A definition's file: where it lies, and what it was when it was read.
struct DefinitionFile {
    std::string path;                 // empty when there is none
    std::optional<struct stat> read;  // nothing when it could not be opened
};

// Finds, reads and checks the subscriber's definition; the content of `services` is checked later. A file in
// the system's directory wins. `file` is the one that was chosen, also on failure: the caller removes it. A subscriber
// that is no usable name (store/names.h) is refused before any path is formed, and so is an owner that is too long
// for a user name: he would stand in both books once for each service. False, logged, at the first thing that is wrong.
bool LoadServiceConfig(const std::string &subscriber, Json::Value &definition, DefinitionFile &file);

// Removes the file that was read, and not another one that was dropped in its place meanwhile. What could not be
// opened is removed, too. False with errno set when that fails; one that is gone already (ENOENT) is removed.
bool RemoveDefinition(const DefinitionFile &file);

}  // namespace opalcrt
