// Service definition files: SUBSCRIBER.cfg in the system's or the packages' definition directory, a JSON
// object of at most 4 MiB:
//   owner      string, required    user that owns the subscriber's services
//   isPkg      boolean, required   must agree with the directory
//   services   array, required     objects with `service` and `display_name` (strings, required),
//                                  `display_name_i18n` (string), `user_setable`, `multiple_cert` (booleans)
//   service    string              registers only this service when the command line names none
// All strings that are used are UTF-8.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>

namespace opalcrt
{

// Some thousand services. Without it one package could fill both books up to their limit (common/json_file.h): it holds
// for the service objects that are made of a definition as well, each of which has the owner and the subscriber in it.
inline constexpr size_t kLargestDefinition = 4UL * 1024 * 1024;

// Finds, reads and checks the subscriber's definition; the content of `services` is checked later. A file in
// the system's directory wins. `path` is the file that was chosen, empty when none was, also on failure: the
// caller removes it. A subscriber that is no usable name (store/names.h) is refused before any path is
// formed. False, logged, at the first thing that is wrong.
bool LoadServiceConfig(const std::string &subscriber, Json::Value &definition, std::string &path);

}  // namespace opalcrt
