#include "store/default_crt.h"

#include <cstring>

#include "common/log.h"
#include "platform/file_read.h"
#include "platform/file_test.h"
#include "store/paths.h"

namespace opalcrt {

std::string ReadDefCrtId()
{
    const UniqueFile file = OpenForReading(kDefaultPath);
    char line[kLongestDefaultId + 1] = {};
    if (file == nullptr || YLIBCFgets(line, sizeof(line), file.get()) == nullptr) {
        return std::string();
    }
    if (char *newline = strrchr(line, '\n'); newline != nullptr) {
        *newline = '\0';
    }
    return line;
}

std::string GetDefCrtId()
{
    std::string cert_id = ReadDefCrtId();
    const std::string folder = GetCrtFolderPath(cert_id);
    if (!cert_id.empty() && YLIBCFileCheckDir(folder.c_str()) == 0) {
        LOG_ERROR_STATE("[%s] doesn't exist.", folder.c_str());
        return std::string();
    }
    return cert_id;
}

}  // namespace opalcrt
