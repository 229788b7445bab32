// Single operations of the library's modules, each in one thread.
#include "bus_client_ex.h"
#include "bus_log.h"
#include "bus_mk_queue.h"

#include <benchmark/benchmark.h>

#include <string>

namespace {

using namespace bus;

void queueSendReceive(benchmark::State &state) {
    bus_mk_q_t *const queue = bus_mk_q_new(1024, nullptr);
    int item = 0;
    for ([[maybe_unused]] auto _ : state) {
        bus_mk_q_send(queue, &item, -1);
        benchmark::DoNotOptimize(bus_mk_q_recv(queue, 1, 0, 1));
    }
    bus_mk_q_clear(queue, nullptr, 0);
}
BENCHMARK(queueSendReceive);

message_t *publication(const std::string &data) {
    return busClientExMessageNew("publisher", "measured", nullptr, action::kPublish, nullptr,
                                 kNoRequest, data.data(), static_cast<int>(data.size()));
}

void messageMake(benchmark::State &state) {
    const std::string data(static_cast<std::size_t>(state.range(0)), 'x');
    for ([[maybe_unused]] auto _ : state) {
        const MessagePtr message{publication(data)};
        benchmark::DoNotOptimize(message.get());
    }
}
BENCHMARK(messageMake)->Arg(64)->Arg(1024)->Arg(1 << 20);

void messageCopy(benchmark::State &state) {
    const std::string data(static_cast<std::size_t>(state.range(0)), 'x');
    const MessagePtr message{publication(data)};
    for ([[maybe_unused]] auto _ : state) {
        const MessagePtr copy{busClientExMessageCopy(message.get())};
        benchmark::DoNotOptimize(copy.get());
    }
}
BENCHMARK(messageCopy)->Arg(64)->Arg(1024)->Arg(1 << 20);

void suppressedLogLine(benchmark::State &state) {
    bus_log_init(3, "/dev/null", 1, 0);
    for ([[maybe_unused]] auto _ : state) {
        BUS_LOG(2, "%s sends %d bytes\n", "node-a", 64);
        benchmark::ClobberMemory();
    }
    bus_log_exit();
}
BENCHMARK(suppressedLogLine);

void writtenLogLine(benchmark::State &state) {
    bus_log_init(3, "/dev/null", 1, 0);
    for ([[maybe_unused]] auto _ : state) {
        BUS_LOG(4, "%s sends %d bytes\n", "node-a", 64);
    }
    bus_log_exit();
}
BENCHMARK(writtenLogLine);

} // namespace

BENCHMARK_MAIN();
