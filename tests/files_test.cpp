#include "deploy/crt_files.h"
#include "deploy/dir_utils.h"
#include "deploy/key_types.h"
#include "sandbox.h"

namespace opalcrt
{

using Files = Sandbox;

namespace
{

// Everything below the folder with its content.
std::string Tree(const std::string &folder)
{
    return Shell("cd " + folder + " 2>/dev/null && find . -type f -printf '%P=' -exec cat {} \\; | sort");
}

void MakeFolders(const std::string &script)
{
    Shell("rm -rf /tmp/w; mkdir -p /tmp/w/s.temp; printf 'new\n' > /tmp/w/s.temp/n; cd /tmp/w; " + script);
}

}  // namespace

TEST_F(Files, MovesAFolderOverWhateverARunHasLeft)
{
    struct Case {
        const char *before;
        bool result;
        const char *tree;
        std::vector<std::string> trail;
    };
    const Case cases[] = {
        {"", true, "s/n=new\n", {}},
        {"mkdir s; echo old > s/o", true, "s/n=new\n", {}},
        {"mkdir s s.bak; echo old > s/o; echo half > s.bak/h", true, "s/n=new\n", {}},
        {"mkdir s.bak; echo old > s.bak/o", true, "s/n=new\n", {}},
        {"mkdir t; ln -s t s", true, "s/n=new\n", {}},
        {"echo file > s", true, "s/n=new\n", {}},
        {"rmdir s.temp 2>/dev/null || rm -r s.temp; echo file > s.temp", false, "s.temp=file\n",
         {"dir_utils.cpp /tmp/w/s.temp is not a valid directory"}},
    };
    for (const Case &test : cases) {
        MakeFolders(test.before);
        EXPECT_EQ(MoveDirectory("/tmp/w/s.temp", "/tmp/w/s"), test.result) << test.before;
        EXPECT_EQ(Tree("/tmp/w"), test.tree) << test.before;
        EXPECT_TRUE(Logged(test.trail)) << test.before;
    }
    MakeFolders("");
    EXPECT_TRUE(MoveDirectory("/tmp/w/s.temp", "/tmp/w/s.temp"));
    EXPECT_TRUE(Logged({"dir_utils.cpp skip move directory, due to source equals to destination [/tmp/w/s.temp]"}));
}

// Each step fails for real; the old folder must be whole at its place or in the backup afterwards.
TEST_F(Files, KeepsTheOldFolderWhenAMoveFails)
{
    struct Case {
        const char *program;  // replaced by the script
        const char *script;
        const char *tree;
        std::vector<std::string> trail;
    };
    const Case cases[] = {
        {"/bin/rm", "exit 1", "s.temp/n=new\ns/o=old\n", {"Failed to remove /tmp/w/s.bak [5]"}},
        {"/bin/cp", "mkdir $3; exit 1", "s.temp/n=new\ns/o=old\n", {"Failed to copy /tmp/w/s to /tmp/w/s.bak [5]"}},
        {"/bin/rm", "case $2 in */s) rm() { unlink /tmp/w/s/o; }; rm; exit 1;; esac", "s.bak/o=old\ns.temp/n=new\n",
         {"Failed to remove /tmp/w/s [5]", "Failed to remove /tmp/w/s [5]"}},
    };
    for (const Case &test : cases) {
        MakeFolders("mkdir s; echo old > s/o");
        ReplaceProgram(test.program, test.script);
        EXPECT_FALSE(MoveDirectory("/tmp/w/s.temp", "/tmp/w/s")) << test.script;
        RestorePrograms();
        EXPECT_EQ(Tree("/tmp/w"), test.tree) << test.script;
        EXPECT_TRUE(Logged(test.trail)) << test.script;
    }

    // The rename fails because the source is a mount point: rolled back.
    MakeFolders("mkdir s; echo old > s/o; mount -t tmpfs none s.temp");
    EXPECT_FALSE(MoveDirectory("/tmp/w/s.temp", "/tmp/w/s"));
    Shell("umount /tmp/w/s.temp");
    EXPECT_EQ(Tree("/tmp/w"), "s.temp/n=new\ns/o=old\n");
    EXPECT_TRUE(Logged({"Failed to move /tmp/w/s.temp to /tmp/w/s [16]"}));

    MakeFolders("mount -t tmpfs none s.temp");
    EXPECT_FALSE(MoveDirectory("/tmp/w/s.temp", "/tmp/w/s"));
    Shell("umount /tmp/w/s.temp");
    EXPECT_TRUE(Logged({"Failed to move /tmp/w/s.temp to /tmp/w/s [16]", "Failed to move /tmp/w/s.bak to /tmp/w/s [2]"}));

    // A backup that stays is no failure.
    MakeFolders("mkdir s; echo old > s/o");
    ReplaceProgram("/bin/rm", "case $2 in */s) unlink /tmp/w/s/o; rmdir /tmp/w/s;; *) [ ! -d $2 ];; esac");
    EXPECT_TRUE(MoveDirectory("/tmp/w/s.temp", "/tmp/w/s"));
    EXPECT_EQ(Tree("/tmp/w"), "s.bak/o=old\ns/n=new\n");
    EXPECT_TRUE(Logged({"Failed to remove /tmp/w/s.bak [5]"}));
}

TEST_F(Files, RecreatesFolders)
{
    Shell("mkdir -p /tmp/d/stray/x; touch /tmp/file");
    EXPECT_TRUE(RecreateDirectory("/tmp/d", 0755));
    EXPECT_TRUE(RecreateDirectory("/tmp/new/deep", 0755));
    EXPECT_FALSE(RecreateDirectory("/tmp/file", 0755));
    EXPECT_TRUE(Logged({"dir_utils.cpp Failed to create /tmp/file"}));
    EXPECT_EQ(Shell("ls /tmp/d; stat -c '%a' /tmp/d /tmp/new /tmp/new/deep"), "755\n755\n755\n");
    EXPECT_TRUE(RemovePath("/tmp/none"));
}

TEST_F(Files, CopiesKeysThatNobodyElseCanReadOnTheWay)
{
    Shell("mkdir /tmp/a /tmp/b; echo key > /tmp/a/k; chmod 0666 /tmp/a/k");
    ReplaceProgram("/bin/cp", "stat -c %a \"$3\" > /tmp/mode; cat \"$2\" > \"$3\"");
    EXPECT_TRUE(CopyCrtFile("/tmp/a", "/tmp/b", "k", kWeb, kMail));
    EXPECT_TRUE(CopyCrtFile("/tmp/a", "/tmp/b", "k", kWeb, kMail));
    EXPECT_EQ(ReadFile("/tmp/mode"), "400\n");
    EXPECT_EQ(Shell("stat -c '%a %u %g' /tmp/b/k; cat /tmp/b/k"), "400 64101 64102\nkey\n");
    RestorePrograms();

    EXPECT_FALSE(CopyCrtFile("/tmp/a", "/tmp/b", "none", 0, 0));
    EXPECT_TRUE(Logged({"utils.cpp Failed to copy [/tmp/a/none].[0x0601 process.cpp:"}));
    EXPECT_FALSE(Exists("/tmp/b/none"));
    // A cp that answers 0 without a file.
    ReplaceProgram("/bin/cp", "unlink $3");
    EXPECT_FALSE(CopyCrtFile("/tmp/a", "/tmp/b", "k", 0, 0));
    EXPECT_TRUE(Logged({"utils.cpp Failed to chmod chown. [/tmp/b/k]"}));
}

TEST_F(Files, KnowsRealFolders)
{
    Shell("mkdir -p /tmp/d/e; ln -s /tmp/d /tmp/l; touch /tmp/f");
    struct Case {
        const char *path;
        bool answer;
        std::vector<std::string> log;
    };
    const std::string match = "utils.cpp Path not match, maybe bugs or attacked";
    for (const Case &test : {Case{"/tmp/d", true, {}}, {"/tmp/d/", false, {match}}, {"/tmp//d", false, {match}},
                             {"/tmp/d/e/..", false, {match}}, {"/tmp/l", false, {match}}, {"/tmp/l/e", false, {match}},
                             {"/tmp/f", false, {}}, {"/tmp/none", false, {"dir_utils.cpp Failed to get realpath [2]", match}}}) {
        EXPECT_EQ(CheckRealDirectory(test.path), test.answer) << test.path;
        EXPECT_EQ(TakeLog(), test.log) << test.path;
    }
}

TEST_F(Files, ParsesKeyTypes)
{
    const std::vector<KeyType> both = {KeyType::RSA, KeyType::ECC};
    struct Case {
        const char *renew;
        std::vector<KeyType> types;
    };
    const Case cases[] = {
        {"", {}}, {"[]", {}}, {"{}", {}}, {R"({"key_types": ""})", {}}, {R"({"key_types": 5})", {}},
        {R"({"key_types": ["RSA"]})", {}}, {R"({"key_types": "RSA"})", {KeyType::RSA}},
        {R"({"key_types": "ECC/RSA"})", {KeyType::ECC, KeyType::RSA}}, {R"({"key_types": " RSA\t/\n ECC\u000b"})", both},
        {R"({"key_types": "RSA/"})", {KeyType::RSA}}, {R"({"key_types": "RSA/RSA"})", {KeyType::RSA, KeyType::RSA}},
        {R"({"key_types": "rsa"})", both}, {R"({"key_types": "RSA,ECC"})", both}, {R"({"key_types": "/"})", both},
        {R"({"key_types": "  "})", both}, {R"({"key_types": "DSA/ECC"})", {KeyType::ECC}}, {R"({"key_types": "E CC"})", both},
    };
    for (const Case &test : cases) {
        WriteFile(kStore + "c/renew.json", test.renew);
        EXPECT_EQ(GetCrtKeyTypes("c"), test.types) << test.renew;
        EXPECT_EQ(HasCrtKeyTypes("c"), !test.types.empty());
    }
    EXPECT_TRUE(GetCrtKeyTypes("none").empty());
    EXPECT_EQ(KeyTypePrefix(static_cast<KeyType>(7)), "RSA-");
}

}  // namespace opalcrt
