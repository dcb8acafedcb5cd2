#include "diag_output.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

void DiagInputs::add(const char* path) {
    struct stat info;
    if (stat(path, &info) == 0) inputs_.push_back({info.st_dev, info.st_ino, path});
}

void DiagInputs::add_descriptor(int fd) {
    struct stat info;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) inputs_.push_back({info.st_dev, info.st_ino, "standard input"});
}

const char* DiagInputs::holding(const char* path) const {
    struct stat info;
    if (stat(path, &info) != 0) return nullptr;
    for (const Input& input : inputs_)
        if (input.device == info.st_dev && input.inode == info.st_ino) return input.path.c_str();
    return nullptr;
}

bool DiagOutput::open(const std::string& path, const DiagInputs& inputs) {
    discard();
    path_ = path;
    if (const char* input = inputs.holding(path.c_str()); input != nullptr) {
        fprintf(err_, "%s: %s: would overwrite the input %s\n", program_, path.c_str(), input);
        return false;
    }
    struct stat info;
    if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return fail("is a directory");
    // Hidden beside the output, so the rename stays within one file system.
    const size_t slash = path.rfind('/');
    const size_t name = slash == std::string::npos ? 0 : slash + 1;
    std::string temporary = path.substr(0, name) + "." + path.substr(name) + ".XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0) return fail(strerror(errno));
    temporary_ = temporary;
    // As a file created the usual way would be: mkstemp makes it private.
    const mode_t mask = umask(0);
    umask(mask);
    file_ = fchmod(fd, 0666 & ~mask) == 0 ? fdopen(fd, "w") : nullptr;
    if (file_ == nullptr) {
        const int error = errno;
        close(fd);
        return fail(strerror(error));
    }
    return true;
}

bool DiagOutput::finish() {
    if (file_ == nullptr) return false;
    errno = 0;
    const bool written = fflush(file_) == 0 && ferror(file_) == 0;
    const int error = errno != 0 ? errno : EIO;
    const bool closed = fclose(file_) == 0;
    file_ = nullptr;
    if (!written || !closed) return fail(strerror(written ? errno : error));
    return true;
}

bool DiagOutput::publish() {
    if (temporary_.empty() || file_ != nullptr) return false;
    if (rename(temporary_.c_str(), path_.c_str()) != 0) return fail(strerror(errno));
    temporary_.clear();
    return true;
}

bool DiagOutput::checked(bool ok) { return ok || fail(strerror(errno != 0 ? errno : EIO)); }

void DiagOutput::discard() {
    if (file_ != nullptr) fclose(file_);
    file_ = nullptr;
    if (!temporary_.empty()) unlink(temporary_.c_str());
    temporary_.clear();
}

bool DiagOutput::fail(const char* reason) {
    fprintf(err_, "%s: %s: %s\n", program_, path_.c_str(), reason);
    discard();
    return false;
}

bool diag_folder_make(const std::string& folder, const char* program, FILE* err) {
    for (size_t slash = folder.find('/', 1);; slash = folder.find('/', slash + 1)) {
        if (mkdir(folder.substr(0, slash).c_str(), 0777) != 0 && errno != EEXIST) break;
        if (slash != std::string::npos) continue;
        struct stat info;
        if (stat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return true;
        errno = ENOTDIR;
        break;
    }
    fprintf(err, "%s: %s: %s\n", program, folder.c_str(), strerror(errno));
    return false;
}
