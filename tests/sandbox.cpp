#include "sandbox.h"

#include <json/reader.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "common/json_file.h"

namespace opalcrt
{

namespace fs = std::filesystem;

namespace
{

// The sanitizers' report is not part of what the tool prints, and leaks cannot be looked for under strace.
constexpr char kEnvironment[] = "ASAN_OPTIONS=log_path=/tmp/asan:detect_leaks=0 UBSAN_OPTIONS=log_path=/tmp/ubsan";

std::string Quote(const std::string &text)
{
    return "'" + std::regex_replace(text, std::regex("'"), "'\\''") + "'";
}

int ToStatus(int status)
{
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

std::string ReadFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return file.is_open() ? text.str() : "(missing)";
}

void WriteFile(const std::string &path, const std::string &text, mode_t mode)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
    fs::permissions(path, static_cast<fs::perms>(mode));
}

Json::Value ParseJson(const std::string &text)
{
    Json::Value value;
    std::istringstream stream(text);
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &value, &errors)) {
        throw std::runtime_error(text + ": " + errors);
    }
    return value;
}

Json::Value ReadJson(const std::string &path) { return ParseJson(ReadFile(path)); }

std::string Shell(const std::string &command)
{
    const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(("{ " + command + "\n} 2>&1").c_str(), "re"), pclose);
    std::string text;
    for (int byte; (byte = fgetc(pipe.get())) != EOF;) {
        text += static_cast<char>(byte);
    }
    return text;
}

bool Exists(const std::string &path) { return fs::exists(fs::symlink_status(path)); }

bool CanParse(const std::string &path)
{
    try {
        ReadJson(path);
        return true;
    } catch (const std::exception &) {
        return false;
    }
}

Sandbox::Sandbox()
{
    if (!Exists("/run/opalcrt-world")) {
        throw std::runtime_error("tests run in scripts/world only");
    }
    Shell("find /usr/opal /usr/local /usr/libexec/certificate.d /tmp -xdev -mindepth 1 -delete");
    for (const std::string &folder : {kStore, kPackages, kPackageDefinitions, kSystemDefinitions}) {
        fs::create_directories(folder);
    }
    SetInfo("{}");
    SetServices("[]");
    tools_ = TOOL_FOLDER;

    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {AF_UNIX, "/dev/log"};
    unlink(address.sun_path);
    if (bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
        chmod(address.sun_path, 0666) != 0) {
        throw std::runtime_error("/dev/log");
    }
    listener_ = std::thread([this] { Listen(); });
}

Sandbox::~Sandbox()
{
    RestorePrograms();
    stop_ = true;
    listener_.join();
    close(socket_);
    EXPECT_EQ(Shell("cat /tmp/asan* /tmp/ubsan* 2>/dev/null"), "");
}

void Sandbox::Listen()
{
    std::vector<char> line(1 << 20);
    pollfd wait = {socket_, POLLIN, 0};
    while (!stop_) {
        if (poll(&wait, 1, 20) == 1) {
            const ssize_t length = recv(socket_, line.data(), line.size(), 0);
            const std::lock_guard guard(mutex_);
            log_.emplace_back(line.data(), static_cast<size_t>(std::max<ssize_t>(length, 0)));
        }
    }
}

std::vector<std::string> Sandbox::TakeLog()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(60));  // A round of the listener.
    const std::lock_guard guard(mutex_);
    std::vector<std::string> lines;
    // "<11>Nov 24 12:00:00 opalcrtregister: utils.cpp:12 text"
    const std::regex line(R"(^<(\d+)>.{15} (\S+): (\w+\.cpp):\d+ )");
    for (const std::string &text : log_) {
        std::smatch found;
        if (!std::regex_search(text, found, line)) {
            ADD_FAILURE() << "no log line of ours: " << text;
        } else {
            EXPECT_EQ(found[1], text.find("skip move") == std::string::npos ? "11" : "15") << text;
            lines.push_back(found[3].str() + " " + found.suffix().str());
        }
    }
    log_.clear();
    return lines;
}

