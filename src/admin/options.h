// What the command line says.
#pragma once

#include <string>
#include <vector>

namespace opalcrt {

struct Options {
    std::vector<std::string> ids;  // of `status`; empty: all, and what belongs to none
    std::string id;                // empty: not given
    int days = 30;
    bool onlyCheck = false;
    bool asJson = false;
    bool isNew = false;                 // `install` makes another certificate
    std::vector<std::string> keyFiles;  // one, or an RSA key and an EC key
    std::vector<std::string> crtFiles;
    std::vector<std::string> chainFiles;
    std::vector<std::string> names;  // host names and addresses
    std::string subscriber;
    std::string service;  // empty: all of the subscriber's
};

}  // namespace opalcrt
