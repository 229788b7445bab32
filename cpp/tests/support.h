// What the tests of the C++ face share.
#ifndef ZELVO_CPP_TESTS_SUPPORT_H
#define ZELVO_CPP_TESTS_SUPPORT_H

#include <zelvo/bus.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <string>

using namespace std::chrono_literals;

// How long a test waits for what must come; far beyond what a loaded machine needs.
inline constexpr std::chrono::seconds kLimit{60};

// Set once, by any thread.
class Gate {
public:
    void open() {
        const std::lock_guard lock{mutex_};
        open_ = true;
        changed_.notify_all();
    }
    bool wait(std::chrono::milliseconds limit = kLimit) {
        std::unique_lock lock{mutex_};
        return changed_.wait_for(lock, limit, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

inline zelvo::Config quiet() {
    zelvo::Config config;
    config.level = zelvo::Level::errors;
    config.on_error = [](std::string_view node, const std::exception_ptr &) {
        ADD_FAILURE() << "a handler of " << node << " has thrown";
    };
    return config;
}

// A bus with two nodes.
class Face : public testing::Test {
protected:
    zelvo::Bus bus{quiet()};
    zelvo::Node lamp{bus, "lamp"};
    zelvo::Node panel{bus, "panel"};
};

// How many times this thread has taken memory by operator new.
int allocations() noexcept;

// Of the threads of this process; none where the system has none to tell.
std::set<std::string> threadNames();

// Whether there is something to dispatch, at once or within the limit.
bool isReadable(const zelvo::PolledNode &node, std::chrono::milliseconds limit = 0ms);

// Waits until the node has handled what had reached it by now.
inline void settle(const zelvo::Node &from, const zelvo::Node &node) {
    EXPECT_EQ(from.call("/" + node.name() + "/settled").outcome, zelvo::Outcome::not_implemented);
}

#endif
