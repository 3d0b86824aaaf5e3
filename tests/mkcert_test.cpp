#include "mkcert/crt_creation.h"

#include <sys/stat.h>

#include <cstring>

#include "mkcert/default_set.h"
#include "mkcert/key_match.h"
#include "mkcert/serial_file.h"
#include "sandbox.h"

namespace opalcrt
{

using Mkcert = Sandbox;

namespace
{

const std::string kSsl = "/usr/opal/etc/ssl/";

const char *const kServerHead =
    "extensions = x509v3\n[ x509v3 ]\nsubjectAltName   = email:copy\n"
    "nsComment        = \"mod_ssl generated custom server certificate\"\nnsCertType       = server\n"
    "keyUsage         = critical, digitalSignature, keyEncipherment\nextendedKeyUsage = serverAuth, clientAuth\n";

std::string AliasLine(const std::vector<std::string> &items)
{
    SzList list;
    list.items = items;
    EXPECT_EQ(genServerCnf((kSsl + "cfg.d/x.cfg").c_str(), &list), 0);
    const std::string text = ReadFile(kSsl + "cfg.d/x.cfg");
    EXPECT_TRUE(text.starts_with(kServerHead)) << text;
    return text.substr(std::min(text.size(), strlen(kServerHead)));
}

}  // namespace

TEST_F(Mkcert, WritesConfigurationFilesByteForByte)
{
    CsrSubject subject;
    subject.countryName = "TW";
    subject.localityName = "Tai'pel";
    subject.organizationName = "Kestrel Inc.";
    subject.commonName = "kestrel";
    umask(0);
    EXPECT_EQ(modifyCsrCfg("/usr/opal/deep/er/a.cfg", subject), 0);
    umask(022);
    EXPECT_EQ(ReadFile("/usr/opal/deep/er/a.cfg"),
              "[ req ]\ndefault_bits                    = 1024\ndistinguished_name              = req_DN\n"
              "prompt                          = no\n[ req_DN ]\ncountryName                     = 'TW'\n"
              "localityName                    = 'Tai'pel'\n0.organizationName              = 'Kestrel Inc.'\n"
              "commonName                      = 'kestrel'\n");
    EXPECT_EQ(Shell("stat -c %a /usr/opal/deep /usr/opal/deep/er/a.cfg"), "755\n644\n");
    subject = {"c", "s", "l", "o", "u", "n", "e"};
    EXPECT_EQ(modifyCsrCfg("/usr/opal/deep/er/a.cfg", subject), 0);
    EXPECT_EQ(Shell("tail -n 7 /usr/opal/deep/er/a.cfg | tr -s ' ' | tr '\\n' ' '"),
              "countryName = 'c' stateOrProvinceName = 's' localityName = 'l' 0.organizationName = 'o' "
              "organizationalUnitName = 'u' commonName = 'n' emailAddress = 'e' ");

    EXPECT_EQ(genCACnf((kSsl + "cfg.d/ca.crt.cfg").c_str()), 0);
    EXPECT_EQ(ReadFile(kSsl + "cfg.d/ca.crt.cfg"),
              "extensions = x509v3\n[ x509v3 ]\nsubjectAltName   = email:copy\nbasicConstraints = CA:true,pathlen:0\n"
              "nsComment        = \"mod_ssl generated custom CA certificate\"\nnsCertType       = sslCA\n");
    EXPECT_EQ(AliasLine({"kestrel"}), "subjectAltName = \"DNS:kestrel\"\n");
    EXPECT_EQ(AliasLine({"", "kestrel", "", "192.168.1.5", "fe80::1", "1.2.3.4:80", "*.x"}),
              "subjectAltName = \"DNS:kestrel, IP:192.168.1.5, IP:fe80::1, DNS:1.2.3.4:80, DNS:*.x\"\n");
    EXPECT_EQ(AliasLine({"", ""}) + AliasLine({}), "");
}

TEST_F(Mkcert, RemovesAConfigurationThatCannotBeWrittenWhole)
{
    Shell("mkdir /usr/opal/full; mount -t tmpfs -o size=4k full /usr/opal/full; cat /dev/zero > /usr/opal/full/fill");
    EXPECT_EQ(genCACnf("/usr/opal/full/ca.cfg"), 0);
    EXPECT_EQ(modifyCsrCfg("/usr/opal/full/csr.cfg", CsrSubject()), 0);
    EXPECT_EQ(Shell("ls /usr/opal/full; umount /usr/opal/full"), "fill\n");
}

TEST_F(Mkcert, RefusesBadParametersWithTheirLines)
{
    const CsrSubject subject;
    SzList list;
    Shell("mkdir -p /tmp/folder; touch /tmp/file /tmp/csr /tmp/key /tmp/serial");
    const auto crt = [](const char *ext, const char *csr, const char *ca, const char *serial, const char *out,
                        const char *key, bool isSelf, int days) {
        return genCrt(ext, csr, ca, serial, out, key, isSelf, days, "kestrel");
    };
    const auto check = [this](int result, const std::vector<std::string> &trail) {
        EXPECT_EQ(result, -1) << trail[0];
        EXPECT_TRUE(Logged(trail));
    };
    check(genDirectory(""), {"mkcert.cpp Failed to generate directory with invalid parameters"});
    check(genDirectory("/tmp/file/x/y"), {"Failed to mkdir -p [/tmp/file/x] (5)"});
    check(modifyCsrCfg("", subject), {"modifyCsrCfg sanity failed.[0x"});
    check(modifyCsrCfg("/tmp/file/x", subject), {"Failed to mkdir -p [/tmp/file] (5)", "generate directory failed"});
    check(modifyCsrCfg("/tmp/folder", subject), {"Open /tmp/folder failed[0x0200 config_files.cpp:"});
    check(genCACnf(nullptr), {"CA CNF name is null or empty.[0x"});
    check(genCACnf(""), {"CA CNF name is null or empty.[0x"});
    check(genCACnf("/tmp/file/x"), {"generate directory failed"});
    check(genCACnf("/tmp/folder"), {"fopen /tmp/folder failed[0x"});
    check(genServerCnf(nullptr, &list), {"Server CNF name is null or empty.[0x"});
    check(genServerCnf("/tmp/folder", nullptr), {"alias list is null"});
    check(genServerCnf("/tmp/folder", &list), {"fopen /tmp/folder failed[0x"});
    check(genKey("/tmp/k", 0), {"Failed to genKey with invalid parameters"});
    check(genKey("", 2048), {"Failed to genKey with invalid parameters"});
    check(genKey("/tmp/file/k", 2048), {"Failed to generate directory for /tmp/file/k"});
    check(genKey("/tmp/k", 7), {"Error when execute"});
    check(genCsr("", "/tmp/key", "/tmp/c", &subject), {"Failed to generate csr with invalid paramters"});
    check(genCsr("/tmp/cfg", "/tmp/key", "/tmp/c", nullptr), {"Failed to generate csr with invalid paramters"});
    check(genCsr("/tmp/cfg", "/tmp/none", "/tmp/c", &subject), {"Key is not existed"});
    check(genCsr("/tmp/cfg", "/tmp/key", "/tmp/file/c", &subject), {"Failed to generate directory for /tmp/file/c"});
    check(genCsr("/tmp/folder", "/tmp/key", "/tmp/c", &subject), {"Failed to generate csr config file failed"});
    check(genCsr("/tmp/cfg", "/tmp/key", "/tmp/c", &subject), {"Create CSR failed, command"});
    for (const int days : {0, -1}) {
        check(crt("/tmp/e", "/tmp/csr", "/tmp/ca", "", "", "/tmp/key", true, days), {"genCrt params invalid"});
    }
    check(crt("", "/tmp/csr", "/tmp/ca", "", "", "/tmp/key", true, 1), {"genCrt params invalid"});
    check(crt("/tmp/e", "/tmp/none", "/tmp/ca", "", "", "/tmp/key", true, 1), {"Csr is not existed"});
    check(crt("/tmp/e", "/tmp/csr", "/tmp/ca", "", "", "/tmp/none", true, 1), {"Key is not existed"});
    check(crt("/tmp/e", "/tmp/csr", "/tmp/ca", "", "/tmp/o", "/tmp/key", false, 1), {"genCrt params invalid"});
    check(crt("/tmp/e", "/tmp/csr", "/tmp/ca", "/tmp/serial", "", "/tmp/key", false, 1), {"genCrt params invalid"});
    check(crt("/tmp/e", "/tmp/csr", "/tmp/ca", "/tmp/none", "/tmp/o", "/tmp/key", false, 1), {"Serial file is not existed"});
    check(crt("/tmp/e", "/tmp/csr", "/tmp/file/ca", "", "", "/tmp/key", true, 1), {"generate directory failed"});
    check(crt("/tmp/e", "/tmp/csr", "/tmp/ca", "", "", "/tmp/key", true, 1), {"Error when execute"});
    check(genDefaultCrtSet(""), {"Invalid paramter []", "Generate CA key & crt failed"});
}

TEST_F(Mkcert, MakesAndKeepsTheSerialFile)
{
    struct Case {
        const char *mac;
        const char *expected;  // a pattern; the time has ten digits
    };
    Shell("mkdir -p " + kSsl);
    const std::string mac = "/proc/sys/kernel/opal_mac_address1";
    for (const Case &test : {Case{"001132a1b2c3\n", "^[0-9]{10}b2c3,1$"}, {"001132a1b2c3", "^[0-9]{10}b2c3$"},
                             {"0011\n", "^[0-9]{10}$"},
                             {"00113200000000000000000000000000000000\n", "^[0-9]{10}0{21}1$"}}) {
        WriteFile(mac, test.mac);
        EXPECT_EQ(genSerialFile(), 0);
        EXPECT_EQ(Shell("tr '\\n' ',' < " + kSsl + ".mkcert.serial | grep -cE '" + test.expected + "'"), "1\n")
            << ReadFile(kSsl + ".mkcert.serial");
    }
    WriteFile(mac, "");
    EXPECT_EQ(genSerialFile(), -1);
    EXPECT_TRUE(Logged({"mkcert.cpp Fetch /proc/sys/kernel/opal_mac_address1 failed ("}));
    unlink(mac.c_str());
    EXPECT_EQ(genSerialFile(), -1);
    EXPECT_TRUE(Logged({"mkcert.cpp Open /proc/sys/kernel/opal_mac_address1 failed (No such file or directory)"}));
    WriteFile(mac, "001132a1b2c3\n");
    Shell("rm -r " + kSsl);
    EXPECT_EQ(genSerialFile(), -1);
    EXPECT_TRUE(Logged({"mkcert.cpp Open /usr/opal/etc/ssl/.mkcert.serial failed"}));
}

TEST_F(Mkcert, GeneratesASetThatVerifies)
{
    Shell("mkdir -p /tmp/s; touch /tmp/s/privkey.pem; chmod 0666 /tmp/s/privkey.pem; mkdir -p " + kSsl + "; touch " + kSsl + ".mkcert.serial");
    ASSERT_EQ(genDefaultCrtSet("/tmp/s"), 0);
    EXPECT_EQ(Shell("stat -c '%n %a' /tmp/s/* | cut -c8-"),
              "cert.pem 400\nfullchain.pem 400\nopal-ca-cert.pem 400\nopal-ca-privkey.pem 400\nprivkey.pem 400\n");
    EXPECT_EQ(Shell("cd /tmp/s; cmp cert.pem fullchain.pem; openssl verify -CAfile opal-ca-cert.pem -verify_hostname kestrel "
                    "-purpose sslserver cert.pem; openssl x509 -in cert.pem -noout -subject -issuer -ext subjectAltName,keyUsage; "
                    "openssl x509 -in opal-ca-cert.pem -noout -subject -issuer -ext basicConstraints; "
                    "openssl rsa -in privkey.pem -noout -text | head -n 1; openssl x509 -in cert.pem -noout -text | grep -c sha256With; "
                    "echo $(( ($(date -d \"$(openssl x509 -in cert.pem -noout -enddate | cut -d= -f2)\" +%s) - "
                    "$(date -d \"$(openssl x509 -in cert.pem -noout -startdate | cut -d= -f2)\" +%s)) / 86400 ))"),
              "cert.pem: OK\nsubject=C = TW, L = Taipel, O = Kestrel Inc., CN = kestrel\n"
              "issuer=C = TW, L = Taipel, O = Kestrel Inc., CN = Kestrel Inc. CA\n"
              "X509v3 Key Usage: critical\n    Digital Signature, Key Encipherment\nX509v3 Subject Alternative Name: \n    DNS:kestrel\n"
              "subject=C = TW, L = Taipel, O = Kestrel Inc., CN = Kestrel Inc. CA\n"
              "issuer=C = TW, L = Taipel, O = Kestrel Inc., CN = Kestrel Inc. CA\n"
              "X509v3 Basic Constraints: \n    CA:TRUE, pathlen:0\nPrivate-Key: (2048 bit, 2 primes)\n2\n366\n");
    EXPECT_TRUE(TakeLog().empty());

    const std::string serial = Shell("openssl x509 -in /tmp/s/cert.pem -noout -serial");
    const std::string key = ReadFile("/tmp/s/privkey.pem");
    ASSERT_EQ(genDefaultCrtSet("/tmp/s"), 0);
    EXPECT_NE(Shell("openssl x509 -in /tmp/s/cert.pem -noout -serial"), serial);
    EXPECT_NE(ReadFile("/tmp/s/privkey.pem"), key);
}

TEST_F(Mkcert, ComparesKeysAndCertificates)
{
    AddCrt("a");
    AddCrt("b");
    const std::string a = kStore + "a/";
    EXPECT_EQ(checkCrtKeyMatch(a + "cert.pem", a + "privkey.pem"), 0);
    EXPECT_EQ(checkCrtKeyMatch(a + "cert.pem", kStore + "b/privkey.pem"), 1);
    EXPECT_TRUE(TakeLog().empty());
    const std::string plain = ReadFile(a + "cert.pem");
    WriteFile(a + "cert.pem", "\xEF\xBB\xBF" + plain);
    EXPECT_EQ(checkCrtKeyMatch(a + "cert.pem", a + "privkey.pem"), 0);
    EXPECT_EQ(ReadFile(a + "cert.pem"), plain);
    Shell("openssl pkey -aes128 -passout pass:x -in " + a + "privkey.pem -out /tmp/locked");
    EXPECT_EQ(checkCrtKeyMatch(a + "none", a + "privkey.pem"), -1);
    EXPECT_EQ(checkCrtKeyMatch(a + "privkey.pem", a + "privkey.pem"), -1);
    EXPECT_EQ(checkCrtKeyMatch(a + "cert.pem", a + "cert.pem"), -1);
    EXPECT_EQ(checkCrtKeyMatch(a + "cert.pem", "/tmp/locked"), -1);
    EXPECT_TRUE(Logged({"Failed to strip utf8 BOM", "Failed to read cert from " + a + "privkey.pem",
                        "Failed to read private key from " + a + "cert.pem", "Failed to read private key from /tmp/locked"}));
}

}  // namespace opalcrt
