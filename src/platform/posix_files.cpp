#include "platform/beside.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <system_error>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace {

// An open file descriptor, or none.
class File {
public:
    explicit File(int descriptor) noexcept : descriptor_{descriptor} {}
    ~File() {
        if (isOpen()) {
            close(descriptor_);
        }
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;

    bool isOpen() const noexcept { return descriptor_ >= 0; }
    int get() const noexcept { return descriptor_; }

private:
    int descriptor_;
};

std::error_code lastError() noexcept {
    return {errno, std::system_category()};
}

bool writeAll(int file, std::string_view data) noexcept {
    while (!data.empty()) {
        const ssize_t written = write(file, data.data(), data.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        data.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
    return true;
}

std::string directoryOf(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// A rename is on the disk once its directory is.
void syncDirectoryOf(const std::string &path) {
    const File file{open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (file.isOpen()) {
        fsync(file.get());
    }
}

// The file beside another that is to take its name; removed again unless it does. Its writer holds
// a lock on it, which dies with the process and tells others, on other machines and with other
// numbers for processes too, that it is no leftover.
class Beside {
public:
    explicit Beside(const std::string &path)
        : name_{besideName(path)},
          file_{open(name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)} {
        if (file_.isOpen()) {
            flock(file_.get(), LOCK_EX | LOCK_NB);
        }
    }
    ~Beside() {
        if (file_.isOpen() && !renamed_) {
            unlink(name_.c_str());
        }
    }
    Beside(const Beside &) = delete;
    Beside &operator=(const Beside &) = delete;

    bool isOpen() const noexcept { return file_.isOpen(); }
    bool takeOwnerAndMode(const struct stat &old) const noexcept {
        struct stat own {};
        return fstat(file_.get(), &own) == 0 &&
               ((own.st_uid == old.st_uid && own.st_gid == old.st_gid) ||
                fchown(file_.get(), old.st_uid, old.st_gid) == 0) &&
               (own.st_mode == old.st_mode || fchmod(file_.get(), old.st_mode & 07777) == 0);
    }
    bool fill(const Replacement &with) const noexcept {
        return writeAll(file_.get(), with.data) && (!with.flush || fsync(file_.get()) == 0);
    }
    bool rename(const char *path) noexcept {
        renamed_ = std::rename(name_.c_str(), path) == 0;
        return renamed_;
    }

private:
    const std::string name_;
    const File file_;
    bool renamed_ = false;
};

// Room is made first: a full disk is to be found before the old text is gone.
bool overwrite(int file, const Replacement &with) noexcept {
    struct stat old {};
    const auto size = static_cast<off_t>(with.data.size());
    if (fstat(file, &old) != 0) {
        return false;
    }
    errno = size > old.st_size ? posix_fallocate(file, 0, size) : 0;
    if (errno != 0) {
        const int reason = errno;
        errno = ftruncate(file, old.st_size) == 0 ? reason : errno;
        return false;
    }
    return writeAll(file, with.data) && ftruncate(file, size) == 0 &&
           (!with.flush || fsync(file) == 0);
}

FileResult writeInPlace(const char *path, const Replacement &with,
                        std::error_code &error) noexcept {
    const File file{open(path, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)};
    const bool done = file.isOpen() && overwrite(file.get(), with);
    error = done ? std::error_code{} : lastError();
    return done            ? FileResult::kDoneInPlace
           : file.isOpen() ? FileResult::kNotWritten
                           : FileResult::kNotOpened;
}

// Whether the directory, or a mount on the name, lets nobody make or replace the file.
bool forbidsReplacing(const std::error_code &error) noexcept {
    constexpr int kReasons[] = {EACCES, EPERM, EROFS, EBUSY};
    return std::find(std::begin(kReasons), std::end(kReasons), error.value()) != std::end(kReasons);
}

enum class Step { kDone, kAgain, kInPlace, kNotOpened, kNotWritten };

// Gives the old file its other name, and the new one the old name, or takes back what it can.
Step swapIn(Beside &beside, const char *path, const char *aside, std::error_code &error) noexcept {
    if (aside && std::rename(path, aside) != 0) {
        error = lastError();
        return Step::kNotWritten;
    }
    if (beside.rename(path)) {
        return Step::kDone;
    }
    error = lastError();
    if (aside) {
        std::rename(aside, path);
        return Step::kNotWritten;
    }
    return error.value() == ENOENT   ? Step::kAgain // somebody took it for a leftover
           : forbidsReplacing(error) ? Step::kInPlace
                                     : Step::kNotWritten;
}

// old: null where there is none.
Step replaceOnce(const char *path, const struct stat *old, const Replacement &with,
                 std::error_code &error) {
    Beside beside{path};
    error = lastError();
    if (!beside.isOpen()) {
        const bool inPlace = old && !with.aside && forbidsReplacing(error);
        return error.value() == EEXIST ? Step::kAgain : inPlace ? Step::kInPlace : Step::kNotOpened;
    }
    if (old && !beside.takeOwnerAndMode(*old) && !with.aside) {
        return Step::kInPlace;
    }
    if (!beside.fill(with)) {
        error = lastError();
        return Step::kNotWritten;
    }
    return swapIn(beside, path, with.aside, error);
}

// old: null where there is none. An error: it can't be replaced.
std::error_code lookAtOld(const char *path, struct stat &status, const struct stat *&old) noexcept {
    old = nullptr;
    if (lstat(path, &status) != 0) {
        return errno == ENOENT ? std::error_code{} : lastError();
    }
    old = &status;
    if (!S_ISREG(status.st_mode)) {
        return std::make_error_code(std::errc::invalid_argument);
    }
    return faccessat(AT_FDCWD, path, W_OK, AT_EACCESS) == 0 ? std::error_code{} : lastError();
}

struct DirectoryClose {
    void operator()(DIR *directory) const noexcept { closedir(directory); }
};

void removeIfLeft(const std::string &entry) {
    const File file{open(entry.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)};
    if (file.isOpen() && flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
        unlink(entry.c_str());
    }
}

} // namespace

std::FILE *openFile(const char *path, const char *mode) noexcept {
    const char itsOwn[] = {mode[0], mode[1], 'e', '\0'}; // programs that are begun do not hold it
    return std::fopen(path, itsOwn);
}

bool removeFile(const char *path) noexcept {
    return std::remove(path) == 0;
}

std::int64_t filePosition(std::FILE *file) noexcept {
    return ftello(file);
}

std::int64_t seekEnd(std::FILE *file) noexcept {
    return fseeko(file, 0, SEEK_END) == 0 ? filePosition(file) : -1;
}

FileLook lookAtFile(const char *path, std::error_code &error) noexcept {
    struct stat status {};
    if (stat(path, &status) != 0) {
        error = lastError();
        return {errno == ENOENT || errno == ENOTDIR ? FileKind::kNone : FileKind::kUnknown};
    }
    error.clear();
    return {S_ISREG(status.st_mode) ? FileKind::kRegular : FileKind::kOther, status.st_size,
            std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec};
}

std::string followLinks(const std::string &path) {
    constexpr int kMostLinks = 40; // as the kernel's
    std::filesystem::path name{path};
    for (int links = 0; links < kMostLinks; ++links) {
        std::error_code none;
        const std::filesystem::path target = std::filesystem::read_symlink(name, none);
        if (none) {
            return name.string();
        }
        name = name.parent_path() / target;
    }
    return path;
}

std::error_code makeFile(const char *path) noexcept {
    const File file{open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)};
    return file.isOpen() ? std::error_code{} : lastError();
}

FileResult replaceFile(const char *path, const Replacement &with, std::error_code &error) noexcept
    try {
    struct stat status {};
    const struct stat *old = nullptr;
    error = lookAtOld(path, status, old);
    Step step = error ? Step::kNotOpened : Step::kAgain;
    for (int i = 0; i < kBesideAttempts && step == Step::kAgain; ++i) {
        step = replaceOnce(path, old, with, error);
    }
    if (step == Step::kInPlace) {
        return writeInPlace(path, with, error);
    }
    if (step != Step::kDone) {
        return step == Step::kNotWritten ? FileResult::kNotWritten : FileResult::kNotOpened;
    }
    error.clear();
    if (with.flush) {
        syncDirectoryOf(path);
    }
    return FileResult::kDone;
} catch (const std::bad_alloc &) {
    error = std::make_error_code(std::errc::not_enough_memory);
    return FileResult::kNotOpened;
}

// opendir, since std::filesystem ends the program where memory is short.
void removeLeftovers(const char *path) noexcept try {
    const std::string directory = directoryOf(path);
    const std::string base = std::filesystem::path{path}.filename().string();
    const std::unique_ptr<DIR, DirectoryClose> entries{opendir(directory.c_str())};
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this call's own
    while (const dirent *const entry = entries ? readdir(entries.get()) : nullptr) {
        if (isBesideName(&entry->d_name[0], base)) {
            removeIfLeft(directory + '/' + &entry->d_name[0]);
        }
    }
} catch (const std::bad_alloc &) { // then they stay for another time
}

} // namespace platform
