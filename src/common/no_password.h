// A PEM file may be encrypted; without a callback OpenSSL would ask the terminal for its password.
#pragma once

namespace opalcrt
{

// A pem_password_cb (pem_password_cb(3)) that has none: reading an encrypted file fails.
inline int NoPassword(char *, int, int, void *)
{
    return -1;
}

}  // namespace opalcrt
