// The helpers that make the calls which are not waited for.
#ifndef ZELVO_DETAIL_HELPERS_HPP
#define ZELVO_DETAIL_HELPERS_HPP

#include "async_call.hpp"
#include "loop.hpp"

#include <thread>

namespace zelvo::detail {

// Hears of no nodes that join. False: a join that found the bus's queue full shows only here.
inline bool becomesSilent(client_t *client) noexcept {
    return busClientCall(client, "/bus/unsubscribe", R"(["bus.event"])", 13) != nullptr;
}
// A node that makes calls for others, or null. It hears nothing: it has no loop.
inline client_t *connectSilently(Zelvo_t *bus, const char *name) {
    client_t *const client = busClientConnect(bus, name, nullptr, nullptr, nullptr);
    if (client && !becomesSilent(client)) {
        busClientClose(client);
        return nullptr;
    }
    return client;
}

// Behind it stand the name of the node that calls, "/" and a number. No other node can have such a
// name: it holds a "/", which zelvo::Node refuses and no url reaches.
inline constexpr char kHelperPrefix[] = "zelvo/helper/";

// To which calls are made, or wait: in a row, and among those that are ready or among the others.
struct Host : Link {
    explicit Host(std::string_view its) : name{its} {}
    const std::string name;
    Host *next = nullptr; // in its row
    AsyncCalls waiting;
    std::size_t count = 0; // of them
    std::size_t busy = 0;  // calls to it that are under way
};

// Gives each of them its own.
class HelperNames {
public:
    // Of a client that makes calls for the node.
    ZELVO_RARE std::string next(const std::string &node) {
        return concat({kHelperPrefix, node, "/", std::to_string(++count_)});
    }

private:
    std::atomic<long> count_{0};
};

class Helpers {
public:
    struct Client : Link {
        explicit Client(const std::string &whose) : node{whose} {}
        Client(const Client &) = delete;
        Client &operator=(const Client &) = delete;
        ~Client() { busClientClose(client); }
        client_t *client = nullptr; // or none
        std::string node;           // whose calls it makes
    };

    Helpers(Zelvo_t *bus, HelperNames &names, std::size_t most, std::size_t most_waiting,
            std::chrono::milliseconds timeout) noexcept
        : bus_{bus},
          names_{names},
          most_{most},
          most_of_host_{std::max<std::size_t>(most / 4, 1)},
          most_waiting_{most_waiting},
          timeout_{timeout} {}
    Helpers(const Helpers &) = delete;
    Helpers &operator=(const Helpers &) = delete;
    // While the bus runs, and when no node is left that somebody could call.
    ZELVO_RARE ~Helpers() {
        {
            const std::lock_guard lock{mutex_};
            ending_ = true;
        }
        changed_.notify_all();
        for (; !threads_.empty(); threads_.dropFirst()) {
            threads_.front().thread.join();
        }
    }

    // False: too many wait.
    bool add(const AsyncCallPtr &call) {
        const std::lock_guard lock{mutex_};
        if (idle_ <= waiting_ && thread_count_ < most_) {
            grow();
        }
        if (threads_.empty()) {
            throw Error("zelvo: there are no helpers for asynchronous calls");
        }
        Host &host = hostFor(call->url);
        const std::size_t free = std::min(most_of_host_ - host.busy, idle_);
        const bool taken = host.count < free || host.count - free < most_waiting_;
        if (taken) {
            call->row_place.join(host.waiting, call);
            call->host = &host;
            ++host.count;
            ++waiting_;
        }
        settle(host);
        return taken;
    }
    // Lets go of a call that waits.
    ZELVO_RARE void drop(AsyncCall &call) noexcept {
        const std::lock_guard lock{mutex_};
        if (call.row_place.isLinked()) {
            takeOut(call);
            settle(*call.host);
        }
    }
    // The node's helpers leave the bus.
    ZELVO_RARE void leave(const std::string &node) {
        OwningChain<Client> leaving;
        const std::lock_guard lock{mutex_};
        for (Client *client = idleOf(node); client; client = idleOf(node)) {
            leaving.append(*client);
            --clients_;
        }
    }

private:
    static constexpr std::size_t kRows = 256;
    struct Helper : Link {
        std::thread thread;
    };

    // A thread that cannot be had is no misfortune while there is another.
    void grow() {
        try {
            OwningChain<Helper> made{new Helper};
            made.front().thread = threadOf(serve, this);
            threads_.append(made.front());
            ++thread_count_;
            ++idle_;
        } catch (const std::exception &) {
            if (threads_.empty()) {
                throw;
            }
        }
    }

