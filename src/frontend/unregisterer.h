// opalcrtunregister SUBSCRIBER [SERVICE]
#pragma once

#include <json/value.h>

namespace opalcrt {

// Takes back what a registration gave: removes the subscriber's services, or the one that is named, from
// SERVICES, then from INFO, then deletes their folder; without a service the subscriber's whole folder. The
// info lock (exclusive, 10 s) is held for the whole run. Answers the exit status; on a failure one line on
// standard output names the stage (none when the lock cannot be had), and what earlier stages did stays.
//
// A name that a registration refuses (store/names.h) is only compared with what the books hold, so the books
// are cleaned of it. A caller who may not open root's lock goes on without it, since he can change nothing: the first
// step that he may not take says so.
int UnRegisterer(int argc, char *argv[]);

// Copies `owner` and `isPkg` of the first listed service that the request names into the request. False,
// logged, when INFO lists none.
bool FindServiceOwner(const Json::Value &info, Json::Value &request);

// Rewrites INFO without the request's services; entries keep an empty list. True also when there was nothing
// to remove. The caller holds the info lock exclusively. False, logged, with INFO untouched, except
// that the new one stands when only the sync of its folder failed; after a failed write the content as it was
// read is in INFO.bak, if that could be written.
bool RemoveServiceFromInfo(const Json::Value &request);

// Deletes the service's folder, or the subscriber's when the request has no service, or an empty one; when this
// is true the removal is on the disk. A link in its place is removed, and nothing of what it leads to. With the
// service's folder, or without one, goes what a cut-off registration left beside it (SERVICE.temp, SERVICE.bak). False,
// logged, when /bin/rm or the sync failed, and, before anything else is removed, unless the folder exists, lies in the
// certificate root outside the archive, and is reached without a link. Between that check and /bin/rm somebody could
// still exchange the subscriber's folder for a link; only who can write the certificate root can, and that is root.
bool RemoveServiceCertificate(const Json::Value &request);

}  // namespace opalcrt
