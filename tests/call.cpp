// opalcrt-call FUNCTION JSON-ARRAY: calls what no command reaches and prints {"answer": ..., "state": ..., "errno": ...},
// the platform error state and errno after it.
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
#include "store/crt_info.h"
#include "store/service.h"
#include "store/service_folder.h"

using namespace opalcrt;

namespace {

using Value = Json::Value;
using Function = std::function<Value(const Value &arguments)>;

CsrSubject Subject(const Value &texts)
{
    const auto at = [&texts](Json::ArrayIndex i) { return texts.get(i, "").asString(); };
    return {at(0), at(1), at(2), at(3), at(4), at(5), at(6)};
}

// What an argument becomes. null is a null pointer where one is taken; a subject is an array of its seven texts.
// clang-format off
template <typename Type>
auto From(const Value &value)
{
    if constexpr (std::is_same_v<Type, Value>) { return value; }
    else if constexpr (std::is_same_v<Type, CsrSubject>) { return Subject(value); }
    else if constexpr (std::is_same_v<Type, const CsrSubject *>) {
        return value.isNull() ? nullptr : std::make_unique<CsrSubject>(Subject(value));
    } else if constexpr (std::is_same_v<Type, const SzList *>) {
        auto list = value.isNull() ? nullptr : YLIBCSzListAlloc(value.size());
        for (const Value &text : value) { list->items.push_back(text.asString()); }
        return list;
    } else if constexpr (std::is_pointer_v<Type>) { return value.isNull() ? nullptr : value.asCString(); }
    else { return value.as<Type>(); }
}

template <typename Type> const Type &Pass(const Type &value) { return value; }
template <typename Type> const Type *Pass(const std::unique_ptr<Type> &value) { return value.get(); }

template <typename Result, typename... Parameters>
Function Plain(Result (*function)(Parameters...))
{
    return [function](const Value &arguments) -> Value {
        return [&]<size_t... I>(std::index_sequence<I...>) {
            return function(Pass(From<std::remove_cvref_t<Parameters>>(arguments[Json::ArrayIndex(I)]))...);
        }(std::index_sequence_for<Parameters...>());
    };
}

#define PLAIN(function) {#function, Plain(function)}
const std::map<std::string, Function> kFunctions = {
    PLAIN(DeployDefCrt), PLAIN(CheckAndRecoverCrt), PLAIN(RecoverCrt), PLAIN(IsServiceObjValid),
    PLAIN(WriteCrtInfo),
    PLAIN(IsServiceFolderInRoot), PLAIN(RemoveServiceCertificate), PLAIN(DeployServiceCrt),
    PLAIN(DeployMultipleCrt), PLAIN(MoveDirectory), PLAIN(RecreateDirectory), PLAIN(RemovePath),
    PLAIN(CopyCrtFile), PLAIN(CheckRealDirectory), PLAIN(genDirectory), PLAIN(modifyCsrCfg), PLAIN(genCACnf),
    PLAIN(genServerCnf), PLAIN(genKey), PLAIN(genCsr), PLAIN(genCrt), PLAIN(genServerCrt),
    PLAIN(genSerialFile), PLAIN(checkCrtKeyMatch), PLAIN(genDefaultCrtSet), PLAIN(YLIBCExec),
    {"ReloadService", [](const Value &in) { return Value(ReloadService(in[0])); }},
    {"SetCrtForServices", [](const Value &in) {
        return Value(SetCrtForServices(in[0].asString(), in[1], in[2].asString(), in[3].asInt())); }},
    {"GetServiceCrtId", [](const Value &in) {
        std::string id = in[1].asString(); return Value(GetServiceCrtId(in[0], id)); }},
    // The object, or the place in the list of the one that is meant. Answers the new list.
    {"UpdateServiceList", [](const Value &in) {
        Value list = in[0];
        UpdateServiceList(list, in[1].isInt() ? list[in[1].asInt()] : in[1], in[2].asBool()); return list; }},
    {"GetCrtKeyTypes", [](const Value &in) {
        Value names(Json::arrayValue);
        for (const KeyType type : GetCrtKeyTypes(in[0].asString())) { names.append(KeyTypeName(type)); }
        return names; }},
    // Path, mode, seconds to wait for it, seconds to keep it.
    {"Lock", [](const Value &in) {
        int fd = -1;
        const int answer = YLIBCFileLockTimeByFile(in[0].asCString(), in[1].asInt(), in[2].asInt(), &fd);
        sleep(answer != 0 ? in[3].asUInt() : 0); return Value(answer); }},
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
    errno = 0;
    Value out;
    const Value answer = kFunctions.at(argv[1])(arguments);
    out["errno"] = errno;
    out["answer"] = answer;
    out["state"] = YLIBCErrGet();
    std::cout << Json::writeString(Json::StreamWriterBuilder(), out) << std::endl;
}
