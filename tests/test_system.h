// What the tests ask of the operating system; one source file for each system is behind it.
#ifndef ZELVO_TEST_SYSTEM_H
#define ZELVO_TEST_SYSTEM_H

#include <cstddef>
#include <functional>

using Body = std::function<void()>;

// Runs body with the rights of a user who owns nothing. False: not run, which only root can do.
bool asNobody(const Body &body);

// Runs body while no file can grow beyond a size, as on a full disk. False: not run, as above.
bool withFullDisk(std::size_t size, const Body &body);

#endif
