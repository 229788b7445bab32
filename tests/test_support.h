// What tests of several modules need.
#ifndef ZELVO_TEST_SUPPORT_H
#define ZELVO_TEST_SUPPORT_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <string>

// How long a test waits for what must come; far beyond what a loaded machine needs.
inline constexpr std::chrono::seconds kLimit{60};

// Set once, waited for by any thread.
class Signal {
public:
    void set() {
        const std::lock_guard lock{mutex_};
        set_ = true;
        changed_.notify_all();
    }
    bool wait(std::chrono::milliseconds limit = kLimit) {
        std::unique_lock lock{mutex_};
        return changed_.wait_for(lock, limit, [this] { return set_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool set_ = false;
};

// A new empty directory, removed with all it holds.
class TempDir {
public:
    TempDir() {
        std::random_device random;
        do {
            path_ =
                std::filesystem::temp_directory_path() / ("zelvo-test-" + std::to_string(random()));
        } while (!std::filesystem::create_directory(path_));
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    std::string path() const { return path_.string(); }
    std::string file(const char *name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

inline std::string readFile(const std::string &path) {
    std::ifstream file{path, std::ios::binary};
    return {std::istreambuf_iterator<char>{file}, {}};
}

#endif
