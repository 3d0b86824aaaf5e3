// opalcrt-call FUNCTION JSON-ARRAY: calls what no command reaches and prints {"answer": ..., "state": ..., "errno": ...},
// the platform error state and errno after it, and beside them what came back through other parameters.
#include <json/reader.h>
#include <json/writer.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>

#include "assign/engine.h"
#include "assign/recovery.h"
#include "assign/reload_hooks.h"
#include "common/scoped_lock.h"
#include "deploy/crt_files.h"
#include "deploy/deployment.h"
#include "deploy/dir_utils.h"
#include "deploy/key_types.h"
#include "frontend/unregisterer.h"
#include "mkcert/config_files.h"
#include "mkcert/crt_creation.h"
#include "mkcert/default_set.h"
#include "mkcert/key_match.h"
#include "mkcert/serial_file.h"
#include "platform/error_state.h"
#include "platform/file_lock.h"
#include "platform/process.h"
#include "platform/string_list.h"
#include "platform/users.h"
#include "store/crt_info.h"
#include "store/paths.h"

using namespace opalcrt;

namespace
{

using Value = Json::Value;
// What a function got, and what comes back beside its answer.
struct Call {
    const Value &arguments;
    Value &out;
    const Value &operator[](Json::ArrayIndex i) const { return arguments[i]; }
    std::string Text(Json::ArrayIndex i) const { return arguments[i].asString(); }
    const char *OrNull(Json::ArrayIndex i) const { return arguments[i].isNull() ? nullptr : arguments[i].asCString(); }
    uid_t Id(Json::ArrayIndex i) const { return arguments[i].asUInt(); }
};

// ["C", "ST", "L", "O", "OU", "CN", "email"]
CsrSubject Subject(const Value &fields)
{
    const auto at = [&fields](Json::ArrayIndex i) { return fields.get(i, "").asString(); };
    return {at(0), at(1), at(2), at(3), at(4), at(5), at(6)};
}

SzList List(const Value &texts)
{
    SzList list;
    for (const Value &text : texts) {
        list.items.push_back(text.asString());
    }
    return list;
}

const std::map<std::string, std::function<Value(const Call &)>> kFunctions = {
    {"DeployDefCrt", [](const Call &c) { return DeployDefCrt(c[0], c[1].asInt(), c.Text(2)); }},
    {"SetCrtForServices", [](const Call &c) { return SetCrtForServices(c.Text(0), c[1], c.Text(2), c[3].asInt()); }},
    {"CheckAndRecoverCrt", [](const Call &c) { return CheckAndRecoverCrt(c.Text(0)); }},
    {"RecoverCrt", [](const Call &c) { return RecoverCrt(c.Text(0), c.Text(1)); }},
    {"ReloadService", [](const Call &c) { return ReloadService(c[0]); }},
    {"IsServiceObjValid", [](const Call &c) { return IsServiceObjValid(c[0]); }},
    {"GetServiceCrtId",
     [](const Call &c) {
         std::string id = c.Text(1);
         const bool answer = GetServiceCrtId(c[0], id);
         c.out["cert_id"] = id;
         return answer;
     }},
    // The object, or the place in the list of the one that is meant.
    {"UpdateServiceList",
     [](const Call &c) {
         Value &list = c.out["list"] = c[0];
         UpdateServiceList(list, c[1].isInt() ? list[c[1].asInt()] : c[1], c[2].asBool());
         return Value();
     }},
    {"WriteCrtInfo", [](const Call &c) { return WriteCrtInfo(c[0]); }},
    {"GetDefCrtId", [](const Call &) { return GetDefCrtId(); }},
    {"IsServiceFolderInRoot",
     [](const Call &c) { return IsServiceFolderInRoot(c[0].asBool(), c.Text(1), c.Text(2)); }},
    {"RemoveServiceCertificate", [](const Call &c) { return RemoveServiceCertificate(c[0]); }},
    {"DeployServiceCrt", [](const Call &c) { return DeployServiceCrt(c.Text(0), c[1]); }},
    {"DeployMultipleCrt", [](const Call &c) { return DeployMultipleCrt(c.Text(0), c[1]); }},
    {"GetCrtKeyTypes",
     [](const Call &c) {
         Value names(Json::arrayValue);
         for (const KeyType type : GetCrtKeyTypes(c.Text(0))) {
             names.append(KeyTypeName(type));
         }
         return names;
     }},
    {"MoveDirectory", [](const Call &c) { return MoveDirectory(c.Text(0), c.Text(1)); }},
    {"RecreateDirectory", [](const Call &c) { return RecreateDirectory(c.Text(0), c[1].asUInt()); }},
    {"RemovePath", [](const Call &c) { return RemovePath(c.Text(0)); }},
    {"CopyCrtFile", [](const Call &c) { return CopyCrtFile(c.Text(0), c.Text(1), c.Text(2), c.Id(3), c.Id(4)); }},
    {"CheckRealDirectory", [](const Call &c) { return CheckRealDirectory(c.Text(0)); }},
    {"genDirectory", [](const Call &c) { return genDirectory(c.Text(0)); }},
    {"modifyCsrCfg", [](const Call &c) { return modifyCsrCfg(c.Text(0), Subject(c[1])); }},
    {"genCACnf", [](const Call &c) { return genCACnf(c.OrNull(0)); }},
    {"genServerCnf",
     [](const Call &c) {
         const SzList aliases = List(c[1]);
         return genServerCnf(c.OrNull(0), c[1].isNull() ? nullptr : &aliases);
     }},
    {"genKey", [](const Call &c) { return genKey(c.Text(0), c[1].asUInt()); }},
    {"genCsr",
     [](const Call &c) {
         const CsrSubject subject = Subject(c[3]);
         return genCsr(c.Text(0), c.Text(1), c.Text(2), c[3].isNull() ? nullptr : &subject);
     }},
    {"genCrt",
     [](const Call &c) {
         return genCrt(c.Text(0), c.Text(1), c.Text(2), c.Text(3), c.Text(4), c.Text(5), c[6].asBool(), c[7].asInt(),
                       c.Text(8));
     }},
    {"genServerCrt",
     [](const Call &c) { return genServerCrt(c.Text(0), c.Text(1), c.Text(2), c.Text(3), c[4].asInt(), c.Text(5)); }},
    {"genSerialFile", [](const Call &) { return genSerialFile(); }},
    {"checkCrtKeyMatch", [](const Call &c) { return checkCrtKeyMatch(c.Text(0), c.Text(1)); }},
    {"genDefaultCrtSet", [](const Call &c) { return genDefaultCrtSet(c.Text(0)); }},
    {"genCASet", [](const Call &c) { return genCASet(Subject(c[0]), c[1].asUInt(), c.Text(2)); }},
    {"genCrtSet", [](const Call &c) { return genCrtSet(Subject(c[0]), c[1].asUInt(), c.Text(2), c.Text(3)); }},
    {"OPALUserGetUGID",
     [](const Call &c) {
         uid_t uid = 0;
         gid_t gid = 0;
         const int answer = OPALUserGetUGID(c.Text(0), &uid, &gid);
         c.out["ids"].append(uid);
         c.out["ids"].append(gid);
         return answer;
     }},
    {"YLIBCExec",
     [](const Call &c) { return YLIBCExec(c.OrNull(0), c.OrNull(1), c.OrNull(2), c.OrNull(3), c.OrNull(4)); }},
    {"BlYLIBIsIpAddr", [](const Call &c) { return BlYLIBIsIpAddr(c.OrNull(0)); }},
    // Path, mode, seconds to wait for it, seconds to keep it.
    {"Lock",
     [](const Call &c) {
         int fd = -1;
         const int answer = YLIBCFileLockTimeByFile(c.OrNull(0), c[1].asInt(), c[2].asInt(), &fd);
         const int error = errno;
         sleep(answer != 0 ? c[3].asUInt() : 0);
         errno = error;
         return answer;
     }},
};

}  // namespace

int main(int argc, char *argv[])
{
    Value arguments;
    if (argc != 3 || !kFunctions.contains(argv[1]) || !(std::istringstream(argv[2]) >> arguments)) {
        std::cerr << "usage: opalcrt-call FUNCTION JSON-ARRAY\n";
        return 2;
    }
    Value out(Json::objectValue);
    errno = 0;
    const Value answer = kFunctions.at(argv[1])({arguments, out});
    out["errno"] = errno;
    out["answer"] = answer;
    out["state"] = YLIBCErrGet();
    std::cout << Json::writeString(Json::StreamWriterBuilder(), out) << std::endl;
}
