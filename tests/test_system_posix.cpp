#include "test_system.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <filesystem>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

std::uint32_t ownProcessId() {
    return static_cast<std::uint32_t>(getpid());
}

std::uint32_t ownThreadId() {
    return static_cast<std::uint32_t>(gettid());
}

int scaled(int rounds) {
    return rounds;
}

bool withoutFiles(const std::function<void()> &body) {
    rlimit usual{};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit none{0, usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    body();
    setrlimit(RLIMIT_NOFILE, &usual);
    return true;
}

struct FullDisk::Limit {
    rlimit size{};
    void (*handler)(int) = nullptr;
};

bool FullDisk::possible() {
    return true;
}

FullDisk::FullDisk(std::size_t size) : before_{std::make_unique<Limit>()} {
    before_->handler = std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_->size);
    rlimit limit = before_->size;
    limit.rlim_cur = size;
    setrlimit(RLIMIT_FSIZE, &limit);
}

FullDisk::~FullDisk() {
    setrlimit(RLIMIT_FSIZE, &before_->size);
    std::signal(SIGXFSZ, before_->handler);
}

std::string fullDevice() {
    return "/dev/full";
}

FullOutput::FullOutput() {
    std::fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    const int full = open(fullDevice().c_str(), O_WRONLY);
    EXPECT_GE(full, 0);
    dup2(full, STDOUT_FILENO);
    close(full);
}

FullOutput::~FullOutput() {
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
}

StandardError::StandardError() : saved_{dup(STDERR_FILENO)} {
    EXPECT_EQ(pipe(ends_), 0);
    dup2(ends_[1], STDERR_FILENO);
    close(ends_[1]);
}

std::string StandardError::text() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    std::string all;
    char part[1024];
    for (ssize_t size = 0; (size = read(ends_[0], part, sizeof part)) > 0;) {
        all.append(part, static_cast<std::size_t>(size));
    }
    close(ends_[0]);
    return all;
}

struct Occupied::Hold {
    std::string path;
};

Occupied::Occupied(const std::string &path) : hold_{std::make_unique<Hold>(Hold{path})} {
    std::filesystem::remove(path);
    std::filesystem::create_directories(path + "/in the way");
}

Occupied::~Occupied() {
    std::filesystem::remove_all(hold_->path);
}

struct Child::Process {
    pid_t id = 0;
    int output = -1;
};

Child::Child(const std::string &argument) : process_{std::make_unique<Process>()} {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    std::vector<std::string> command = childCommand(argument);
    std::vector<char *> words;
    for (std::string &word : command) {
        words.push_back(word.data());
    }
    words.push_back(nullptr);
    process_->id = fork();
    if (process_->id == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        execv(words[0], words.data());
        _exit(127);
    }
    close(ends[1]);
    process_->output = ends[0];
}

Child::~Child() {
    kill(process_->id, SIGKILL);
    waitpid(process_->id, nullptr, 0);
    close(process_->output);
}

bool Child::hasTold() {
    char byte = 0;
    while (byte != kTold && read(process_->output, &byte, 1) == 1) {}
    return byte == kTold;
}
