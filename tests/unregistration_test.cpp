#include <regex>

#include "frontend/unregisterer.h"
#include "sandbox.h"
#include "store/paths.h"
#include "store/service_folder.h"

using namespace opalcrt;

using Unregistration = Sandbox;

// Package p with web (certificate a) and mail (certificate b), system component s with web (certificate a).
const std::string kScene = R"(restore; rm -rf $P $S/s *.* /tmp/*.lock; mkdir -p $P/p/web $P/p/mail $P/p/extra $S/s/web a/key
    o() { echo "{\"subscriber\": \"$1\", \"service\": \"$2\", \"owner\": \"$3\", \"isPkg\": $4}"; }
    web=$(o p web opalweb true) mail=$(o p mail opalweb true) system=$(o s web root false)
    echo "[$web, \"stranger\", $system, $mail]" > SERVICES
    echo "{\"a\": {\"desc\": 1, \"services\": [$system, $web]}, \"b\": {\"services\": [$mail]}, \"c\": 5}" > INFO; )";
const std::string kFolderLine = "Failed to remove service certificate\n";
const std::string kFolder = kFolderLine + "1";
const std::string kAll = "list: p/web s/web p/mail info: a: s/web p/web b: p/mail c: ";

TEST_F(Unregistration, TakesBackWhatWasGivenAndNothingElse)
{
    const std::string log = "opalcrtregister.cpp Un-Register certificate for ";
    const std::string all = "list: s/web info: a: s/web b: c: s/web a/key 1 5 1";
    // Again: INFO knows nothing of it, so the system's root is looked into.
    Check({{"u p web", kFolder, {log + "p/web(pkg)\n", "Can NOT find service: p(web)\n", "Invalid certificate: p/web\n"},
            "list: s/web p/mail info: a: s/web b: p/mail c: p/extra p/mail s/web a/key 1 5 1"},
           {"u p", kFolder, {log + "p(pkg)\n", "Can NOT find service: p()\n", "Invalid certificate: p\n"}, all},
           {"u p ''", kFolder, {log + "p/(pkg)\n", "Can NOT find service: p()\n", "Invalid certificate: p/\n"}, all},
           {"u s web", kFolder, {log + "s/web\n", "Can NOT find service: s(web)\n", "Invalid certificate: s/web\n"},
            "list: p/web p/mail info: a: p/web b: p/mail c: p/extra p/mail p/web a/key 1 5 1"}},
          kScene + "u() { opalcrtunregister \"$@\"; opalcrtunregister \"$@\"; }; ", "",
          "books; folders() { cd $1; ls -d [ps]/* 2>/dev/null; }; printf %s \"$(echo $(folders $P) $(folders $S) a/* "
          "$(jq .a.desc,.c INFO) $(grep -c stranger SERVICES))\"");
}

TEST_F(Unregistration, StopsAtTheStepThatFails)
{
    const std::string init = "Failed to init for Un-Registerer\n1";
    const std::string list = "Failed to remove register services\n1";
    const std::string info = "Failed to remove service from info\n1";
    Check({{"rm INFO", init, {"opalcrtregister.cpp Failed to get info for UnRegisterer"}},
           {"echo {} > INFO", init, {"Bad certificate info"}},
           {"echo [1] > INFO", init, {"Bad certificate info"}},
           {"sed -i s/opalweb// INFO", init, {"Failed to init, [0x0D00 opalcrtregister.cpp:"}},
           {"rm SERVICES", list, {"Failed to read register services, it may missed or broken"}},
           {"mkdir -p SERVICES.new/x", list, {"Failed to write register services (Is a directory)"}},
           {"sed -i 's/mail\", \"owner\": \"opalweb/mail\", \"owner\": \"x/' INFO", info, {"Bad info: [x(pkg)_opalweb(pkg)]"}, "SERVICES "},
           {"sed -i 's/\"isPkg\": true}]}, \"c/\"isPkg\": 1}]}, \"c/' INFO", info, {"Bad info: [opalweb()_opalweb(pkg)]"}, "SERVICES "},
           {"mkdir -p INFO.new/x", info, {"info file is backed up to $A/INFO.bak\n"}, "SERVICES backup "},
           {"mkdir -p INFO.new/x INFO.bak.new/x", info, {"Failed to update info file"}, "SERVICES "},
           {"rm -r $P/p", kFolder, {"Invalid certificate: p(pkg)"}, "SERVICES INFO "},
           {"mount -t tmpfs test $P/p/web", kFolder, {"Failed to remove certificate [p(pkg)][0x0601 process.cpp:"}, "SERVICES INFO "}},
          kScene, "cp SERVICES INFO /tmp 2>/dev/null; opalcrtunregister p",
          R"sh(for f in SERVICES INFO; do [ ! -e $f ] || cmp -s $f /tmp/$f || printf "$f "; done
             [ ! -e INFO.bak ] || [ "$(jq -S . INFO.bak)" != "$(jq -S . INFO)" ] || printf 'backup ')sh");
    Expect("opalcrtunregister ''", init, {"opalcrtregister.cpp Bad params: subscriber"});
    Expect(kScene + "cp $(which opalcrtunregister) /usr/opal; chmod -R a+rwX $A; books; "
           "setpriv --reuid=opalmail --clear-groups /usr/opal/opalcrtunregister p", kAll + init, {"Failed to init, [0xE400 opalcrtregister.cpp:"});
    EXPECT_EQ(Shell("books"), kAll);
}

