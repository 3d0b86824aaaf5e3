#include "sandbox.h"

#include <json/reader.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace opalcrt
{

static constexpr char kVerbs[] = "OPALCRT_TOOL_FOLDER=" TOOL_FOLDER "; . " VERBS_FILE "\n";

static const sockaddr_un kLog = {AF_UNIX, "/dev/log"};
static const sockaddr *const kLogAddress = reinterpret_cast<const sockaddr *>(&kLog);

std::string Shell(const std::string &command)
{
    const std::string all = kVerbs + ("{ :; " + command + "\n} 2>&1");
    const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(all.c_str(), "re"), pclose);
    std::string text;
    for (int byte; (byte = fgetc(pipe.get())) != EOF;) {
        text += static_cast<char>(byte);
    }
    return text;
}

Json::Value ServiceObj(const std::string &service)
{
    Json::Value object;
    std::istringstream(R"({"subscriber": "p", "service": ")" + service + R"(", "display_name": "The )" + service +
                       R"(", "isPkg": true, "owner": "opalweb"})") >> object;
    return object;
}

Sandbox::Sandbox()
{
    if (access("/run/opalcrt-world", F_OK) != 0) {
        throw std::runtime_error("tests run in scripts/world only");
    }
    Shell("find /usr/opal /usr/local /tmp -xdev -mindepth 1 -delete; mkdir -p $A $P $D /usr/opal/share/certificate.d; "
          "cd $A; empty; crt c");
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    unlink("/dev/log");
    EXPECT_EQ(bind(socket_, kLogAddress, sizeof(kLog)) + chmod("/dev/log", 0666), 0);
    listener_ = std::thread([this] {
        std::vector<char> line(1 << 16);
        for (ssize_t length; (length = recv(socket_, line.data(), line.size(), 0)) > 0;) {
            const std::lock_guard guard(mutex_);
            log_.emplace_back(line.data(), static_cast<size_t>(length));
            arrived_.notify_one();
        }
    });
}

Sandbox::~Sandbox()
{
    shutdown(socket_, SHUT_RDWR);
    listener_.join();
    close(socket_);
    EXPECT_EQ(Shell("restore; cat /tmp/asan* /tmp/ubsan* 2>/dev/null"), "");
}

std::string Sandbox::Log()
{
    sendto(socket_, "end", 3, 0, kLogAddress, sizeof(kLog));  // The listener is a moment behind.
    std::unique_lock guard(mutex_);
    arrived_.wait(guard, [this] { return !log_.empty() && log_.back() == "end"; });
    log_.pop_back();
    std::string lines;
    // "<11>Nov 24 12:00:00 opalcrtregister: utils.cpp:12 text"
    const std::regex line(R"(^<(\d+)>.{15} (\S+): (\w+\.cpp):\d+ )");
    for (const std::string &text : log_) {
        std::smatch found;
        EXPECT_TRUE(std::regex_search(text, found, line)) << "no log line of ours: " << text;
        EXPECT_EQ(found[1], text.find("skip move") == std::string::npos ? "11" : "15") << text;
        lines += found[3].str() + " " + found.suffix().str() + "\n";
    }
    log_.clear();
    lines = std::regex_replace(lines, std::regex("/usr/opal/etc/certificate/_archive"), "$$A");
    return std::regex_replace(lines, std::regex("/usr/local/etc/certificate/"), "$$P/");
}

testing::AssertionResult Sandbox::Logged(const Trail &trail)
{
    const std::string log = Log();
    size_t place = 0;
    for (const std::string &part : trail) {
        if ((place = log.find(part, place)) == std::string::npos) {
            return testing::AssertionFailure() << "not in the log: " << part << "\nthe log:\n" << log;
        }
        place += part.size();
    }
    return testing::AssertionSuccess();
}

void Sandbox::Expect(const std::string &command, const std::string &result, const Trail &trail)
{
    EXPECT_EQ(Shell(command + "\nprintf $?"), result) << command;
    EXPECT_TRUE(Logged(trail)) << command;
}

void Sandbox::Check(const std::vector<Row> &rows, const std::string &before, const std::string &command,
                    const std::string &look)
{
    for (const Row &row : rows) {
        Expect(before + row.scene + "\n" + command, row.result, row.trail);
        EXPECT_EQ(Shell(look), row.seen) << row.scene;
    }
}

}  // namespace opalcrt
