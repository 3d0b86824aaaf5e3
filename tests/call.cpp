// opalcrt-call FUNCTION JSON-ARRAY: calls what no command reaches and prints {"answer": ..., "state": ..., "errno": ...},
// the platform error state and errno after it, and beside them what came back through other parameters.
#include <json/reader.h>
#include <json/writer.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <type_traits>
#include <utility>

#include "assign/engine.h"
#include "assign/recovery.h"
#include "assign/reload_hooks.h"
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
#include "store/default_crt.h"
#include "store/paths.h"
#include "store/service.h"
#include "store/service_folder.h"

using namespace opalcrt;

namespace {

using Value = Json::Value;
using Function = std::function<Value(const Value &arguments, Value &out)>;

CsrSubject Subject(const Value &texts)
{
    const auto at = [&texts](Json::ArrayIndex i) { return texts.get(i, "").asString(); };
    return {at(0), at(1), at(2), at(3), at(4), at(5), at(6)};
}

// What an argument becomes. null is a null pointer where one is taken; a subject is an array of its seven texts.
template <typename Type>
auto From(const Value &value)
{
    if constexpr (std::is_same_v<Type, Value>) {
        return value;
    } else if constexpr (std::is_same_v<Type, CsrSubject>) {
        return Subject(value);
    } else if constexpr (std::is_same_v<Type, const CsrSubject *>) {
        return value.isNull() ? nullptr : std::make_unique<CsrSubject>(Subject(value));
    } else if constexpr (std::is_same_v<Type, const SzList *>) {
        auto list = value.isNull() ? nullptr : YLIBCSzListAlloc(value.size());
        for (const Value &text : value) {
            list->items.push_back(text.asString());
        }
        return list;
    } else if constexpr (std::is_same_v<Type, const char *>) {
        return value.isNull() ? nullptr : value.asCString();
    } else {
        return value.as<Type>();
    }
}

template <typename Type>
const Type &Pass(const Type &value)
{
    return value;
}
template <typename Type>
const Type *Pass(const std::unique_ptr<Type> &value)
{
    return value.get();
}

template <typename Result, typename... Parameters>
Function Plain(Result (*function)(Parameters...))
{
    return [function](const Value &arguments, Value &) -> Value {
        return [&]<size_t... I>(std::index_sequence<I...>)
        {
            return function(Pass(From<std::remove_cvref_t<Parameters>>(arguments[Json::ArrayIndex(I)]))...);
        }
        (std::index_sequence_for<Parameters...>());
    };
}

#define PLAIN(function)            \
    {                              \
#function, Plain(function) \
    }

// clang-format off
const std::map<std::string, Function> kFunctions = {
    PLAIN(DeployDefCrt), PLAIN(CheckAndRecoverCrt), PLAIN(RecoverCrt),
    PLAIN(IsServiceObjValid), PLAIN(WriteCrtInfo), PLAIN(GetDefCrtId), PLAIN(IsServiceFolderInRoot),
    PLAIN(RemoveServiceCertificate), PLAIN(DeployServiceCrt), PLAIN(DeployMultipleCrt), PLAIN(MoveDirectory),
    PLAIN(RecreateDirectory), PLAIN(RemovePath), PLAIN(CopyCrtFile), PLAIN(CheckRealDirectory), PLAIN(genDirectory),
    PLAIN(modifyCsrCfg), PLAIN(genCACnf), PLAIN(genServerCnf), PLAIN(genKey), PLAIN(genCsr), PLAIN(genCrt),
    PLAIN(genServerCrt), PLAIN(genSerialFile), PLAIN(checkCrtKeyMatch), PLAIN(genDefaultCrtSet), PLAIN(genCASet),
    PLAIN(genCrtSet), PLAIN(YLIBCExec), PLAIN(BlYLIBIsIpAddr),
    {"ReloadService", [](const Value &in, Value &) { return Value(ReloadService(in[0])); }},
    {"SetCrtForServices", [](const Value &in, Value &) {
        return Value(SetCrtForServices(in[0].asString(), in[1], in[2].asString(), in[3].asInt()));
    }},
    {"GetServiceCrtId", [](const Value &in, Value &out) {
        std::string id = in[1].asString();
        const bool answer = GetServiceCrtId(in[0], id);
        out["cert_id"] = id;
        return Value(answer);
    }},
    // The object, or the place in the list of the one that is meant.
    {"UpdateServiceList", [](const Value &in, Value &out) {
        Value &list = out["list"] = in[0];
        UpdateServiceList(list, in[1].isInt() ? list[in[1].asInt()] : in[1], in[2].asBool());
        return Value();
    }},
    {"GetCrtKeyTypes", [](const Value &in, Value &) {
        Value names(Json::arrayValue);
        for (const KeyType type : GetCrtKeyTypes(in[0].asString())) {
            names.append(KeyTypeName(type));
        }
        return names;
    }},
    {"OPALUserGetUGID", [](const Value &in, Value &out) {
        uid_t uid = 0;
        gid_t gid = 0;
        const int answer = OPALUserGetUGID(in[0].asString(), &uid, &gid);
        out["uid"] = uid;
        out["gid"] = gid;
        return Value(answer);
    }},
    // Path, mode, seconds to wait for it, seconds to keep it.
    {"Lock", [](const Value &in, Value &) {
        int fd = -1;
        const int answer = YLIBCFileLockTimeByFile(in[0].asCString(), in[1].asInt(), in[2].asInt(), &fd);
        if (answer != 0) {
            sleep(in[3].asUInt());
        }
        return Value(answer);
    }},
};
// clang-format on

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
    const Value answer = kFunctions.at(argv[1])(arguments, out);
    out["errno"] = errno;
    out["answer"] = answer;
    out["state"] = YLIBCErrGet();
    std::cout << Json::writeString(Json::StreamWriterBuilder(), out) << std::endl;
}
