// Whether bytes are text.
#pragma once

#include <string>

namespace opalcrt {

// UTF-8 as RFC 3629 has it. What comes into the books must be, or other readers refuse them as no JSON (RFC 8259, 8.1).
bool IsUtf8(const std::string &text);

}  // namespace opalcrt
