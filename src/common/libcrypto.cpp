#include "common/libcrypto.h"

#include <dlfcn.h>

#include "common/log.h"

namespace opalcrt
{

namespace
{

// The version whose headers were compiled.
#define OPALCRT_TEXT_OF(macro) OPALCRT_TEXT(macro)
#define OPALCRT_TEXT(word) #word
constexpr char kLibrary[] = "libcrypto.so." OPALCRT_TEXT_OF(OPENSSL_SHLIB_VERSION);

template <typename Function>
bool Find(void *library, const char *name, Function *&function)
{
    function = reinterpret_cast<Function *>(dlsym(library, name));
    return function != nullptr;
}

bool FindAll(void *library)
{
#define OPALCRT_FIND(function) &&Find(library, #function, libcrypto.function)
    return library != nullptr OPALCRT_LIBCRYPTO_FUNCTIONS(OPALCRT_FIND);
#undef OPALCRT_FIND
}

}  // namespace

LibCrypto libcrypto;

bool LoadLibCrypto(const char *source)
{
    static const bool isLoaded = FindAll(dlopen(kLibrary, RTLD_LAZY));
    const char *const kLogSource = source;
    if (!isLoaded) {
        const char *cause = dlerror();
        LOG_ERROR("Failed to load %s [%s]", kLibrary, cause != nullptr ? cause : "");
        return false;
    }
    libcrypto.OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
    return true;
}

}  // namespace opalcrt
