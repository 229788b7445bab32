// The helpers that make the calls which are not waited for.
#ifndef ZELVO_DETAIL_HELPERS_HPP
#define ZELVO_DETAIL_HELPERS_HPP

#include "async_call.hpp"
#include "loop.hpp"

#include <map>
#include <thread>

namespace zelvo::detail {

// A node that makes calls for others, or null. It hears nothing: it has no loop.
inline client_t *connectSilently(Zelvo_t *bus, const char *name, onmessage_callback onMessage,
                                 oncall_callback onCall, void *userdata) {
    client_t *const client = busClientConnect(bus, name, onMessage, onCall, userdata);
    // A join that found the bus's queue full shows only here.
    if (client && !busClientCall(client, "/bus/unsubscribe", R"(["bus.event"])", 13)) {
        busClientClose(client);
        return nullptr;
    }
    return client;
}

// Behind it stand the name of the node that calls, "/" and a number. No other node can have such a
// name: it holds a "/", which zelvo::Node refuses and no url reaches.
inline constexpr char kHelperPrefix[] = "zelvo/helper/";

class Helpers {
public:
    Helpers(std::size_t most, std::size_t most_waiting, std::chrono::milliseconds timeout) noexcept
        : most_{most},
          most_of_host_{std::max<std::size_t>(most / 4, 1)},
          most_waiting_{most_waiting},
          timeout_{timeout} {}
    Helpers(const Helpers &) = delete;
    Helpers &operator=(const Helpers &) = delete;
    ~Helpers() = default;

    void begin(Zelvo_t *bus) noexcept { bus_ = bus; }
    // To be called while the bus runs, and when no node is left that somebody could call.
    void end() {
        {
            const std::lock_guard lock{mutex_};
            ending_ = true;
        }
        changed_.notify_all();
        for (std::thread &thread : threads_) {
            thread.join();
        }
        close(idle_clients_);
    }

    bool any() const noexcept { return most_ > 0; }
    // Of a client that makes calls for the node.
    std::string nameFor(const std::string &node) {
        return kHelperPrefix + node + '/' + std::to_string(++names_);
    }
    // False: too many wait.
    bool add(const AsyncCallPtr &call) {
        const std::lock_guard lock{mutex_};
        if (idle_ <= waiting_ && threads_.size() < most_) {
            grow();
        }
        if (threads_.empty()) {
            throw Error("zelvo: there are no helpers for asynchronous calls");
        }
        Host &host = hostFor(call->url);
        const std::size_t free = most_of_host_ - host.busy;
        const bool taken = host.waiting.size() < most_waiting_ + free;
        if (taken) {
            call->row_place = host.waiting.insert(host.waiting.end(), call);
            call->waits = true;
            ++waiting_;
        }
        settle(host);
        return taken;
    }
    // Lets go of a call that waits.
    void drop(AsyncCall &call) noexcept {
        const std::lock_guard lock{mutex_};
        if (call.waits) {
            Host &host = hosts_.find(hostOf(call.url))->second;
            takeOut(host, call);
            settle(host);
        }
    }
    // The node's helpers leave the bus.
    void leave(const std::string &node) {
        Clients leaving;
        {
            const std::lock_guard lock{mutex_};
            for (auto client = idle_clients_.begin(); client != idle_clients_.end();) {
                const auto next = std::next(client);
                if (client->node == node) {
                    leaving.splice(leaving.end(), idle_clients_, client);
                    --clients_;
                }
                client = next;
            }
        }
        close(leaving);
    }

private:
    struct Host {
        const std::string *name = nullptr;
        AsyncCalls waiting;
        std::size_t busy = 0;              // calls to it that are under way
        bool ready = false;                // whether one of those that wait may be made
        std::list<Host *>::iterator place; // in ready_, or in others_
    };
    struct Client {
        client_t *client;
        std::string node;
    };
    using Clients = std::list<Client>;

    // A thread that cannot be had is no misfortune while there is another.
    void grow() {
        try {
            threads_.emplace_back(static_cast<Step>(serve), this);
            ++idle_;
        } catch (const std::exception &) {
            if (threads_.empty()) {
                throw;
            }
        }
    }

