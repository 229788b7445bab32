// The helpers that make the calls which are not waited for.
#ifndef ZELVO_DETAIL_HELPERS_HPP
#define ZELVO_DETAIL_HELPERS_HPP

#include "async_call.hpp"
#include "loop.hpp"

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
    struct Client : Link {
        Client(client_t *its, const std::string &whose) : client{its}, node{whose} {}
        ~Client() { busClientClose(client); }
        client_t *client; // null: none
        std::string node; // whose calls it makes
    };
    using Clients = OwningChain<Client>;

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
        for (; !threads_.empty(); threads_.dropFirst()) {
            threads_.first()->thread.join();
        }
        while (!idle_clients_.empty()) {
            idle_clients_.dropFirst();
        }
    }

    bool any() const noexcept { return most_ > 0; }
    // Of a client that makes calls for the node.
    std::string nameFor(const std::string &node) {
        return concat({kHelperPrefix, node, "/", std::to_string(++names_)});
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
        const std::size_t free = most_of_host_ - host.busy;
        const bool taken = host.count < most_waiting_ + free;
        if (taken) {
            call->row_place.join(host.waiting, call);
            ++host.count;
            ++waiting_;
        }
        settle(host);
        return taken;
    }
    // Lets go of a call that waits.
    void drop(AsyncCall &call) noexcept {
        const std::lock_guard lock{mutex_};
        if (call.row_place.isLinked()) {
            Host &host = *find(hostOf(call.url));
            takeOut(host, call);
            settle(host);
        }
    }
    // The node's helpers leave the bus.
    void leave(const std::string &node) {
        Clients leaving;
        const std::lock_guard lock{mutex_};
        for (Client *client = idleOf(node); client; client = idleOf(node)) {
            leaving.append(*client);
            --clients_;
        }
    }

private:
    struct Host : Link { // in ready_, or in others_
        explicit Host(std::string_view its) : name{its} {}
        const std::string name;
        AsyncCalls waiting;
        std::size_t count = 0; // of them
        std::size_t busy = 0;  // calls to it that are under way
    };
    using Hosts = OwningChain<Host>;
    struct Helper : Link {
        std::thread thread;
    };

    // A thread that cannot be had is no misfortune while there is another.
    void grow() {
        try {
            OwningChain<Helper> made{new Helper};
            made.first()->thread = threadOf(serve, this);
            threads_.append(*made.first());
            ++thread_count_;
            ++idle_;
        } catch (const std::exception &) {
            if (threads_.empty()) {
                throw;
            }
        }
    }

    // With mutex_, like the next four. Null: nothing waits for it, and nothing is under way.
    Host *find(std::string_view name) const noexcept {
        for (const Hosts *hosts : {&ready_, &others_}) {
            for (Host *host = hosts->first(); host; host = hosts->after(*host)) {
                if (host->name == name) {
                    return host;
                }
            }
        }
        return nullptr;
    }
    Host &hostFor(std::string_view url) {
        const std::string_view name = hostOf(url);
        Host *host = find(name);
        if (!host) {
            host = new Host{name};
            others_.append(*host);
        }
        return *host;
    }
    void takeOut(Host &host, AsyncCall &call) noexcept {
        call.row_place.leave();
        --host.count;
        --waiting_;
    }
    // After a change of what waits for a host, or of how busy it is; those that are ready take
    // turns. The host may be gone then.
    void settle(Host &host) noexcept {
        if (host.count == 0 && host.busy == 0) {
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
        Host &host = *ready_.first();
        AsyncCallPtr call = host.waiting.first()->call;
        takeOut(host, *call);
        ++host.busy;
        --idle_;
        settle(host);
        return call;
    }
    void done(const AsyncCall &call) noexcept {
        const std::lock_guard lock{mutex_};
        Host &host = *find(hostOf(call.url));
        --host.busy;
        ++idle_;
        settle(host);
    }

    // With mutex_; or null.
    Client *idleOf(const std::string &node) const noexcept {
        Client *client = idle_clients_.first();
        while (client && client->node != node) {
            client = idle_clients_.after(*client);
        }
        return client;
    }
    // A client that bears the name of the call's node: one that has made such calls before, or a
    // new one, for which another may have to go. Of none: it could not join.
    void getClient(const AsyncCall &call, Clients &into) {
        Clients old;
        Clients made{new Client{nullptr, call.node_name}};
        const std::string name = nameFor(call.node_name);
        {
            const std::lock_guard lock{mutex_};
            if (Client *const idle = idleOf(call.node_name)) {
                into.append(*idle);
                return;
            }
            if (clients_ >= most_ && !idle_clients_.empty()) {
                old.append(*idle_clients_.first());
                --clients_;
            }
            ++clients_;
        }
        old.dropFirst();
        made.first()->client = connectSilently(bus_, name.c_str(), nullptr, nullptr, nullptr);
        into.append(*made.first());
    }
    // It stays for further calls of its node, where that is still there.
    void giveBack(Clients &client, const AsyncCall &call) {
        {
            const std::lock_guard lock{mutex_};
            if (client.first()->client && !hasLeft(call)) {
                idle_clients_.append(*client.first());
                return;
            }
            --clients_;
        }
        client.dropFirst();
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
        Clients client;
        getClient(call, client);
        Answer answer = answerOf(client.first()->client, call);
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
    Hosts ready_; // that are to be called, where something waits that may be made
    Hosts others_;
    std::size_t waiting_ = 0; // calls, for all hosts
    OwningChain<Helper> threads_;
    std::size_t thread_count_ = 0;
    std::size_t idle_ = 0;    // helpers that no call keeps busy; some are about to be woken
    Clients idle_clients_;    // the one that was used last, last
    std::size_t clients_ = 0; // these and the busy ones
    bool ending_ = false;
};

} // namespace zelvo::detail

#endif
