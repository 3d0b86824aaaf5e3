// opalcrt-call FUNCTION JSON-ARRAY: calls what no command reaches and prints {"answer": ..., "state": ..., "errno":
// ...}, the platform error state and errno after it.
#include <json/reader.h>
#include <json/writer.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <map>
#include <sstream>

#include "assign/engine.h"
#include "assign/recovery.h"
#include "assign/reload_hooks.h"
#include "deploy/dir_utils.h"
#include "mkcert/crt_creation.h"
#include "mkcert/default_set.h"
#include "mkcert/key_match.h"
#include "mkcert/serial_file.h"
#include "platform/error_state.h"
#include "platform/file_lock.h"
#include "store/crt_info.h"

using namespace opalcrt;

namespace {

using Value = Json::Value;

// clang-format off
// An element of the array, as whatever a function takes. null, also a missing one, is a null pointer; a subject is
// an array of its texts. One list is what a call needs at most.
struct Argument {
    const Value &value;

    Argument operator[](Json::ArrayIndex at) const { return {value[at]}; }
    operator const Value &() const { return value; }
    operator bool() const { return value.asBool(); }
    operator int() const { return value.asInt(); }
    operator unsigned() const { return value.asUInt(); }
    operator std::string() const { return value.asString(); }
    operator const char *() const { return value.isNull() ? nullptr : value.asCString(); }
    operator const SzList *() const
    {
        static SzList list;
        for (const Value &text : value) { list.items.push_back(text.asString()); }
        return value.isNull() ? nullptr : &list;
    }
};

#define CALL(name, ...) {#name, [](const Argument &in) { (void)in; return Value(name(__VA_ARGS__)); }}
const std::map<std::string, Value (*)(const Argument &in)> kFunctions = {
    CALL(DeployDefCrt, in[0], in[1], in[2]), CALL(SetCrtForServices, in[0], in[1], in[2], in[3]),
    CALL(CheckAndRecoverCrt, in[0]), CALL(WriteCrtInfo, in[0]),
    CALL(MoveDirectory, in[0], in[1]), CALL(ReloadService, in[0]),
    CALL(genCACnf, in[0]), CALL(genServerCnf, in[0], in[1]),
    CALL(genServerCrt, in[0], in[1], in[2], in[3], in[4], in[5]), CALL(genSerialFile),
    CALL(genDefaultCrtSet, in[0]), CALL(checkCrtKeyMatch, in[0], in[1]),
    // Path, mode, seconds to wait for it.
    {"Lock", [](const Argument &in) {
        int fd = -1;
        return Value(YLIBCFileLockTimeByFile(in[0], in[1], in[2], &fd)); }},
};
// clang-format on

}  // namespace

int main(int, char *argv[])
{
    Value arguments, out;
    std::istringstream(argv[2]) >> arguments;
    errno = 0;
    out["answer"] = kFunctions.at(argv[1])({arguments});
    out["errno"] = errno;
    out["state"] = YLIBCErrGet();
    std::cout << Json::writeString(Json::StreamWriterBuilder(), out) << '\n';
}
