// opalcrtunregister SUBSCRIBER [SERVICE]
#pragma once

#include <json/value.h>

namespace opalcrt
{

// Takes back what a registration gave: removes the subscriber's services, or the one that is named, from
// SERVICES, then from INFO, then deletes their folder; without a service the subscriber's whole folder. The
// info lock (exclusive, 10 s) is held for the whole run. Answers the exit status; on a failure one line on
// standard output names the stage (none when the lock cannot be had), and what earlier stages did stays.
//
// A name that a registration refuses (store/names.h) is only compared with what the books hold, so the books
// are cleaned of it; the folder is refused.
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
// is true the removal is on the disk. False, logged, when /bin/rm or that sync failed, and, before anything is
// removed, unless the folder is a real one, reached without a link and outside the archive. Between that check and
// /bin/rm somebody could still exchange the folder for a link; only who can write the certificate root or the
// subscriber's folder can do that, and both are root's.
bool RemoveServiceCertificate(const Json::Value &request);

}  // namespace opalcrt