    // With mutex_, like the next two.
    Host &hostFor(std::string_view url) {
        const auto [found, fresh] = hosts_.try_emplace(std::string{hostOf(url)});
        Host &host = found->second;
        if (fresh) {
            host.name = &found->first;
            try {
                host.place = others_.insert(others_.end(), &host);
            } catch (...) {
                hosts_.erase(found);
                throw;
            }
        }
        return host;
    }
    void takeOut(Host &host, AsyncCall &call) noexcept {
        call.waits = false;
        --waiting_;
        host.waiting.erase(call.row_place);
    }
    // After a change of what waits for a host, or of how busy it is; those that are ready take
    // turns. The host may be gone then.
    void settle(Host &host) noexcept {
        auto &from = host.ready ? ready_ : others_;
        if (host.waiting.empty() && host.busy == 0) {
            from.erase(host.place);
            hosts_.erase(hosts_.find(*host.name));
            return;
        }
        host.ready = !host.waiting.empty() && host.busy < most_of_host_;
        auto &to = host.ready ? ready_ : others_;
        to.splice(to.end(), from, host.place);
        if (host.ready) {
            changed_.notify_one();
        }
    }

    AsyncCallPtr next() {
        std::unique_lock lock{mutex_};
        while (!ending_ && ready_.empty()) {
            changed_.wait(lock);
        }
        if (ending_) {
            return nullptr;
        }
        Host &host = *ready_.front();
        AsyncCallPtr call = host.waiting.front();
        takeOut(host, *call);
        ++host.busy;
        --idle_;
        settle(host);
        return call;
    }
    void done(const AsyncCall &call) noexcept {
        const std::lock_guard lock{mutex_};
        Host &host = hosts_.find(hostOf(call.url))->second;
        --host.busy;
        ++idle_;
        settle(host);
    }

    // A client that bears the name of the call's node: one that has made such calls before, or a
    // new one, for which another may have to go. Of none: it could not join.
    Clients clientFor(const AsyncCall &call) {
        Clients old;
        Clients found{{nullptr, call.node_name}};
        const std::string name = nameFor(call.node_name);
        {
            const std::lock_guard lock{mutex_};
            const auto is = [&call](const Client &client) { return client.node == call.node_name; };
            const auto idle = std::find_if(idle_clients_.begin(), idle_clients_.end(), is);
            if (idle != idle_clients_.end()) {
                found.clear();
                found.splice(found.end(), idle_clients_, idle);
                return found;
            }
            if (clients_ >= most_ && !idle_clients_.empty()) {
                old.splice(old.end(), idle_clients_, idle_clients_.begin());
                --clients_;
            }
            ++clients_;
        }
        close(old);
        found.front().client = connectSilently(bus_, name.c_str(), nullptr, nullptr, nullptr);
        return found;
    }
    // It stays for further calls of its node, where that is still there.
    void giveBack(Clients &client, const AsyncCall &call) {
        {
            const std::lock_guard lock{mutex_};
            if (client.front().client && !hasLeft(call)) {
                idle_clients_.splice(idle_clients_.end(), client);
                return;
            }
            --clients_;
        }
        close(client);
    }
    static void close(Clients &clients) noexcept {
        for (const Client &client : clients) {
            busClientClose(client.client);
        }
    }

    static bool hasLeft(const AsyncCall &call) noexcept;
    static void finish(AsyncCall &call, Answer answer) noexcept;
    Answer answerOf(client_t *client, const AsyncCall &call) const noexcept try {
        const std::string_view data{call.data};
        return client ? ask(client, call.url.c_str(), call.has_data ? data : std::string_view{},
                            deadlineAfter(timeout_))
                      : noAnswer(Cause::lost);
    } catch (const std::bad_alloc &) {
        return noAnswer(Cause::lost);
    }
    void make(AsyncCall &call) noexcept try {
        Clients client = clientFor(call);
        Answer answer = answerOf(client.front().client, call);
        giveBack(client, call); // before anybody can think that the call is over
        finish(call, std::move(answer));
    } catch (const std::bad_alloc &) {
        finish(call, noAnswer(Cause::lost));
    }
    static void serve(void *self) { static_cast<Helpers *>(self)->serve(); }
    void serve() {
        nameThread("zelvo helper");
        while (const AsyncCallPtr call = next()) {
            if (!call->over) {
                make(*call);
            }
            done(*call);
        }
    }

    Zelvo_t *bus_ = nullptr;
    const std::size_t most_;
    const std::size_t most_of_host_;
    const std::size_t most_waiting_;
    const std::chrono::milliseconds timeout_;
    std::atomic<long> names_{0};

    std::mutex mutex_; // of all below
    std::condition_variable changed_;
    std::map<std::string, Host, std::less<>> hosts_; // that are being called, or are to be
    std::list<Host *> ready_;                        // where something waits that may be made
    std::list<Host *> others_;
    std::size_t waiting_ = 0; // calls, for all hosts
    std::vector<std::thread> threads_;
    std::size_t idle_ = 0;    // helpers that no call keeps busy; some are about to be woken
    Clients idle_clients_;    // the one that was used last, last
    std::size_t clients_ = 0; // these and the busy ones
    bool ending_ = false;
};

} // namespace zelvo::detail

#endif
