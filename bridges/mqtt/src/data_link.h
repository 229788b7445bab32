// The connection for publications. The broker keeps its session while it is away; it goes where the
// connection for calls has gone, and has no time limits of its own, since it may have to stop
// reading.
#ifndef ZELVO_MQTT_DATA_LINK_H
#define ZELVO_MQTT_DATA_LINK_H

#include "inflow.h"
#include "link.h"
#include "outbox.h"
#include "topics.h"

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace zelvo_mqtt {

class DataLink final : public Link {
public:
    // changed: there is a connection, or none, and why; in the link's thread, must not block.
    using Changed = std::function<void(bool connected, const std::string &why)>;
    // inflow may be emplaced until the link starts.
    DataLink(const Config &config, const Topics &topics, Outbox &outbox,
             std::optional<Inflow> &inflow, Log &log, Changed changed);
    DataLink(const DataLink &) = delete;
    DataLink &operator=(const DataLink &) = delete;
    ~DataLink() override { stop(); }

    // Where it is to connect to, or that it is not to be connected. Any thread.
    void allow(const std::optional<Target> &target);

private:
    // What is retained is asked for in rounds, behind each of which comes the own presence:
    // first until what the broker has kept for the session has come, then all, and then what is
    // missing once more, since a broker may drop what it has no room for.
    enum class Round { kNone, kKept, kAll, kMissing };

    Purpose purpose() const override;
    bool mayConnect() override { return target().has_value(); }
    void seek() override;
    void greet() override;
    void flush() override;
    void received(const Incoming &incoming) override;
    void acknowledged(int mid, int reason) override;
    void lost(const std::string &why, bool byBroker) override;
    void everySecond() override;
    void subscribed() override;
    std::chrono::milliseconds pause() override;
    std::size_t unsent() override;

    std::optional<Target> target();
    bool publish(Publication publication);
    void refuse(const Publication &publication, const std::string &why);
    void tellDrops();
    void begin(Round round);
    void ask();
    void askAgain();
    void answered();

    const Topics &topics_;
    Outbox &outbox_;
    std::optional<Inflow> &inflow_;
    const Changed changed_;
    std::mutex targetMutex_;       // taken after the link's
    std::optional<Target> target_; // guarded by it; nothing: it is not to be connected

    // The link's mutex guards the rest.
    std::uint64_t told_ = 0; // of what has been dropped

    Round round_ = Round::kNone;
    std::uint32_t question_ = 0; // number of the latest
    int questions_ = 0;          // on this connection
    Clock::time_point askAt_{};  // again
};

} // namespace zelvo_mqtt

#endif