// The archive and whatever lies behind a link outlive every name; the books are cleaned of it: there it is only compared.
TEST_F(Unregistration, RemovesNeitherTheArchiveNorWhatALinkLeadsTo)
{
    const std::string look = "find /usr/opal /usr/local | grep -v '_archive/[^a]' | sort";
    const std::string before = Shell(kScene + "mkdir -p /usr/opal/precious/web/key $S/_archive_/web; cd $S; ln -s /usr/opal/precious out; ln -s s inside; "
                                     "ln -s _archive sneaky; ln -s ../../../precious/web s/out; ln -s web s/alias; " + look);
    for (const std::string name : {"_archive", "_archive ", "_archive a", ". ", ".", ". _archive", ".. certificate", "s ..", "s .", "s/../_archive", "out", "out ",
                                   "out web", "inside", "inside ", "sneaky", "sneaky ", "sneaky a", "s out", "s alias", "s none", "s web.temp", "none"}) {
        Expect("opalcrtunregister " + (name.back() == ' ' ? name + "''" : name) + "; " + look, kFolderLine + before + "0",
               {"opalcrtregister.cpp Invalid certificate: " + std::regex_replace(name, std::regex(" "), "/") + "\n"});
    }
    Expect("sed -i 's|\"s\"|\"s/../_archive\"|' SERVICES INFO; opalcrtunregister s/../_archive; books; " + look,
           kFolderLine + "list: p/web p/mail info: a: p/web b: p/mail c: " + before + "0", {"Invalid certificate: s/../_archive"});
}

// Behind the commands, which look at names first.
TEST_F(Unregistration, KnowsWhatLiesInsideTheRoot)
{
    Shell("mkdir -p $P/a/web $P/ab /usr/local/out/web; cd $P; ln -s /usr/local/out linked; ln -s ../../../out a/out; ln -s no dangling");
    const auto isInside = [](const std::string &path) {
        const size_t slash = path.find('/');
        return IsServiceFolderInRoot(true, path.substr(0, slash), path.substr(slash + 1));
    };
    for (const char *path : {"a/", "ab/", "a/web"}) {
        EXPECT_TRUE(isInside(path)) << path;
    }
    for (const char *path : {"/", "/web", "./", "../", "no/", "a/no", "a/out", "a/..", "a/.", "linked/", "linked/web", "dangling/"}) {
        EXPECT_FALSE(isInside(path)) << path;
    }
    EXPECT_FALSE(RemoveServiceCertificate(Json::Value(Json::objectValue)));
    EXPECT_EQ(Log(), "opalcrtregister.cpp Invalid config: {}\n");
}

// A registration and an unregistration of one subscriber at once, many times: the books stay right for everybody else,
// and one quiet run brings books and folder to agree.
TEST_F(Unregistration, EndsRightAfterARaceWithARegistration)
{
    EXPECT_EQ(Shell(kScene + "crt c; sed -i 's/5/{\"services\": []}/' INFO; define r web mail; cp $D/r.cfg /tmp; for i in $(seq 100); do "
                    "cp /tmp/r.cfg $D; opalcrtregister r >/dev/null & opalcrtunregister r >/dev/null & wait; jq empty INFO SERVICES || break; done; "
                    "echo $i; cp /tmp/r.cfg $D; opalcrtregister r; books; ls $P/r; opalcrtunregister r; books; ls $P"),
              "100\nlist: p/web s/web p/mail r/web r/mail info: a: s/web p/web b: p/mail c: r/web r/mail mail\nweb\n" + kAll + "p\n");
}
