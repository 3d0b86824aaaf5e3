// Whether a certificate and a private key belong together.
#pragma once

#include <string>

namespace opalcrt {

// 0 when the first certificate of the PEM file and the private key of the other (not encrypted) match, 1 when
// they do not (not logged), -1, logged, when one could not be read. A UTF-8 byte order mark is taken from
// both files first.
int checkCrtKeyMatch(const std::string &crtPath, const std::string &keyPath);

}  // namespace opalcrt
