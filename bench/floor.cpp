// The least that the commands could cost: the same children with the same arguments, the same renames, modes, owners
// and syncs, and nothing else: no JSON, locks, checks or log. scripts/bench builds it and compares the tool with it.
// Any failure ends it with status 1, so a run that did less is never taken for a fast one.
//
//   floor register SUBSCRIBER COUNT    services s0, s1, ... as opalcrtregister does; prints the time of each program
//   floor deploy SUBSCRIBER COUNT      the same as opalcrt deploy does, which changes no book
//   floor report LIST WAY              LIST has lines "ID SUBSCRIBER SERVICE"; WAY is "line" or "certificate": hash
//                                      for each line, or only when ID changes
//   floor unregister SUBSCRIBER SERVICE   parse and write both books with jsoncpp, one rm
//   floor nothing - -                  nothing, with the libraries that the tool links
//   floor measure PROGRAM [ARG...]     runs it and prints its seconds, CPU seconds and peak memory in KiB

#include <dirent.h>
#include <fcntl.h>
#include <json/json.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

const std::string kArchive = "/usr/opal/etc/certificate/_archive";
const std::string kPackages = "/usr/local/etc/certificate";

std::map<std::string, double> programSeconds;

void Must(bool holds, const std::string &what)
{
    if (!holds) {
        fprintf(stderr, "floor: %s: %s\n", what.c_str(), strerror(errno));
        exit(1);
    }
}