testing::AssertionResult Sandbox::Logged(const std::vector<std::string> &trail)
{
    const std::vector<std::string> lines = TakeLog();
    size_t next = 0;
    for (const std::string &line : lines) {
        if (next < trail.size() && line.find(trail[next]) != std::string::npos) {
            ++next;
        }
    }
    if (next == trail.size()) {
        return testing::AssertionSuccess();
    }
    testing::AssertionResult failure = testing::AssertionFailure();
    failure << "not in the log: " << trail[next] << "\nthe log:\n";
    for (const std::string &line : lines) {
        failure << "  " << line << "\n";
    }
    return failure;
}

void Sandbox::AddCrt(const std::string &id, const std::vector<std::string> &prefixes)
{
    const std::string folder = kStore + id + "/";
    fs::create_directories(folder);
    for (const std::string &prefix : prefixes) {
        Shell("/usr/bin/openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 9 -subj /CN=" + id +
              " -keyout " + folder + prefix + "privkey.pem -out " + folder + prefix + "cert.pem; cp " + folder +
              prefix + "cert.pem " + folder + prefix + "fullchain.pem; chmod 0400 " + folder + "*.pem");
    }
    Json::Value info = ReadJson(kStore + "INFO");
    info[id]["services"] = Json::Value(Json::arrayValue);
    SetInfo(info.toStyledString());
}

Json::Value ServiceObj(const std::string &subscriber, const std::string &service, const std::string &more)
{
    Json::Value object = ParseJson(more);
    object["subscriber"] = subscriber;
    object["service"] = service;
    object["display_name"] = "The " + service;
    object["isPkg"] = true;
    object["owner"] = "opalweb";
    return object;
}

void Sandbox::Define(const std::string &subscriber, const std::vector<std::string> &services)
{
    Json::Value definition = ParseJson(R"({"owner": "opalweb", "isPkg": true, "services": []})");
    for (const std::string &service : services) {
        Json::Value element;
        element["service"] = service;
        element["display_name"] = "The " + service;
        definition["services"].append(element);
    }
    WriteFile(kPackageDefinitions + subscriber + ".cfg", toString(definition));
}

Result Sandbox::Run(const std::vector<std::string> &args, const std::string &wrapper, uid_t as)
{
    static std::atomic<int> counter = 0;
    const std::string base = "/run/result." + std::to_string(++counter);
    std::string command = "export " + std::string(kEnvironment) + "; ";
    if (as != 0) {
        command += "/usr/bin/setpriv --reuid=" + std::to_string(as) + " --clear-groups ";
    }
    command += wrapper + " " + tools_ + "/" + Quote(args[0]);
    for (size_t index = 1; index < args.size(); ++index) {
        command += " " + Quote(args[index]);
    }
    Result result;
    result.status = ToStatus(system((command + " >" + base + ".out 2>" + base + ".err").c_str()));
    result.out = ReadFile(base + ".out");
    result.err = ReadFile(base + ".err");
    EXPECT_EQ(result.err, "") << command;
    return result;
}

Result Sandbox::RunWithFault(const std::vector<std::string> &args, const std::string &call, const std::string &error,
                             int when)
{
    const std::string trace = "/run/fault.trace";
    const Result result = Run(args, "/usr/bin/strace -qq -o " + trace + " -e signal=none -e trace=" + call +
                                        " -e inject=" + call + ":" + error + ":when=" + std::to_string(when));
    EXPECT_NE(ReadFile(trace).find("INJECTED"), std::string::npos) << call << " was not called " << when << " times";
    return result;
}

void Sandbox::ReplaceProgram(const std::string &path, const std::string &script)
{
    const std::string stand = "/run/program." + fs::path(path).filename().string();
    WriteFile(stand, "#!/bin/bash\n" + script + "\n", 0755);
    const std::string real = fs::canonical(path);
    ASSERT_EQ(Shell("mount --bind " + stand + " " + real), "");
    replaced_.push_back(real);
}

void Sandbox::RestorePrograms()
{
    for (const std::string &path : replaced_) {
        EXPECT_EQ(Shell("umount " + path), "");
    }
    replaced_.clear();
}

}  // namespace opalcrt
