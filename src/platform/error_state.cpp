#include "platform/error_state.h"

namespace opalcrt {

namespace {
struct ErrorState {
    int code = 0;
    const char *file = "";
    int line = 0;
};
ErrorState lastError;
}  // namespace

void YLIBCErrSetEx(int code, const char *file, int line) { lastError = {code, file, line}; }

int YLIBCErrGet() { return lastError.code; }

const char *YLIBCErrorGetFile() { return lastError.file; }

int YLIBCErrorGetLine() { return lastError.line; }

}  // namespace opalcrt
