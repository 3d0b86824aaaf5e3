#include "mkcert/crt_creation.h"

#include "mkcert/default_set.h"
#include "mkcert/key_match.h"
#include "mkcert/serial_file.h"
#include "sandbox.h"

using namespace opalcrt;

using Mkcert = Sandbox;

TEST_F(Mkcert, WritesConfigurationFilesByteForByte)
{
    EXPECT_EQ(modifyCsrCfg("/usr/opal/deep/er/csr", {"c", "s", "l", "o", "u", "n", "e"}), 0);
    EXPECT_EQ(Shell("cat /usr/opal/deep/er/csr"),
              "[ req ]\ndefault_bits                    = 1024\ndistinguished_name              = req_DN\n"
              "prompt                          = no\n[ req_DN ]\ncountryName                     = 'c'\n"
              "stateOrProvinceName             = 's'\nlocalityName                    = 'l'\n"
              "0.organizationName              = 'o'\norganizationalUnitName          = 'u'\n"
              "commonName                      = 'n'\nemailAddress                    = 'e'\n");
    EXPECT_EQ(genCACnf("/usr/opal/ca"), 0);
    EXPECT_EQ(Shell("cat /usr/opal/ca"),
              "extensions = x509v3\n[ x509v3 ]\nsubjectAltName   = email:copy\nbasicConstraints = CA:true,pathlen:0\n"
              "nsComment        = \"mod_ssl generated custom CA certificate\"\nnsCertType       = sslCA\n");
    const std::pair<std::vector<std::string>, const char *> lists[] = {
        {{"", ""}, ""}, {{"kestrel"}, "subjectAltName = \"DNS:kestrel\"\n"},
        {{"", "kestrel", "", "192.168.1.5", "fe80::1", "1.2.3.4:80", "*.x"},
         "subjectAltName = \"DNS:kestrel, IP:192.168.1.5, IP:fe80::1, DNS:1.2.3.4:80, DNS:*.x\"\n"}};
    for (const auto &[aliases, line] : lists) {
        SzList list;
        list.items = aliases;
        EXPECT_EQ(genServerCnf("/usr/opal/server", &list), 0);
        EXPECT_EQ(Shell("cat /usr/opal/server"),
                  std::string("extensions = x509v3\n[ x509v3 ]\nsubjectAltName   = email:copy\nnsComment        = "
                              "\"mod_ssl generated custom server certificate\"\nnsCertType       = server\nkeyUsage         = critical, "
                              "digitalSignature, keyEncipherment\nextendedKeyUsage = serverAuth, clientAuth\n") + line);
    }
    // One that cannot be written whole is removed.
    Shell("mkdir /tmp/full; mount -t tmpfs -o size=4k test /tmp/full; cat /dev/zero > /tmp/full/fill");
    EXPECT_EQ(genCACnf("/tmp/full/ca.cfg") + modifyCsrCfg("/tmp/full/csr.cfg", CsrSubject()), 0);
    EXPECT_EQ(Shell("ls /tmp/full; restore; stat -c %a /usr/opal/deep/er /usr/opal/ca"), "fill\n755\n644\n");
}

TEST_F(Mkcert, RefusesBadParametersWithTheirLines)
{
    const CsrSubject none;
    Shell("mkdir -p /tmp/d; touch /tmp/f");
    const auto crt = [](const char *ca, const char *serial, const char *out, const char *key, int days = 1) {
        return genCrt("/tmp/e", "/tmp/f", ca, serial, out, key, *out == '\0', days, "kestrel");
    };
    const std::pair<int, std::string> refused[] = {  // Evaluated in order, so the log has their lines in this order.
        {genDirectory(""), "Failed to generate directory with invalid parameters"},
        {genCACnf(nullptr), "CA CNF name is null or empty.[0x"},
        {genKey("/tmp/k", 0), "Failed to genKey with invalid parameters"},
        {genKey("/tmp/d", 2048), "Failed to remove /tmp/d [21]"},
        {genCsr("/tmp/cfg", "/tmp/f", "/tmp/c", nullptr), "Failed to generate csr with invalid paramters"},
        {genCsr("/tmp/cfg", "/tmp/none", "/tmp/c", &none), "Key is not existed"},
        {genCsr("/tmp/d", "/tmp/f", "/tmp/c", &none), "Open /tmp/d failed[0x0200 config_files.cpp:"},
        {crt("/tmp/ca", "", "", "/tmp/f", 0), "genCrt params invalid"},
        {crt("/tmp/ca", "", "", "/tmp/none"), "Key is not existed"},
        {crt("/tmp/ca", "/tmp/none", "/tmp/o", "/tmp/f"), "Serial file is not existed"},
        {crt("/tmp/f/ca", "", "", "/tmp/f"), "Failed to mkdir -p [/tmp/f] (5)\nmkcert.cpp generate directory failed"},
        {genDefaultCrtSet(""), "Invalid paramter []\nmkcert.cpp Generate CA key & crt failed"},
    };
    Trail trail;
    for (const auto &[result, line] : refused) {
        EXPECT_EQ(result, -1) << line;
        trail.push_back("mkcert.cpp " + line);
    }
    EXPECT_TRUE(Logged(trail));
}

