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
#include <functional>
#include <map>
#include <string>
#include <thread>

#include <gtest/gtest.h>

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

struct Outcome {
    std::string unavailable;  // why no private /var/run could be made
    std::string tid;          // the child's main thread
    std::string note;         // what the scenario returned
    std::string files;        // "<name> <octal mode> <content>\n" each, by name
};

// Runs scenario in a child with a private /var/run and collects the files
// the child found there afterwards.
Outcome run_registration(const std::function<std::string()>& scenario) {
    int channel[2];
    EXPECT_EQ(pipe(channel), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        std::string message = make_private_var_run();
        if (message.empty()) {
            message = std::string(1, '\0') + scenario() + '\0';
            std::map<std::string, std::string> files;
            DIR* dir = opendir("/var/run");
            for (dirent* entry; dir != nullptr && (entry = readdir(dir)) != nullptr;) {
                const std::string path = std::string("/var/run/") + entry->d_name;
                struct stat info {};
                if (entry->d_name[0] == '.' || stat(path.c_str(), &info) != 0) continue;
                char mode[8];
                snprintf(mode, sizeof mode, " %o ", info.st_mode & 07777);
                files[entry->d_name] = mode + read_fd(open(path.c_str(), O_RDONLY)) + "\n";
            }
            if (dir != nullptr) closedir(dir);
            for (const auto& [name, rest] : files) message += name + rest;
        }
        static_cast<void>(write(channel[1], message.data(), message.size()));  // small: one write
        _exit(0);
    }
    close(channel[1]);
    const std::string message = read_fd(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    Outcome outcome{"", std::to_string(child), "", {}};
    const size_t split = message.find('\0', 1);
    if (message.empty() || message[0] != '\0' || split == std::string::npos) {
        outcome.unavailable = message.empty() ? "no answer from the child" : message;
    } else {
        outcome.note = message.substr(1, split - 1);
        outcome.files = message.substr(split + 1);
    }
    return outcome;
}

TEST(ThreadRegister, FileNamesContentsAndTheDefaultApplicationName) {
    const std::string app(60, 'a'), thread(150, 't');
    const Outcome outcome = run_registration([&] {
        thread_register("app", "rx");
        thread_register(nullptr, "tx");  // no default name yet
        thread_register_set_app_name("sw");
        thread_register(nullptr, "ry");
        thread_register("app", "tz");  // a given name wins
        // Registering again replaces the file (here a longer one) with the newer thread.
        write_file("/var/run/sw-rz", std::string(100, 'x'));
        thread_register(nullptr, "rz");
        std::string other;
        std::thread([&other] {
            thread_register(nullptr, "rz");
            other = std::to_string(syscall(SYS_gettid));
        }).join();
        thread_register_set_app_name("");  // back to none
        thread_register(nullptr, "cli");
        // Unwritable places are silently skipped.
        thread_register("app", "no-such-dir/rx");
        thread_register(nullptr, nullptr);
        // Paths and contents are cut at 127 characters.
        thread_register(app.c_str(), thread.c_str());
        thread_register_set_app_name(std::string(200, 'b').c_str());
        thread_register(nullptr, "rb");
        return other;
    });
    if (!outcome.unavailable.empty()) GTEST_SKIP() << "no private /var/run for this test: " << outcome.unavailable;
    const std::string& tid = outcome.tid;  // the child's main thread
    ASSERT_FALSE(outcome.note.empty());
    EXPECT_NE(outcome.note, tid);
    const size_t name_room = 127 - strlen("/var/run/");
    auto line = [&](const std::string& name, const std::string& content) { return name + " 644 " + content + "\n"; };
    EXPECT_EQ(outcome.files, line((app + "-" + thread).substr(0, name_room), (tid + " " + thread + " ").substr(0, 127)) +
                                 line("app-rx", tid + " rx ") + line("app-tz", tid + " tz ") +
                                 line(std::string(name_room, 'b'), tid + " rb ") + line("cli", tid + " cli ") +
                                 line("sw-ry", tid + " ry ") + line("sw-rz", outcome.note + " rz ") +
                                 line("tx", tid + " tx "));
}

}  // namespace
