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

struct RegisteredFile {
    unsigned int mode;
    std::string content;
    bool operator==(const RegisteredFile&) const = default;
};

struct Outcome {
    std::string unavailable;  // why no private /var/run could be made
    pid_t child = 0;
    std::string note;  // what the scenario reported
    std::map<std::string, RegisteredFile> files;
};

void write_file(const char* path, const std::string& text) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
        static_cast<void>(write(fd, text.data(), text.size()));
        close(fd);
    }
}

std::string read_file(const std::string& path) {
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY);
    char chunk[256];
    for (ssize_t n; fd >= 0 && (n = read(fd, chunk, sizeof chunk)) > 0;) {
        text.append(chunk, static_cast<size_t>(n));
    }
    if (fd >= 0) close(fd);
    return text;
}

bool private_var_run(std::string* why) {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (uid != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            *why = std::string("user namespace: ") + strerror(errno);
            return false;
        }
        write_file("/proc/self/setgroups", "deny");
        write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    } else if (unshare(CLONE_NEWNS) != 0) {
        *why = std::string("mount namespace: ") + strerror(errno);
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/var/run", "tmpfs", 0, "mode=0755") != 0) {
        *why = std::string("tmpfs on /var/run: ") + strerror(errno);
        return false;
    }
    umask(0);  // so the files show the mode the library asked for
    return true;
}

// Runs scenario in a child with a private /var/run; returns the files the
// child found there afterwards (name -> mode and content).
Outcome run_registration(const std::function<std::string()>& scenario) {
    int channel[2];
    EXPECT_EQ(pipe(channel), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        std::string message;
        std::string why;
        if (!private_var_run(&why)) {
            message = "U" + why;
        } else {
            message = "N" + scenario();
            message.push_back('\0');
            DIR* dir = opendir("/var/run");
            for (dirent* entry; dir != nullptr && (entry = readdir(dir)) != nullptr;) {
                const std::string name = entry->d_name;
                struct stat info {};
                if (name == "." || name == ".." || stat(("/var/run/" + name).c_str(), &info) != 0) continue;
                message += name + '\0' + std::to_string(info.st_mode & 07777) + '\0' +
                           read_file("/var/run/" + name) + '\0';
            }
            if (dir != nullptr) closedir(dir);
        }
        for (size_t at = 0; at < message.size();) {
            const ssize_t n = write(channel[1], message.data() + at, message.size() - at);
            if (n <= 0) break;
            at += static_cast<size_t>(n);
        }
        _exit(0);
    }
    close(channel[1]);
    const std::string message = read_file("/proc/self/fd/" + std::to_string(channel[0]));
    close(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    Outcome outcome;
    outcome.child = child;
    if (message.empty() || message[0] == 'U') {
        outcome.unavailable = message.empty() ? "no answer from the child" : message.substr(1);
        return outcome;
    }
    std::vector<std::string> fields;
    for (size_t at = 1; at < message.size();) {
        const size_t end = message.find('\0', at);
        fields.push_back(message.substr(at, end - at));
        at = end + 1;
    }
    outcome.note = fields.at(0);
    for (size_t i = 1; i + 2 < fields.size(); i += 3) {
        outcome.files[fields[i]] = {static_cast<unsigned int>(std::stoul(fields[i + 1])), fields[i + 2]};
    }
    return outcome;
}

#define RUN_OR_SKIP(outcome, scenario)                                               \
    const Outcome outcome = run_registration(scenario);                              \
    if (!outcome.unavailable.empty()) {                                              \
        GTEST_SKIP() << "no private /var/run for this test: " << outcome.unavailable; \
    }

std::string tid_of_caller() { return std::to_string(syscall(SYS_gettid)); }

TEST(ThreadRegister, FileNamesAndContents) {
    RUN_OR_SKIP(outcome, [] {
        thread_register("app", "rx");
        thread_register(nullptr, "tx");  // no default name yet
        return std::string();
    });
    const std::string tid = std::to_string(outcome.child);  // the child's only thread
    const std::map<std::string, RegisteredFile> expected = {{"app-rx", {0644, tid + " rx "}},
                                                            {"tx", {0644, tid + " tx "}}};
    EXPECT_EQ(outcome.files, expected);
}

TEST(ThreadRegister, DefaultApplicationNameAndWhatWinsOverIt) {
    RUN_OR_SKIP(outcome, [] {
        thread_register_set_app_name("sw");
        thread_register(nullptr, "rx");
        thread_register("app", "tx");
        thread_register_set_app_name("");  // back to none
        thread_register(nullptr, "cli");
        return std::string();
    });
    const std::string tid = std::to_string(outcome.child);
    const std::map<std::string, RegisteredFile> expected = {
        {"sw-rx", {0644, tid + " rx "}}, {"app-tx", {0644, tid + " tx "}}, {"cli", {0644, tid + " cli "}}};
    EXPECT_EQ(outcome.files, expected);
}

TEST(ThreadRegister, ReRegisteringReplacesTheFileWithTheNewerThread) {
    RUN_OR_SKIP(outcome, [] {
        write_file("/var/run/app-rx", std::string(100, 'x'));  // longer than what follows
        thread_register("app", "rx");
        std::string other;
        std::thread([&other] {
            thread_register("app", "rx");
            other = tid_of_caller();
        }).join();
        return other;
    });
    ASSERT_FALSE(outcome.note.empty());
    EXPECT_NE(outcome.note, std::to_string(outcome.child));
    const std::map<std::string, RegisteredFile> expected = {{"app-rx", {0644, outcome.note + " rx "}}};
    EXPECT_EQ(outcome.files, expected);
}

TEST(ThreadRegister, PathsAndContentsAreCutAt127Characters) {
    const std::string app(60, 'a');
    const std::string thread(150, 't');
    RUN_OR_SKIP(outcome, ([&] {
                    thread_register(app.c_str(), thread.c_str());
                    // Longer than any path: cut like the others.
                    thread_register_set_app_name(std::string(200, 'b').c_str());
                    thread_register(nullptr, "rx");
                    return std::string();
                }));
    const std::string tid = std::to_string(outcome.child);
    const std::string dir = "/var/run/";
    const std::string long_name = (app + "-" + thread).substr(0, 127 - dir.size());
    const std::string content = (tid + " " + thread + " ").substr(0, 127);
    const std::map<std::string, RegisteredFile> expected = {
        {long_name, {0644, content}}, {std::string(127 - dir.size(), 'b'), {0644, tid + " rx "}}};
    EXPECT_EQ(outcome.files, expected);
}

TEST(ThreadRegister, UnwritablePlacesAreSilentlySkipped) {
    RUN_OR_SKIP(outcome, [] {
        thread_register("app", "no-such-dir/rx");
        thread_register(nullptr, nullptr);
        return std::string("survived");
    });
    EXPECT_EQ(outcome.note, "survived");
    EXPECT_TRUE(outcome.files.empty());
}

}  // namespace