    // With mutex_, like the next four. Where the host stands, or would: then nothing waits for it,
    // and nothing is under way.
    Host *&placeOf(std::string_view name) noexcept {
        Host **place = &hosts_[std::hash<std::string_view>{}(name) % kRows];
        while (*place && (*place)->name != name) {
            place = &(*place)->next;
        }
        return *place;
    }
    Host &hostFor(std::string_view url) {
        const std::string_view name = hostOf(url);
        Host *&place = placeOf(name);
        if (!place) {
            place = new Host{name};
            others_.append(*place);
        }
        return *place;
    }
    void takeOut(AsyncCall &call) noexcept {
        call.row_place.leave();
        --call.host->count;
        --waiting_;
    }
    // After a change of what waits for a host, or of how busy it is; those that are ready take
    // turns. The host may be gone then.
    void settle(Host &host) noexcept {
        if (host.count == 0 && host.busy == 0) {
            placeOf(host.name) = host.next;
            delete &host;
        } else if (host.count == 0 || host.busy >= most_of_host_) {
            others_.append(host);
        } else {
            ready_.append(host);
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
        Host &host = ready_.front();
        AsyncCallPtr call = host.waiting.front().call;
        takeOut(*call);
        ++host.busy;
        --idle_;
        settle(host);
        return call;
    }
    void done(const AsyncCall &call) noexcept {
        const std::lock_guard lock{mutex_};
        --call.host->busy;
        ++idle_;
        settle(*call.host);
    }

    // With mutex_; or null.
    Client *idleOf(const std::string &node) const noexcept {
        Client *client = idle_clients_.first();
        while (client && client->node != node) {
            client = idle_clients_.after(*client);
        }
        return client;
    }
    // Puts into the chain a client that bears the name of the call's node: one that has made such
    // calls before, or a new one, for which another may have to go. One without a client_t could
    // not join.
    void takeClient(OwningChain<Client> &client, const AsyncCall &call) {
        OwningChain<Client> made{new Client{call.node_name}};
        const std::string name = names_.next(call.node_name);
        {
            OwningChain<Client> old;
            const std::lock_guard lock{mutex_};
            if (Client *const idle = idleOf(call.node_name)) {
                client.append(*idle);
                return;
            }
            if (clients_ >= most_ && !idle_clients_.empty()) {
                old.append(idle_clients_.front());
                --clients_;
            }
            ++clients_;
        }
        made.front().client = connectSilently(bus_, name.c_str());
        client.prependAll(made);
    }
    // It stays for further calls of its node, where that is still there.
    void giveBack(Client &client, const AsyncCall &call) {
        const std::lock_guard lock{mutex_};
        if (client.client && !hasLeft(call)) {
            idle_clients_.append(client);
        } else {
            --clients_;
        }
    }

    static bool hasLeft(const AsyncCall &call) noexcept;
    static void finish(AsyncCall &call, Answer &&answer) noexcept;
    Answer answerOf(client_t *client, const AsyncCall &call) const noexcept try {
        const std::string_view data{call.data};
        return client ? ask(client, call.url.c_str(), call.has_data ? data : std::string_view{},
                            deadlineAfter(timeout_))
                      : noAnswer(Cause::lost);
    } catch (const std::bad_alloc &) {
        return noAnswer(Cause::lost);
    }
    // By a client that is given back, or has left, before anybody can think that the call is over.
    Answer answerTo(const AsyncCall &call) {
        OwningChain<Client> client;
        takeClient(client, call);
        Answer answer = answerOf(client.front().client, call);
        giveBack(client.front(), call);
        return answer;
    }
    ZELVO_RARE void make(AsyncCall &call) noexcept try {
        finish(call, answerTo(call));
    } catch (const std::bad_alloc &) {
        finish(call, noAnswer(Cause::lost));
    }
    static void serve(void *self) { static_cast<Helpers *>(self)->serve(); }
    ZELVO_RARE void serve() {
        nameThread("zelvo helper");
        while (const AsyncCallPtr call = next()) {
            if (!call->over) {
                make(*call);
            }
            done(*call);
        }
    }

    Zelvo_t *const bus_;
    HelperNames &names_;
    const std::size_t most_;
    const std::size_t most_of_host_;
    const std::size_t most_waiting_;
    const std::chrono::milliseconds timeout_;

    std::mutex mutex_; // of all below
    std::condition_variable changed_;
    Host *hosts_[kRows] = {};
    OwningChain<Host> ready_; // of those, where something waits that may be made
    OwningChain<Host> others_;
    std::size_t waiting_ = 0; // calls, for all hosts
    OwningChain<Helper> threads_;
    std::size_t thread_count_ = 0;
    std::size_t idle_ = 0; // helpers that no call keeps busy; some are about to be woken
    OwningChain<Client> idle_clients_; // the one that was used last, last
    std::size_t clients_ = 0;          // these and the busy ones
    bool ending_ = false;
};

} // namespace zelvo::detail

#endif
