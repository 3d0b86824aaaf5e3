// What all tests live in: a store on the real paths with the one certificate "c", a system log that can be read, and
// shell verbs to arrange a scene and to look at what a user would see.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace opalcrt
{

using Trail = std::vector<std::string>;

// What a shell prints. It starts in $A (the archive), knows the commands of the tool, the folders $S (the system's
// certificates), $P and $D (the packages' certificates and definitions), and the verbs of verbs.sh.
std::string Shell(const std::string &command);
// A service object of package p as a registration makes it.
Json::Value ServiceObj(const std::string &service);

struct Row {
    std::string scene;
    std::string result;  // what the command prints, and its exit status
    Trail trail;         // parts of the log, in this order
    std::string seen = "";  // what the look shows afterwards
};

class Sandbox : public testing::Test
{
protected:
    Sandbox();
    ~Sandbox() override;

    // The log so far, and none of it again: "utils.cpp Failed to lock [...]\n", with $A and $P in it.
    std::string Log();
    testing::AssertionResult Logged(const Trail &trail);
    void Expect(const std::string &command, const std::string &result, const Trail &trail = {});
    // For each row: `before` and its scene, then the command, then the look.
    void Check(const std::vector<Row> &rows, const std::string &before, const std::string &command,
               const std::string &look = "");

private:
    int socket_ = -1;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<std::string> log_;
    std::thread listener_;
};

}  // namespace opalcrt