TEST_F(Mkcert, MakesTheSerialFile)
{
    const std::pair<std::string, std::string> cases[] = {  // the scene; the file, whose time has ten digits, or the log
        {"echo 001132a1b2c3 > $M", "Tb2c3,1"}, {"printf 001132a1b2c3 > $M", "Tb2c3"}, {"echo 0011 > $M", "T"},
        {"echo 00113200000000000000000000000000000000 > $M", "T0000000000000000000001"},
        {"> $M", "mkcert.cpp Fetch /proc/sys/kernel/opal_mac_address1 failed (Success)\n"},
        {"rm $M", "mkcert.cpp Open /proc/sys/kernel/opal_mac_address1 failed (No such file or directory)\n"},
        {"echo 001132a1b2c3 > $M; rmdir $L", "mkcert.cpp Open /usr/opal/etc/ssl/.mkcert.serial failed\n"}};
    for (const auto &[scene, seen] : cases) {
        Shell("L=/usr/opal/etc/ssl M=/proc/sys/kernel/opal_mac_address1; mkdir -p $L; " + scene);
        EXPECT_EQ(genSerialFile(), seen[0] == 'T' ? 0 : -1) << scene;
        EXPECT_EQ(Log() + Shell("cd /usr/opal/etc/ssl 2>/dev/null && cat .mkcert.serial 2>/dev/null | tr '\\n' , | "
                                "sed -E 's/^1[0-9]{9}/T/'; rm -f .mkcert.serial"), seen) << scene;
    }
}

TEST_F(Mkcert, GeneratesASetThatVerifies)
{
    Shell("mkdir -p /tmp/s /usr/opal/etc/ssl; touch /usr/opal/etc/ssl/.mkcert.serial; umask 0; touch /tmp/s/privkey.pem");
    ASSERT_EQ(genDefaultCrtSet("/tmp/s"), 0);
    EXPECT_EQ(Log() + Shell("cd /tmp/s; stat -c '%n %a' *; cmp cert.pem fullchain.pem; openssl verify -CAfile opal-ca-cert.pem -verify_hostname kestrel "
                    "-purpose sslserver cert.pem; openssl x509 -in cert.pem -noout -subject -issuer -ext subjectAltName,keyUsage; "
                    "openssl x509 -in opal-ca-cert.pem -noout -subject -issuer -ext basicConstraints; "
                    "openssl rsa -in privkey.pem -noout -text | head -n 1; openssl x509 -in cert.pem -noout -text | grep -c sha256With; "
                    "echo $(( ($(date -d \"$(openssl x509 -in cert.pem -noout -enddate | cut -d= -f2)\" +%s) - "
                    "$(date -d \"$(openssl x509 -in cert.pem -noout -startdate | cut -d= -f2)\" +%s)) / 86400 ))"),
              "cert.pem 400\nfullchain.pem 400\nopal-ca-cert.pem 400\nopal-ca-privkey.pem 400\nprivkey.pem 400\n"
              "cert.pem: OK\nsubject=C = TW, L = Taipel, O = Kestrel Inc., CN = kestrel\n"
              "issuer=C = TW, L = Taipel, O = Kestrel Inc., CN = Kestrel Inc. CA\n"
              "X509v3 Key Usage: critical\n    Digital Signature, Key Encipherment\nX509v3 Subject Alternative Name: \n    DNS:kestrel\n"
              "subject=C = TW, L = Taipel, O = Kestrel Inc., CN = Kestrel Inc. CA\n"
              "issuer=C = TW, L = Taipel, O = Kestrel Inc., CN = Kestrel Inc. CA\n"
              "X509v3 Basic Constraints: \n    CA:TRUE, pathlen:0\nPrivate-Key: (2048 bit, 2 primes)\n2\n366\n");
    const std::string look = "openssl x509 -in /tmp/s/cert.pem -noout -serial -modulus";
    const std::string before = Shell(look);
    ASSERT_EQ(genDefaultCrtSet("/tmp/s"), 0);
    EXPECT_EQ(Shell("echo '" + before + "' > /tmp/before; " + look + " | grep -cFxf /tmp/before"), "0\n");
}

TEST_F(Mkcert, ComparesKeysAndCertificates)
{
    Shell("crt a; mv c/cert.pem /tmp/; printf '\\357\\273\\277' | cat - /tmp/cert.pem > c/cert.pem; chmod 0400 c/cert.pem; "
          "openssl pkey -aes128 -passout pass:x -in c/privkey.pem -out c/locked");
    const std::string c = "/usr/opal/etc/certificate/_archive/c/";
    EXPECT_EQ(checkCrtKeyMatch(c + "cert.pem", c + "privkey.pem"), 0);
    EXPECT_EQ(Shell("cmp /tmp/cert.pem c/cert.pem; stat -c %a c/cert.pem"), "400\n");
    EXPECT_EQ(checkCrtKeyMatch(c + "cert.pem", c + "../a/privkey.pem"), 1);
    EXPECT_EQ(Log(), "");
    EXPECT_EQ(checkCrtKeyMatch(c + "none", c + "privkey.pem"), -1);
    EXPECT_EQ(checkCrtKeyMatch(c + "privkey.pem", c + "privkey.pem"), -1);
    EXPECT_EQ(checkCrtKeyMatch(c + "cert.pem", c + "cert.pem"), -1);
    EXPECT_EQ(checkCrtKeyMatch(c + "cert.pem", c + "locked"), -1);
    EXPECT_EQ(Log(), "mkcert.cpp Failed to strip utf8 BOM\nmkcert.cpp Failed to read cert from $A/c/privkey.pem\n"
                     "mkcert.cpp Failed to read private key from $A/c/cert.pem\nmkcert.cpp Failed to read private key from $A/c/locked\n");
}
