// Thread registration files and the event timestamp ring. Registration runs
// in a child process that has a private, empty /var/run (a tmpfs in its own
// mount namespace, inside a user namespace when not run as root), so the
// library's real paths are used without touching the machine's /var/run.
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
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
    if (unshare(uid == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS) != 0)
        return std::string("unshare: ") + strerror(errno);
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
            write_file("/var/run/sw-rz",
                       std::string(100, 'x'));  // registering again replaces a file, here a longer one
            std::string other;
            std::thread([&other] {
                thread_register(nullptr, "rz"), other = std::to_string(syscall(SYS_gettid));
            }).join();
            thread_register(std::string(60, 'a').c_str(), std::string(150, 't').c_str());  // cut at 127 characters
            answer = std::string(1, '\0') + std::to_string(syscall(SYS_gettid)) + " " + other + '\0';
            std::map<std::string, std::string> files;
            DIR* dir = opendir("/var/run");
            for (dirent* entry; (entry = readdir(dir)) != nullptr;) {
                const std::string path = std::string("/var/run/") + entry->d_name;
                struct stat info {};
                if (entry->d_name[0] != '.' && stat(path.c_str(), &info) == 0)
                    files[entry->d_name] =
                        corvex_test::fmt(" %o ", info.st_mode & 07777) + read_fd(open(path.c_str(), O_RDONLY));
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
    EXPECT_EQ(answer.substr(split + 1), line(std::string(60, 'a') + "-" + std::string(127 - 9 - 61, 't'),
                                             tid + " " + std::string(150, 't').substr(0, 127 - tid.size() - 1)) +
                                            line("app-rx", tid + " rx ") + line("app-tz", tid + " tz ") +
                                            line("sw-rz", other + " rz ") + line("tx", tid + " tx "));
}

std::vector<std::string> printed;
int calls = 0, fail_at = -1;  // the call that answers -1

int capture_print(const char* format, ...) {
    if (calls++ == fail_at) return -1;
    char line[256];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    printed.emplace_back(line);
    return length;
}

std::string column(const char* name, const char* kind) { return corvex_test::fmt("%-32s  %-5s at ", name, kind); }

TEST(EventTimestamps, AWrappedRingPrintsAllButTheOldestUntilAPrintFails) {
    char name[] = "before";
    event_timestamp_record_init(4);
    for (const char* lost : {"lost", "lost too"}) event_timestamp_record(lost, 1);
    event_timestamp_record("x", 257);   // start is the low eight bits
    event_timestamp_record(name, 256);  // kept by pointer
    event_timestamp_record("y", 1);
    snprintf(name, sizeof name, "after");
    event_timestamp_record_print(capture_print);
    ASSERT_EQ(printed.size(), 3u);
    EXPECT_EQ(
        std::tuple(printed[0].substr(0, 43), printed[1].substr(0, 43), printed[2].substr(0, 43), printed[2].back()),
        std::tuple(column("x", "start"), column("after", "end"), column("y", "start"), '\n'));
    unsigned int sec = 0, usec = 0;  // microseconds of the monotonic clock
    EXPECT_TRUE(sscanf(printed[0].c_str() + 43, "%u sec %u usec", &sec, &usec) == 2 && usec < 1000000) << printed[0];
    printed.clear();
    calls = 0, fail_at = 1;
    event_timestamp_record_print(capture_print);
    EXPECT_EQ(std::tuple(printed.size(), calls), std::tuple(1u, 2)) << "nothing after the failed call";
    event_timestamp_record_init(0);  // no ring: nothing is recorded or printed
    event_timestamp_record("lost", 1);
    event_timestamp_record_print(capture_print);
    EXPECT_EQ(printed.size(), 1u);
}

}  // namespace
