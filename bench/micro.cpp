// What runs for each message, one piece at a time. Sizes are those of a full message.
#include "common/log.h"
#include "platform/logger/logger_internal.h"
#include "platform/nopoll/websocket_codec.h"
#include "src/cloud_protocol.h"
#include "src/remote_access_proxy_protocol_packet.h"
#include "utility/data_buffer.h"
#include "utility/message_id.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace {

constexpr int PAYLOAD = MESSAGE_BUFFER_SIZE - DATA_HEADER_ROOM;
constexpr char SESSION[] = "abcdefghijklmnopqrstuvwxyzABCD";

DATA_BUFFER_T makeBuffer()
{
    DATA_BUFFER_T buffer{};
    if (initDataBuffer(&buffer, MESSAGE_BUFFER_SIZE) != 0) std::abort();
    return buffer;
}

void countBytes(benchmark::State &state, std::int64_t bytes)
{
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * bytes);
}

void buildHeader(benchmark::State &state)
{
    char header[HEADER_BUFFER_SIZE];
    for (auto _ : state)
        benchmark::DoNotOptimize(
            spliceProxyProtocolHeader(header, MSG_TYPE_DATA_UP, PAYLOAD, nullptr, SESSION));
}
BENCHMARK(buildHeader)->Name("header built, id included");

void parseHeader(benchmark::State &state)
{
    char message[MESSAGE_BUFFER_SIZE] = {};
    const int length = spliceProxyProtocolHeader({message, HEADER_BUFFER_SIZE}, MSG_TYPE_DATA_DOWN,
                                                 PAYLOAD, nullptr, SESSION);
    std::memset(message + length, 'x', static_cast<std::size_t>(PAYLOAD));
    for (auto _ : state) {
        PROXY_HEADER_T header{};
        benchmark::DoNotOptimize(parseProxyProtocolHeader(message, length + PAYLOAD, &header));
    }
}
BENCHMARK(parseHeader)->Name("header parsed");

void makeId(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(generateMsgId());
}
BENCHMARK(makeId)->Name("id");

void resetBuffer(benchmark::State &state)
{
    DATA_BUFFER_T buffer = makeBuffer();
    for (auto _ : state) {
        (void)moveBufferWritePointer(&buffer, static_cast<std::int32_t>(state.range(0)));
        resetDataBuffer(&buffer);
        benchmark::ClobberMemory();
    }
    freeDataBuffer(&buffer);
}
BENCHMARK(resetBuffer)->Name("buffer reset")->Arg(64)->Arg(PAYLOAD);

void joinHeader(benchmark::State &state)
{
    DATA_BUFFER_T buffer = makeBuffer();
    const auto content = static_cast<std::int32_t>(state.range(0));
    const char header[200] = {};
    for (auto _ : state) {
        buffer.read_offset = 0;
        buffer.write_offset = content;
        benchmark::DoNotOptimize(joinContentBeforeBuffer(header, sizeof header, &buffer));
    }
    freeDataBuffer(&buffer);
    countBytes(state, content);
}
BENCHMARK(joinHeader)->Name("header joined")->Arg(64)->Arg(PAYLOAD);

void maskPayload(benchmark::State &state)
{
    const auto size = static_cast<std::size_t>(state.range(0));
    const std::vector<std::uint8_t> from(size);
    std::vector<std::uint8_t> to(size);
    const std::uint8_t mask[ws::MASK_SIZE] = {1, 2, 3, 4};
    for (auto _ : state) {
        ws::copyMasked(to.data(), from.data(), size, mask);
        benchmark::ClobberMemory();
    }
    countBytes(state, state.range(0));
}
BENCHMARK(maskPayload)->Name("payload masked")->Arg(64)->Arg(PAYLOAD);

// One of the lines of a message, with standard error in a file as on a gateway: below the minimum
// level, alone, or gathered with others.
void logLine(benchmark::State &state)
{
    const GatheredLogLines gathered{state.range(1) != 0};
    FILE *const file = std::tmpfile();
    const int kept = ::dup(STDERR_FILENO);
    if (file == nullptr || kept < 0) std::abort();
    (void)::dup2(::fileno(file), STDERR_FILENO);
    log_init_from("bench", 1, static_cast<int>(state.range(0)), 2, "/dev/null/none");
    char header[HEADER_BUFFER_SIZE];
    (void)spliceProxyProtocolHeader(header, MSG_TYPE_DATA_UP, PAYLOAD, nullptr, SESSION);
    for (auto _ : state)
        RA_INFO("local service data to cloud header:%s", header);
    flushLogLines();
    (void)::dup2(kept, STDERR_FILENO);
    (void)::close(kept);
    (void)std::fclose(file);
}
BENCHMARK(logLine)
    ->Name("log line")
    ->ArgNames({"minimum level", "gathered"})
    ->Args({LOG_LEVEL_WARN, 0})
    ->Args({LOG_LEVEL_INFO, 0})
    ->Args({LOG_LEVEL_INFO, 1});

} // namespace

BENCHMARK_MAIN();