double Now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int Spawn(const std::vector<std::string> &args, char *const environment[], rusage *usage)
{
    std::vector<char *> argv;
    for (const std::string &arg : args) {
        argv.push_back(const_cast<char *>(arg.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int fd = 0; fd <= 2; ++fd) {
        posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
    }
    pid_t child = 0;
    int status = 0;
    Must(posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environment) == 0, args[0]);
    Must(wait4(child, &status, 0, usage) == child, "wait");
    posix_spawn_file_actions_destroy(&actions);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

int Run(const std::vector<std::string> &args)
{
    static char *const environment[] = {const_cast<char *>("PATH=/usr/sbin:/usr/bin:/sbin:/bin"),
                                        const_cast<char *>("HOME=/root"), const_cast<char *>("LC_ALL=C"),
                                        nullptr};
    const double start = Now();
    const int status = Spawn(args, environment, nullptr);
    programSeconds[args[0] + " " + args[1]] += Now() - start;
    return status;
}

void Sync(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    Must(fd >= 0 && fsync(fd) == 0 && close(fd) == 0, "sync " + path);
}

std::string Parent(const std::string &path) { return path.substr(0, path.rfind('/')); }

void Rename(const std::string &from, const std::string &to)
{
    Must(rename(from.c_str(), to.c_str()) == 0, "rename " + from);
    Sync(Parent(to));
}

std::string Read(const std::string &path)
{
    std::ifstream file(path);
    Must(file.good(), path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// As the tool replaces a file; one that is new has no owner to take over.
void Replace(const std::string &path, const std::string &text, bool isNew, const char *suffix = ".new")
{
    const std::string fresh = path + suffix;
    const int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    Must(fd >= 0 && (isNew || fchown(fd, 0, 0) == 0) && fchmod(fd, 0644) == 0 &&
             write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(fd) == 0 &&
             close(fd) == 0,
         "write " + fresh);
    Rename(fresh, path);
}

void MakeFolder(const std::string &path)
{
    if (mkdir(path.c_str(), 0755) != 0) {
        Must(errno == EEXIST, "mkdir " + path);
        return;
    }
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    Must(fd >= 0 && fchown(fd, 0, 0) == 0 && fchmod(fd, 0755) == 0, "own " + path);
    Sync(Parent(path));
    close(fd);
}

void Copy(const std::string &source, const std::string &target, const passwd &owner)
{
    Must(Run({"/bin/cp", "-f", source, target}) == 0, "cp " + target);
    const int fd = open(target.c_str(), O_RDONLY | O_CLOEXEC);
    Must(fd >= 0 && fchmod(fd, 0400) == 0 && fchown(fd, owner.pw_uid, owner.pw_gid) == 0 && fsync(fd) == 0 &&
             close(fd) == 0,
         "own " + target);
}

void SyncFiles(const std::string &folder)
{
    DIR *entries = opendir(folder.c_str());
    Must(entries != nullptr, folder);
    while (const dirent *entry = readdir(entries)) {
        if (entry->d_name[0] != '.') {
            Sync(folder + "/" + entry->d_name);
        }
    }
    closedir(entries);
}

void Deploy(const std::string &folder, const std::string &info, const passwd &owner)
{
    const std::string staging = folder + ".temp";
    const std::string backup = folder + ".bak";
    MakeFolder(staging);
    for (const char *name : {"/cert.pem", "/privkey.pem", "/fullchain.pem"}) {
        Copy(kArchive + "/factory" + name, staging + name, owner);
    }
    Replace(staging + "/info", info, true);
    Must(Run({"/bin/rm", "-rf", backup}) == 0, "rm");
    if (access(folder.c_str(), F_OK) == 0) {
        Must(Run({"/bin/cp", "-arp", folder, backup}) == 0, "cp -arp");
        SyncFiles(backup);
        Sync(backup);
        Sync(Parent(backup));
    }
    Must(Run({"/bin/rm", "-rf", folder}) == 0, "rm");
    Rename(staging, folder);
    Must(Run({"/bin/rm", "-rf", backup}) == 0, "rm");
}

int Register(const std::string &subscriber, int count, bool changesBooks)
{
    // The books are written as often as the tool does it, with the text that they have.
    const std::string services = Read(kArchive + "/SERVICES");
    const std::string books = Read(kArchive + "/INFO");
    const std::string info(208, ' ');
    const passwd *found = getpwnam("opalweb");
    Must(found != nullptr, "user opalweb");
    const passwd owner = *found;

    if (changesBooks) {
        Must(unlink(("/usr/local/share/certificate.d/" + subscriber + ".cfg").c_str()) == 0, "definition");
        Replace(kArchive + "/SERVICES", services, false);
    }
    for (const std::string &folder : {Parent(kPackages), kPackages, kPackages + "/" + subscriber}) {
        MakeFolder(folder);
    }
    for (int number = 0; number < count; ++number) {
        Deploy(kPackages + "/" + subscriber + "/s" + std::to_string(number), info, owner);
        if (changesBooks) {
            Replace(kArchive + "/INFO", books, false, ".temp");
        }
    }
    Run({"/usr/bin/systemctl", "reload", "opalrelayd"});  // Fails where there is no such daemon.
    for (const auto &[program, seconds] : programSeconds) {
        printf("%s\t%.6f\n", program.c_str(), seconds);
    }
    return 0;
}

std::string Hash(const std::string &path)
{
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path.c_str(), "re"), fclose);
    Must(file != nullptr, path);
    const std::unique_ptr<X509, void (*)(X509 *)> crt(PEM_read_X509(file.get(), nullptr, nullptr, nullptr),
                                                      X509_free);
    unsigned char *der = nullptr;
    const int length = i2d_X509(crt.get(), &der);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    Must(
        length > 0 && EVP_Digest(der, static_cast<size_t>(length), digest, &size, EVP_sha256(), nullptr) == 1,
        path);
    OPENSSL_free(der);
    std::string hex;
    char digits[3];
    for (unsigned index = 0; index < size; ++index) {
        snprintf(digits, sizeof(digits), "%02x", digest[index]);
        hex += digits;
    }
    return hex;
}

int Report(const std::string &list, bool forEachLine)
{
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
    std::ifstream lines(list);
    Must(lines.good(), list);
    std::string last;
    std::string hash;
    for (std::string id, subscriber, service; lines >> id >> subscriber >> service;) {
        if (forEachLine || id != last) {
            hash = Hash(kArchive + "/" + id + "/cert.pem");
            last = id;
        }
        printf("%s %s %s\n", hash.c_str(), service.c_str(), subscriber.c_str());
    }
    return 0;
}

void Rewrite(const std::string &path)
{
    const std::string text = Read(path);
    Json::Value value;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Must(reader->parse(text.data(), text.data() + text.size(), &value, &errors), path);
    Replace(path, Json::writeString(Json::StreamWriterBuilder(), value), false);
}

int Measure(const std::vector<std::string> &args)
{
    rusage usage = {};
    const double start = Now();
    const int status = Spawn(args, environ, &usage);
    const double seconds = Now() - start;
    const double cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    printf("%.6f %.6f %ld\n", seconds, cpu, usage.ru_maxrss);
    return status;
}

}  // namespace

int main(int argc, char *argv[])
{
    const std::vector<std::string> args(argv + 1, argv + argc);
    const std::string mode = args.empty() ? "" : args[0];
    if (mode == "measure" && args.size() > 1) {
        return Measure({args.begin() + 1, args.end()});
    }
    if (args.size() != 3) {
        return 2;
    }
    if (mode == "nothing") {
        return 0;
    }
    if (mode == "register" || mode == "deploy") {
        return Register(args[1], atoi(args[2].c_str()), mode == "register");
    }
    if (mode == "report") {
        return Report(args[1], args[2] == "line");
    }
    Must(mode == "unregister", mode);
    Rewrite(kArchive + "/SERVICES");
    Rewrite(kArchive + "/INFO");
    Must(Run({"/bin/rm", "-rf", kPackages + "/" + args[1] + "/" + args[2]}) == 0, "rm");
    return 0;
}
