// Events per second through the whole delivery road: write → block file → upload to a local
// collector, beside packing alone (the building block every event pays for), and the bytes each
// event costs on disk and on the wire.
#include <benchmark/benchmark.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "integration/collector_process.h"
#include "integration/recorder.h"

namespace vdl = verdalune::sessionreplay;
namespace rrweb = verdalune::sessionreplay::rrweb;

namespace {

// A typical incremental event: a few moved and restyled elements.
rrweb::Event mutationEvent(int i) {
  rrweb::MutationData mutation;
  for (int k = 0; k < 4; ++k) {
    mutation.attributes.push_back(rrweb::AttributeMutation{
        .id = 100 + (i + k) % 300,
        .attributes = {
            {"style", rrweb::JSONValue("background-color: #1C1C1EFF; height: 44px; left: 16px; "
                                       "position: absolute; top: " +
                                       std::to_string(88 + i % 700) + ".333333333333336px; width: 343px")}}});
  }
  return rrweb::IncrementalSnapshotEvent{.timestamp = 1700000000000 + i,
                                         .data = rrweb::IncrementalData(mutation)};
}

constexpr int kEventsPerRun = 2000;

void packingAlone(benchmark::State& state) {
  vdl::EventPacker packer;
  std::size_t bytes = 0;
  for (auto _ : state) {
    for (int i = 0; i < kEventsPerRun; ++i) bytes += packer.pack(mutationEvent(i)).value().size() + 1;
  }
  state.SetItemsProcessed(state.iterations() * kEventsPerRun);
  state.counters["disk_bytes_per_event"] = double(bytes) / double(state.iterations() * kEventsPerRun);
}

void pipeline(benchmark::State& state) {
  auto collector = vdl::testing::CollectorProcess::start();
  if (!collector) return state.SkipWithError("the collector did not start");
  const auto folder =
      std::filesystem::temp_directory_path() / ("vdl-bench-pipeline-" + std::to_string(::getpid()));
  auto defaults = std::make_shared<vdl::InMemoryDefaultsStore>();
  std::int64_t session = 1;
  for (auto _ : state) {
    std::filesystem::remove_all(folder);
    collector->reset();
    vdl::testing::Recorder recorder({.apiKey = "test-key", .serverUrl = collector->trackUrl()}, folder,
                                    defaults);
    ++session;
    for (int i = 0; i < kEventsPerRun; ++i) recorder.coordinator->write(mutationEvent(i), "device", session);
    recorder.coordinator->flush();
    while (!recorder.storage->blocks().value().empty() || collector->requests().empty()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  std::size_t wire = 0;
  for (const auto& request : collector->requests()) wire += request.body.size();
  state.SetItemsProcessed(state.iterations() * kEventsPerRun);
  state.counters["wire_bytes_per_event"] = double(wire) / kEventsPerRun;
  std::filesystem::remove_all(folder);
}

}  // namespace

BENCHMARK(packingAlone)->Unit(benchmark::kMillisecond);
BENCHMARK(pipeline)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
