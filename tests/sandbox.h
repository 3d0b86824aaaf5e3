// What all tests live in: an empty store on the real paths, a system log that can be read, and verbs to arrange a
// scene and to look at what a user would see.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace opalcrt
{

inline const std::string kStore = "/usr/opal/etc/certificate/_archive/";
inline const std::string kPackages = "/usr/local/etc/certificate/";
inline const std::string kSystem = "/usr/opal/etc/certificate/";
inline const std::string kPackageDefinitions = "/usr/local/share/certificate.d/";
inline const std::string kSystemDefinitions = "/usr/opal/share/certificate.d/";
constexpr uid_t kWeb = 64101;  // users that scripts/world adds: opalweb and opalmail
constexpr uid_t kMail = 64102;

struct Result {
    int status = -1;  // 128 + n for a signal
    std::string out;
    std::string err;
};

std::string ReadFile(const std::string &path);  // "(missing)" when it is not there
void WriteFile(const std::string &path, const std::string &text, mode_t mode = 0644);
Json::Value ReadJson(const std::string &path);
Json::Value ParseJson(const std::string &text);
std::string Shell(const std::string &command);  // what it prints; for arranging and looking, not for the tool
bool Exists(const std::string &path);
bool CanParse(const std::string &path);

class Sandbox : public testing::Test
{
protected:
    Sandbox();
    ~Sandbox() override;

    // A certificate folder with a real key pair of its own; INFO gets an empty entry for it.
    void AddCrt(const std::string &id, const std::vector<std::string> &prefixes = {""});
    void SetInfo(const std::string &json) { WriteFile(kStore + "INFO", json); }
    void SetServices(const std::string &json) { WriteFile(kStore + "SERVICES", json); }
    // Drops the definition of a package (owner opalweb) with these services.
    void Define(const std::string &subscriber, const std::vector<std::string> &services);

    // Runs a command of the tool by its name. `wrapper` goes in front (a shell word list), `as` is its user.
    Result Run(const std::vector<std::string> &args, const std::string &wrapper = "", uid_t as = 0);
    // The same with the N-th `call` of the tool itself (not its children) answered by `error`.
    Result RunWithFault(const std::vector<std::string> &args, const std::string &call, const std::string &error,
                        int when);
    // Replaces a program until the end of the test or RestorePrograms.
    void ReplaceProgram(const std::string &path, const std::string &script);
    void RestorePrograms();

    // The log so far, and none of it again: "utils.cpp Failed to lock [...]" a line (line numbers go away).
    std::vector<std::string> TakeLog();
    // Whether these stand in the log so far in this order (as parts of lines); takes the log.
    testing::AssertionResult Logged(const std::vector<std::string> &trail);

    std::string tools_;

private:
    void Listen();

    int socket_ = -1;
    std::vector<std::string> replaced_;
    std::atomic<bool> stop_ = false;
    std::mutex mutex_;
    std::vector<std::string> log_;
    std::thread listener_;
};

// A service object as a registration makes it.
Json::Value ServiceObj(const std::string &subscriber, const std::string &service, const std::string &more = "{}");

}  // namespace opalcrt
