#include "disk.h"

#include "platform/platform.h"
#include "scheduler.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include <unistd.h>

namespace simulation {
namespace {

struct File {
    std::string text;
    bool flushed;
};
std::shared_ptr<File> keyFile;   // as programs see it
std::shared_ptr<File> keyFileAt; // where its name led when that was last flushed
std::uint64_t steps = 0;

// After a loss of power a name leads where it was flushed to last, or where it leads now; of a file
// that was not flushed any part is there.
void loseTheRest(const std::string &written) {
    const std::shared_ptr<File> &left = world.chance.oneIn(2) ? keyFile : keyFileAt;
    const std::string text = left ? left->text : "";
    const auto size = static_cast<unsigned>(text.size());
    const std::string found =
        !left || left->flushed ? text : text.substr(0, world.chance.below(size + 1));
    note("the power fails; the key file holds " + found);
    if (found != written && found != (keyFileAt ? keyFileAt->text : "")) {
        fail("the key file is neither the old one nor the new one");
    }
    std::fflush(stdout);
    _exit(0);
}

void takeStep(const char *what, const std::string &written) {
    world.point();
    note(what);
    ++steps == disk.cutAt ? loseTheRest(written) : void();
}

} // namespace
} // namespace simulation

namespace platform {

using simulation::InLibrary;
using simulation::keyFile;

std::FILE *openFile(const char *path, const char *mode) noexcept {
    const InLibrary no{false};
    if (std::strcmp(path, simulation::kLog) != 0) {
        return fmemopen(keyFile->text.data(), keyFile->text.size(), mode);
    }
    cookie_io_functions_t functions{};
    functions.write = [](void * /*cookie*/, const char *line, std::size_t size) {
        const InLibrary still{false};
        simulation::disk.onLine({line, size});
        return static_cast<ssize_t>(size);
    };
    return fopencookie(nullptr, mode, functions);
}

FileResult replaceFile(const char * /*path*/, const Replacement &with,
                       std::error_code &error) noexcept {
    const InLibrary no{false};
    const std::string text{with.data};
    simulation::takeStep("makes a file beside the key file", text);
    const auto file = std::make_shared<simulation::File>(simulation::File{text, with.flush});
    simulation::takeStep("has written it", text);
    keyFile = file;
    simulation::takeStep("has renamed it", text);
    simulation::keyFileAt = with.flush ? file : simulation::keyFileAt;
    error.clear();
    return FileResult::kDone;
}

FileLook lookAtFile(const char * /*path*/, std::error_code &error) noexcept {
    error.clear();
    return {keyFile ? FileKind::kRegular : FileKind::kNone, 0, 0};
}

std::int64_t seekEnd(std::FILE *file) noexcept {
    return std::fseek(file, 0, SEEK_END) == 0 ? std::ftell(file) : -1;
}
std::int64_t filePosition(std::FILE * /*file*/) noexcept {
    return 0;
}
std::string followLinks(const std::string &path) {
    return path;
}
void removeLeftovers(const char * /*path*/) noexcept {}
bool removeFile(const char * /*path*/) noexcept {
    return false;
}
std::error_code makeFile(const char * /*path*/) noexcept {
    return std::make_error_code(std::errc::io_error); // nothing is set aside here
}

} // namespace platform
