// How many blocks a deployment of the collector takes in: 16 clients at once, each uploading blocks of
// 50 events one after another over a connection it keeps, into
// - one collector storing into SQLite, the embedded default;
// - one collector storing into PostgreSQL (a server of its own in a temporary folder, on a Unix socket);
// - two collectors on one PostgreSQL database, the clients spread over them as a load balancer would.
// Printed as figures, blocks per second and the 99th percentile of an upload's latency, without a target:
// they measure the machine's disk and its PostgreSQL as much as the collector.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "integration/collector_process.h"
#include "integration/postgres_server.h"
#include "integration/track_requests.h"
#include "ratio_reporter.h"

namespace vdl = verdalune::sessionreplay;
using vdl::testing::CollectorProcess;
using vdl::testing::PostgresServer;

namespace {

constexpr int kClients = 16;
constexpr int kBlocksPerClient = 8;  // in one iteration
constexpr int kEventsPerBlock = 50;

// The collectors of one configuration, started at its first run and kept for the rest.
std::vector<std::unique_ptr<CollectorProcess>> startCollectors(bool postgres, int processes) {
  std::vector<std::unique_ptr<CollectorProcess>> collectors;
  CollectorProcess::Options options{.arguments = {"--max-connections-per-client", "64"}};
  if (postgres) {
    if (!PostgresServer::shared()) return {};
    options.database = PostgresServer::shared()->createDatabase();
  }
  for (int i = 0; i < processes; ++i) {
    auto collector = CollectorProcess::start(options);
    if (!collector) return {};
    collectors.push_back(std::move(collector));
  }
  return collectors;
}

std::map<std::string, std::vector<double>> latenciesMs;  // of every upload, by configuration
std::map<std::string, std::vector<std::unique_ptr<CollectorProcess>>> started;  // by configuration

void ingest(benchmark::State& state, const char* name, bool postgres, int processes) {
  auto& collectors = started[name];
  if (collectors.empty()) collectors = startCollectors(postgres, processes);
  if (collectors.empty()) {
    state.SkipWithError("the collectors did not start");
    return;
  }

  // The same 50 events in every block; the key makes each block new.
  std::vector<std::string> literals;
  for (int i = 0; i < kEventsPerBlock; ++i)
    literals.push_back(vdl::testing::pack(vdl::testing::customEvent(1700000000000 + i, "tap")).literal);
  const std::string body = vdl::testing::trackBody(literals);

  static std::atomic<std::int64_t> nextSession = 1;
  std::mutex latenciesMutex;
  auto& latencies = latenciesMs[name];
  std::atomic<int> failed = 0;
  for (auto _ : state) {
    const std::int64_t session = nextSession++;
    std::vector<std::thread> clients;
    for (int client = 0; client < kClients; ++client) {
      clients.emplace_back([&, client] {
        httplib::Client http(collectors[client % collectors.size()]->baseUrl());
        http.set_keep_alive(true);
        http.set_read_timeout(std::chrono::seconds(30));
        std::vector<double> mine;
        for (int sequence = 0; sequence < kBlocksPerClient; ++sequence) {
          const auto start = std::chrono::steady_clock::now();
          const auto result = http.Post(
              "/sessions/v2/track?" +
                  vdl::testing::trackQuery("bench-" + std::to_string(client), session, sequence),
              {{"Authorization", "Bearer test-key"}, {"X-Client-Platform", "ios"}}, body, "application/json");
          if (!result || result->status != 200) ++failed;
          mine.push_back(
              std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
        }
        std::lock_guard lock(latenciesMutex);
        latencies.insert(latencies.end(), mine.begin(), mine.end());
      });
    }
    for (auto& client : clients) client.join();
  }
  if (failed > 0) state.SkipWithError("uploads failed");
  state.SetItemsProcessed(state.iterations() * kClients * kBlocksPerClient);
}

double percentile99(std::vector<double> values) {
  if (values.empty()) return 0;
  std::ranges::sort(values);
  return values[std::min(values.size() - 1, values.size() * 99 / 100)];
}

}  // namespace

int main(int argc, char** argv) {
  const std::pair<const char*, std::pair<bool, int>> configurations[] = {
      {"sqlite/1_collector", {false, 1}},
      {"postgresql/1_collector", {true, 1}},
      {"postgresql/2_collectors", {true, 2}},
  };
  for (const auto& [name, configuration] : configurations) {
    benchmark::RegisterBenchmark(name, ingest, name, configuration.first, configuration.second)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }
  benchmark::Initialize(&argc, argv);
  vdl::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  for (const auto& [name, configuration] : configurations) {
    const double milliseconds = reporter.times[name];
    if (milliseconds <= 0) continue;
    std::printf("figure: ingest, %s, %d clients at once: %.0f blocks of %d events per second, p99 %.1f ms\n",
                name, kClients, 1000.0 * kClients * kBlocksPerClient / milliseconds, kEventsPerBlock,
                percentile99(latenciesMs[name]));
  }
  started.clear();  // before the PostgreSQL server they store into stops
  benchmark::Shutdown();
  return 0;
}
