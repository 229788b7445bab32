// What the tests ask of the operating system; test_system.cpp is for all, and one source file for
// each system is behind it.
#ifndef ZELVO_TEST_SYSTEM_H
#define ZELVO_TEST_SYSTEM_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

std::uint32_t ownProcessId();
std::uint32_t ownThreadId();

// A count of rounds, less where the system's waits, files and processes are slow.
int scaled(int rounds);

// Runs body while the process can open no further file. False: not run, the system can't do that.
bool withoutFiles(const std::function<void()> &body);

// Runs body with the rights of a user who owns nothing. False: not run, which only root can do.
bool asNobody(const std::function<void()> &body);

// Runs body while no file can grow beyond a size, as on a full disk. False: not run, as above.
bool withFullDisk(std::size_t size, const std::function<void()> &body);

// Runs body while nobody can create or replace the file path, which exists and may be open.
void whileOccupied(const std::string &path, const std::function<void()> &body);

// A file that can be opened and takes nothing; empty where there is none.
std::string fullDevice();

// Captures standard error until text() is asked for; on Linux in a pipe, so that no disk is needed.
class StandardError {
public:
    StandardError();
    std::string text();

private:
    int saved_ = -1;
    int ends_[2] = {-1, -1};
};

// Another process of this program, which runs the test that starts it, with an argument that is
// not empty. It is killed in the middle of whatever it does.
class Child {
public:
    explicit Child(const std::string &argument);
    ~Child(); // kills it

    // Waits until the child has called tellParent. False: it has ended before.
    bool hasTold();

private:
    struct Process;
    std::unique_ptr<Process> process_;
};

// In the child: its argument; empty in a process that is none.
std::string childArgument();
void tellParent();

// How the two are implemented: the command line of a child, and the byte that it writes.
std::vector<std::string> childCommand(const std::string &argument);
inline constexpr char kTold = '\x06';

#endif
