#include "mkcert/serial_file.h"

#include <openssl/err.h>
#include <openssl/x509.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "common/log.h"
#include "common/openssl.h"
#include "platform/atomic_file.h"
#include "platform/file_read.h"
#include "platform/file_test.h"

namespace opalcrt {

namespace {

constexpr size_t kLargestSerialFile = 1024UL * 1024;

// Reads it as the program openssl does.
bool IsSerialNumber(const std::string &text)
{
    const UniqueOpenSSL<BIO> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    const UniqueOpenSSL<ASN1_INTEGER> number(ASN1_INTEGER_new());
    char line[1024];
    const bool isGood = bio != nullptr && number != nullptr &&
                        a2i_ASN1_INTEGER(bio.get(), number.get(), line, sizeof(line)) == 1;
    ERR_clear_error();
    return isGood;
}

// What the form gives before 2001 or after 2038, or with a hardware address that is none: its digits, an even number.
std::string MakeReadable(const std::string &text)
{
    std::string digits;
    for (const char byte : text.substr(0, text.find('\n'))) {
        if (isxdigit(static_cast<unsigned char>(byte)) != 0) {
            digits += byte;
        }
    }
    return (digits.size() % 2 == 1 ? "0" : "") + digits + "\n";
}

}  // namespace

bool HasSerialFile()
{
    const UniqueFd file = OpenRegularFile(kSerialFile);
    if (!file.IsOpen()) {
        return !IsMissing(errno) && errno != EINVAL;
    }
    std::string text;
    return ReadWhole(file.Get(), kLargestSerialFile, text) ? IsSerialNumber(text) : errno != EFBIG;
}

int genSerialFile()
{
    const UniqueFile macFile = OpenForReading(kMacAddressFile);
    if (macFile == nullptr) {
        return LOG_ERROR("Open %s failed (%m)", kMacAddressFile);
    }
    char line[32] = {};
    errno = 0;  // The end of a file is no error and sets none.
    if (YLIBCFgets(line, sizeof(line), macFile.get()) == nullptr) {
        return LOG_ERROR("Fetch %s failed (%m)", kMacAddressFile);
    }

    constexpr size_t kVendorPart = 8;  // What stands before it does not differ between appliances.
    char serial[32] = {};
    snprintf(serial, sizeof(serial), "%d%s", static_cast<int>(time(nullptr)),
             strlen(line) > kVendorPart ? line + kVendorPart : "");

    const std::string text = strlen(serial) % 2 == 1 ? serial + std::string("1") : serial;
    if (!ReplaceFile(kSerialFile, IsSerialNumber(text) ? text : MakeReadable(text), kSerialFile)) {
        return LOG_ERROR("Open %s failed", kSerialFile);
    }
    return 0;
}

}  // namespace opalcrt
