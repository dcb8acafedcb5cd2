// Thread registration files. Each scenario runs in a child process that has
// a private, empty /var/run (a tmpfs in its own mount namespace, inside a
// user namespace when not run as root), so the library's real paths are
// used without touching the machine's /var/run and without privileges.
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "syslog_capture.h"
#include "time_util.h"

namespace {

void write_file(const char* path, const std::string& text) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
        static_cast<void>(write(fd, text.data(), text.size()));
        close(fd);
    }
}

std::string read_fd(int fd) {
    std::string text;
    char chunk[256];
    for (ssize_t n; fd >= 0 && (n = read(fd, chunk, sizeof chunk)) > 0;) text.append(chunk, static_cast<size_t>(n));
    if (fd >= 0) close(fd);
    return text;
}

// Empty string when done, else why not.
std::string make_private_var_run() {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(uid == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS) != 0) return std::string("unshare: ") + strerror(errno);
    if (uid != 0) {
        write_file("/proc/self/setgroups", "deny");
        write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/var/run", "tmpfs", 0, "mode=0755") != 0) {
        return std::string("tmpfs on /var/run: ") + strerror(errno);
    }
    umask(0);  // so the files show the mode the library asked for
    return "";
}

TEST(ThreadRegister, FileNamesContentsAndTheDefaultApplicationName) {
    int channel[2];
    ASSERT_EQ(pipe(channel), 0);
    const pid_t child = fork();
    if (child == 0) {  // answers "\0", its own and another thread's id, "\0", then "<name> <mode> <content>\n" per file
        std::string answer = make_private_var_run();
        if (answer.empty()) {
            thread_register("app", "rx");
            thread_register(nullptr, "tx");  // no default name yet
            thread_register_set_app_name("sw");
            thread_register("app", "tz");  // a given name wins
            write_file("/var/run/sw-rz", std::string(100, 'x'));  // registering again replaces a file, here a longer one
            std::string other;
            std::thread([&other] { thread_register(nullptr, "rz"), other = std::to_string(syscall(SYS_gettid)); }).join();
            thread_register("app", "no-such-dir/rx");  // unwritable places are silently skipped
            thread_register(std::string(60, 'a').c_str(), std::string(150, 't').c_str());  // cut at 127 characters
            answer = std::string(1, '\0') + std::to_string(syscall(SYS_gettid)) + " " + other + '\0';
            std::map<std::string, std::string> files;
            DIR* dir = opendir("/var/run");
            for (dirent* entry; (entry = readdir(dir)) != nullptr;) {
                const std::string path = std::string("/var/run/") + entry->d_name;
                struct stat info {};
                if (entry->d_name[0] != '.' && stat(path.c_str(), &info) == 0)
                    files[entry->d_name] = corvex_test::fmt(" %o ", info.st_mode & 07777) + read_fd(open(path.c_str(), O_RDONLY));
            }
            closedir(dir);
            for (const auto& [name, rest] : files) answer += name + rest + "\n";
        }
        static_cast<void>(write(channel[1], answer.data(), answer.size()));  // small: one write
        _exit(0);
    }
    close(channel[1]);
    const std::string answer = read_fd(channel[0]);
    waitpid(child, nullptr, 0);
    if (answer.empty() || answer[0] != '\0') GTEST_SKIP() << "no private /var/run for this test: " << answer;
    const size_t space = answer.find(' '), split = answer.find('\0', 1);
    const std::string tid = answer.substr(1, space - 1), other = answer.substr(space + 1, split - space - 1);
    auto line = [](const std::string& name, const std::string& content) { return name + " 644 " + content + "\n"; };
    EXPECT_EQ(answer.substr(split + 1), line(std::string(60, 'a') + "-" + std::string(127 - 9 - 61, 't'), tid + " " + std::string(150, 't').substr(0, 127 - tid.size() - 1)) +
                                            line("app-rx", tid + " rx ") + line("app-tz", tid + " tz ") +
                                            line("sw-rz", other + " rz ") + line("tx", tid + " tx "));
}

}  // namespace
