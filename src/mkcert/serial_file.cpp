#include "mkcert/serial_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "common/log.h"
#include "platform/atomic_file.h"
#include "platform/file_test.h"

namespace opalcrt
{

namespace
{
constexpr const char *kLogSource = log_source::kMkcert;
}  // namespace

bool IsSerialFileMissing()
{
    struct stat info = {};
    return YLIBCFileExist(kSerialFile) == 0 || (stat(kSerialFile, &info) == 0 && info.st_size == 0);
}

int genSerialFile()
{
    const UniqueFile macFile = OpenForReading(kMacAddressFile);
    if (macFile == nullptr) {
        LOG_ERROR("Open %s failed (%m)", kMacAddressFile);
        return -1;
    }
    char line[32] = {};
    errno = 0;  // The end of a file is no error and sets none.
    if (YLIBCFgets(line, sizeof(line), macFile.get()) == nullptr) {
        LOG_ERROR("Fetch %s failed (%m)", kMacAddressFile);
        return -1;
    }

    constexpr size_t kVendorPart = 8;  // What stands before it does not differ between appliances.
    char serial[32] = {};
    snprintf(serial, sizeof(serial), "%d%s", static_cast<int>(time(nullptr)),
             strlen(line) > kVendorPart ? line + kVendorPart : "");

    const std::string text = strlen(serial) % 2 == 1 ? serial + std::string("1") : serial;
    if (!ReplaceFile(kSerialFile, text, kSerialFile)) {
        LOG_ERROR("Open %s failed", kSerialFile);
        return -1;
    }
    return 0;
}

}  // namespace opalcrt
