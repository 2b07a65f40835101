// How many points a second can the agent decode, and drop into its table of newest values or write
// for remote write, on one core? Points are those of suffixed rates with three tags: a block of its
// own for each. And how long does a page of metrics take?

#include <benchmark/benchmark.h>

#include <iterator>
#include <string>
#include <vector>

#include "agent/packet_reader.h"
#include "agent/remote_write_body.h"
#include "agent/remote_write_writer.h"

#include "agent/rule_stage.h"
#include "agent/series_table.h"
#include "testing/packet_writer.h"

namespace {

using tidegate::agent::Block;
using tidegate::agent::Health;
using tidegate::agent::Packet;
using tidegate::agent::PacketReader;
using tidegate::agent::ReadError;
using tidegate::agent::SeriesTable;

constexpr int kPointsPerPacket = 1400;  // 200 KiB

constexpr const char* kSuffixes[] = {"rate", "bytes", "errors", "retries", "hits"};

// All series once, in packets of 200 KiB.
std::vector<std::string> PacketsOf(int64_t series) {
  std::vector<std::string> packets;
  for (int64_t first = 0; first < series; first += kPointsPerPacket) {
    Packet packet;
    packet.tenant = "shop";
    for (int64_t i = first; i < first + kPointsPerPacket && i < series; ++i) {
      Block block;
      block.wire_type = 2;
      block.timestamp = 1700000000;
      block.name = "shop.web.requests." +
                   std::string(kSuffixes[static_cast<size_t>(i) % std::size(kSuffixes)]);
      block.series.resize(1);
      block.series[0].tags = {{"host", "web-" + std::to_string(i % 100)},
                              {"method", "get"},
                              {"user", std::to_string(i / 100)}};
      block.series[0].values = {static_cast<double>(i)};
      packet.blocks.push_back(block);
    }
    packets.push_back(tidegate::test::PacketWriter::Write(packet));
  }
  return packets;
}

void CountPoints(benchmark::State& state, int64_t points, const std::vector<std::string>& packets) {
  state.SetItemsProcessed(state.iterations() * points);
  state.counters["packet_bytes"] = static_cast<double>(packets.front().size());
}

void Decode(benchmark::State& state) {
  const std::vector<std::string> packets = PacketsOf(state.range(0));
  PacketReader reader;
  ReadError error;
  for (auto _ : state) {
    for (const std::string& bytes : packets) {
      benchmark::DoNotOptimize(reader.Read(bytes.data(), bytes.size(), &error));
    }
  }
  CountPoints(state, state.range(0), packets);
}
BENCHMARK(Decode)->Arg(14000)->Unit(benchmark::kMillisecond);

void DecodeIntoTable(benchmark::State& state) {
  const std::vector<std::string> packets = PacketsOf(state.range(0));
  Health health;
  SeriesTable table({}, &health, [](const std::string&) {});
  PacketReader reader;
  ReadError error;
  const auto round = [&] {
    for (const std::string& bytes : packets) {
      table.Handle(*reader.Read(bytes.data(), bytes.size(), &error), {});
    }
  };
  round();
  for (auto _ : state) round();
  CountPoints(state, state.range(0), packets);
  state.counters["series"] = static_cast<double>(health.series);
  state.counters["bytes_per_series"] =
      static_cast<double>(health.series_bytes) / static_cast<double>(health.series);
}
BENCHMARK(DecodeIntoTable)->Arg(14000)->Arg(140000)->Arg(980000)->Unit(benchmark::kMillisecond);

// Rates need no time to be in order.
void DecodeIntoRemoteWrite(benchmark::State& state) {
  using namespace tidegate::agent;
  const std::vector<std::string> packets = PacketsOf(state.range(0));
  Health health;
  DestinationNumbers numbers(&health, "remote-write");
  BatchLimits limits;
  limits.queue_points = limits.queue_bytes = SIZE_MAX;
  BatchQueue queue(limits);
  PointOutput output(&queue, &numbers, &health);
  SeriesTable::Options options;
  RemoteWriteWriter writer(options);
  PacketReader reader;
  ReadError error;
  const ClientId client;
  int64_t time = 1700000000;
  const auto round = [&] {
    ++time;
    for (const std::string& bytes : packets) {
      Packet packet = *reader.Read(bytes.data(), bytes.size(), &error);
      for (Block& block : packet.blocks) {
        block.timestamp = time;
        writer.StartBlock(packet, client, block);
        writer.Write(block.series[0], &output);
      }
    }
    output.Push();
  };
  round();
  size_t sent = 0;
  size_t packed = 0;
  for (auto _ : state) {
    round();
    queue.Flush();
    state.PauseTiming();
    for (Batches batch; !(batch = queue.Take({})).empty();) {
      sent += batch.front().points;
      packed += PackRemoteWrite(batch.front().body).size();
    }
    state.ResumeTiming();
  }
  CountPoints(state, state.range(0), packets);
  state.counters["bytes_per_sample"] = static_cast<double>(packed) / static_cast<double>(sent);
  state.counters["bytes_per_series"] =
      static_cast<double>(writer.held().bytes) / static_cast<double>(state.range(0));
}
BENCHMARK(DecodeIntoRemoteWrite)->Arg(14000)->Arg(140000)->Unit(benchmark::kMillisecond);

// What rules cost on the way: names that do not match; a tag that a tenth of the points have; names
// and tags that all have.
constexpr const char* kRules[] = {
    "[rule.r]\naction=drop\nname='other.*'\n",
    "[rule.r]\naction=drop\ntag='host=web-*7'\n",
    "[rule.r]\naction=rename\nname='shop.*.requests.*'\nto='shop.$1.$2'\n",
    "[rule.r]\naction=drop-tag\ndrop=user\n",
};

void DecodeByRules(benchmark::State& state) {
  const std::vector<std::string> packets = PacketsOf(14000);
  std::string settings = kRules[state.range(0)];
  Health health;
  tidegate::agent::MergeStage merge(
      {}, {}, &health, [](const std::string&) {}, [](const auto&) { return true; });
  tidegate::agent::RuleStage rules(
      false, &merge, &health.rules, [](const std::string&) {}, [](const std::string&) {});
  rules.Change(
      tidegate::agent::ReadRules(tidegate::agent::TakeSections("", {"rule"}, {}, &settings)),
      std::chrono::steady_clock::now());
  PacketReader reader;
  ReadError error;
  int64_t interval = 0;
  for (auto _ : state) {
    ++interval;
    for (const std::string& bytes : packets) {
      Packet* const packet = reader.Read(bytes.data(), bytes.size(), &error);
      for (Block& block : packet->blocks) block.timestamp += interval;
      benchmark::DoNotOptimize(rules.Apply(packet));
      rules.HandOn(packet, {});
    }
    merge.Flush();
  }
  CountPoints(state, 14000, packets);
}
BENCHMARK(DecodeByRules)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

void Page(benchmark::State& state) {
  Health health;
  SeriesTable table({}, &health, [](const std::string&) {});
  PacketReader reader;
  ReadError error;
  for (const std::string& bytes : PacketsOf(state.range(0))) {
    table.Handle(*reader.Read(bytes.data(), bytes.size(), &error), {});
  }
  std::string page;
  for (auto _ : state) {
    page.clear();
    table.AppendPage(false, &page);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["page_bytes"] = static_cast<double>(page.size());
}
BENCHMARK(Page)->Arg(14000)->Arg(980000)->Unit(benchmark::kMillisecond);

}  // namespace
