// What tests of several modules need.
#ifndef ZELVO_TEST_SUPPORT_H
#define ZELVO_TEST_SUPPORT_H

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

// How long a test waits for what must come; far beyond what a loaded machine needs.
inline constexpr std::chrono::seconds kLimit{60};

// Waits until the condition holds; false: it never did.
inline bool eventually(auto condition, std::chrono::milliseconds limit = kLimit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    bool holds = condition();
    for (; !holds && std::chrono::steady_clock::now() < end; holds = condition()) {
        std::this_thread::sleep_for(std::chrono::milliseconds{2});
    }
    return holds;
}

// A new empty directory, removed with all it holds.
class TempDir {
public:
    TempDir() { std::filesystem::create_directory(path_); }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir &) = delete;

    // With "/" on every system: a "\\" would have to be escaped in JSON.
    std::string path() const { return path_.generic_string(); }
    std::string file(const char *name) const { return path() + "/" + name; }

private:
    const std::filesystem::path path_ = std::filesystem::temp_directory_path() /
                                        ("zelvo-test-" + std::to_string(std::random_device{}()));
};

// The answer of a call handler, for the library to free.
inline char *mallocText(const std::string &text) {
    auto *const copy = static_cast<char *>(std::malloc(text.size() + 1));
    return copy ? std::strcpy(copy, text.c_str()) : nullptr;
}

// The file of a name in UTF-8, which paths are made of only where they are told.
inline std::filesystem::path utf8Path(const std::string &name) {
    return {std::u8string{name.begin(), name.end()}};
}

inline std::string readFile(const std::string &path) {
    std::ifstream file{utf8Path(path), std::ios::binary};
    return {std::istreambuf_iterator<char>{file}, {}};
}

// What the tests ask of the operating system; one source file for each system is behind it.
using Body = std::function<void()>;
// Runs body with the rights of a user who owns nothing. False: not run, which only root can do.
bool asNobody(const Body &body);
// Runs body while no file can grow beyond a size, as on a full disk. False: the system can't.
bool withFullDisk(std::size_t size, const Body &body);

// How often the part stands in the text.
inline std::size_t count(const std::string &text, const std::string &part) {
    std::size_t found = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != text.npos; at += part.size()) {
        ++found;
    }
    return found;
}
inline bool says(const std::string &text, const std::string &part) {
    return text.find(part) != text.npos;
}

#endif
