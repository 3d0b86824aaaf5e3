// Feeds bytes from nowhere to whatever reads a file of the tool: each input becomes the file that FUZZ_FILE names, at
// its real path, and what reads any file is called. It must not crash, and leave the file as it is or whole. libFuzzer
// drives it, or, with any compiler, the main below: opalcrt-fuzz INPUT...
#include <json/reader.h>

#include <cstdlib>
#include <sstream>

#include "assign/recovery.h"
#include "checksum/crt_checksums.h"
#include "common/json_file.h"
#include "deploy/key_types.h"
#include "frontend/definition_file.h"
#include "frontend/registerer.h"
#include "frontend/services_list.h"
#include "frontend/unregisterer.h"
#include "mkcert/key_match.h"
#include "platform/atomic_file.h"
#include "platform/file_read.h"
#include "store/crt_info.h"
#include "store/default_crt.h"
#include "store/paths.h"

using namespace opalcrt;

namespace {

#define REQUIRE(what) ((what) ? void() : (fprintf(stderr, "line %d: not %s\n", __LINE__, #what), abort()))

// clang-format off
std::string Get(const std::string &path)
{
    std::string text;
    REQUIRE(ReadWhole(OpenRegularFile(path.c_str()).Get(), SIZE_MAX, text));
    return text;
}

const Json::Value kOurs = [] {
    Json::Value list;
    std::istringstream in(R"({"subscriber":"p","service":"s","display_name":"d","owner":"o","isPkg":true})");
    in >> list[0];
    return list;
}();

// Answers whether it was done: then the file is another one, and JSON.
bool (*const kChanges[])() = {
    [] { return AppendRegisterServices(kOurs); },
    [] { return RemoveRegisterServices("p", ""); },
    [] { return RemoveServiceFromInfo(kOurs[0]); },
};
// clang-format on

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *const named = getenv("FUZZ_FILE");
    const std::string path = named == nullptr ? "" : named, input(reinterpret_cast<const char *>(data), size);
    Json::Value value, services;
    for (const auto change : kChanges) {
        REQUIRE(ReplaceFile(path, input, ""));
        REQUIRE((change() && fromFile(path, value)) || Get(path) == input);
    }
    REQUIRE(ReplaceFile(kServicesPath, "[]", "") && ReplaceFile(path, input, ""));
    std::string id = GetDefCrtId();
    REQUIRE(id.size() <= 15 && !ParseKeyTypes(input).empty());
    GetServiceCrtId(kOurs[0], id);
    CheckAndRecoverCrt("c");
    ListCrtChecksums(value = Json::arrayValue);
    const std::string folder = std::string(kArchive) + "/c/";
    checkCrtKeyMatch(folder + "cert.pem", folder + "privkey.pem");
    checkCrtKeyMatch(folder + "fullchain.pem", folder + "cert.pem");
    if (DefinitionFile file; LoadServiceConfig("p", value, file)) {
        value["subscriber"] = "p";
        REQUIRE(!PrepareServices(value, services) || AppendRegisterServices(services));
    }
    // A byte order mark is taken from a certificate or key, and nothing else.
    REQUIRE(input.ends_with(Get(path)) && Get(path).size() + 6 >= size);
    return 0;
}

#ifndef OPALCRT_FUZZ
int main(int argc, char *argv[])
{
    for (int i = 1; i < argc; ++i) {
        const std::string input = Get(puts(argv[i]) < 0 ? "" : argv[i]);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
    }
}
#endif
