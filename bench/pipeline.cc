// The delivery road an event takes after the serializer: packed, appended to a block file on the storage
// queue, the block closed and synced, then uploaded to a collector on loopback. Measured against packing
// alone in the same run, the building block every event pays for:
// - on disk: 2,000 events written and flushed until their block file is synced;
// - delivered: the same until the collector has stored the block and it has left the device.
// Targets: on disk at most 2.5x packing alone (the queue hop, the file and one sync per block cost
// little beside the compression), and delivered at most 8x packing alone (one HTTP request per block,
// not per event, with the collector's own work on the same machine).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "integration/collector_process.h"
#include "integration/recorder.h"
#include "ratio_reporter.h"

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

std::unique_ptr<vdl::testing::CollectorProcess>& collector() {
  static std::unique_ptr<vdl::testing::CollectorProcess> process = vdl::testing::CollectorProcess::start();
  return process;
}

// Writes a run of events through a new recorder and waits for them on disk, or until delivered.
void road(benchmark::State& state, bool untilDelivered) {
  auto& server = collector();
  if (!server) return state.SkipWithError("the collector did not start");
  const auto folder =
      std::filesystem::temp_directory_path() / ("vdl-bench-pipeline-" + std::to_string(::getpid()));
  auto defaults = std::make_shared<vdl::InMemoryDefaultsStore>();
  std::int64_t session = untilDelivered ? 1'000'000 : 1;
  std::size_t wire = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::filesystem::remove_all(folder);
    server->reset();
    auto recorder = std::make_unique<vdl::testing::Recorder>(
        vdl::UploadClient::Options{.apiKey = "test-key", .serverUrl = server->trackUrl()}, folder, defaults);
    ++session;
    state.ResumeTiming();
    for (int i = 0; i < kEventsPerRun; ++i) recorder->coordinator->write(mutationEvent(i), "device", session);
    recorder->coordinator->flush();
    if (!recorder->settle()) return state.SkipWithError("the storage queue did not settle");
    while (untilDelivered && (!recorder->storage->blocks().value().empty() || server->requests().empty())) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    state.PauseTiming();
    for (const auto& request : server->requests()) wire += request.body.size();
    recorder.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kEventsPerRun);
  if (untilDelivered)
    state.counters["wire_bytes_per_event"] = double(wire) / double(state.iterations() * kEventsPerRun);
  std::filesystem::remove_all(folder);
}

void onDisk(benchmark::State& state) {
  road(state, false);
}
void delivered(benchmark::State& state) {
  road(state, true);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::RegisterBenchmark("packing_alone", packingAlone)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("on_disk", onDisk)->Unit(benchmark::kMillisecond)->UseRealTime();
  benchmark::RegisterBenchmark("delivered", delivered)->Unit(benchmark::kMillisecond)->UseRealTime();
  benchmark::Initialize(&argc, argv);
  vdl::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  bool met = true;
  const double packing = reporter.times["packing_alone"];
  for (const auto& [name, limit] : {std::pair{"on_disk", 2.5}, std::pair{"delivered", 8.0}}) {
    const double time = reporter.times[name];
    if (packing <= 0 || time <= 0) continue;
    const bool reached = time / packing <= limit;
    std::printf(
        "target: %d events %s <= %.1fx packing them alone; measured %.2fx (%.1f ms against %.1f ms)%s\n",
        kEventsPerRun,
        std::string_view(name) == "on_disk" ? "synced in their block file" : "delivered to the collector",
        limit, time / packing, time, packing, reached ? "" : " (NOT MET)");
    met = met && reached;
  }
  collector().reset();
  benchmark::Shutdown();
  return met ? 0 : 1;
}
