// The connection for publications. The broker keeps its session while it is away; it goes where the
// connection for calls has gone, and has no time limits of its own, since it may have to stop
// reading.
#ifndef ZELVO_MQTT_DATA_LINK_H
#define ZELVO_MQTT_DATA_LINK_H

#include "inflow.h"
#include "link.h"
#include "outbox.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace zelvo_mqtt {

class DataLink final : public Link {
public:
    // changed: there is a connection, or none, and why; with the mutex held, must not block. Joins
    // the bus; throws OpenError.
    using Changed = std::function<void(bool connected, const std::string &why)>;
    DataLink(Common &common, Changed changed);

    // Where it is to connect to, or that it is not to be connected. Any thread.
    void allow(const std::optional<Target> &target);
    void send(Publication publication); // any thread; does not block
    Outbox &outbox() { return outbox_; }

private:
    // What is retained is asked for in rounds, behind each of which comes the own presence:
    // first until what the broker has kept for the session has come, then all, and then what is
    // missing once more, since a broker may drop what it has no room for.
    enum class Round { kNone, kKept, kAll, kMissing };

    bool mayConnect() override { return target_.has_value(); }
    void seek() override;
    void greet() override;
    void flush() override;
    void received(const Incoming &incoming) override;
    void acknowledged(int mid, int reason) override;
    void lost(const std::string &why, bool byBroker) override;
    void everySecond() override;
    void subscribed() override;
    bool pauses() override { return inflow_.pauses(); }
    std::size_t unsent() override;

    bool publish(Publication publication);
    void refuse(const Publication &publication, const std::string &why);
    void tellDrops();
    void listen(bool retained);
    void begin(Round round);
    void ask();
    void askAgain();
    void answered();

    const Changed changed_;
    Outbox outbox_;
    std::optional<Target> target_; // nothing: it is not to be connected
    std::uint64_t told_ = 0;       // of what has been dropped

    Round round_ = Round::kNone;
    std::uint32_t question_ = 0; // number of the latest
    int questions_ = 0;          // on this connection
    Clock::time_point askAt_{};  // again
    Inflow inflow_;              // last: its thread wakes this one
};

} // namespace zelvo_mqtt

#endif
