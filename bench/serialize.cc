// The serializer's cost on its queue for a captured feed (one photo object shared by every card, a text
// bitmap drawn for every label), each capture's events packed as the storage side does next:
// - full, cold: the first capture of a new serializer, with nothing of the screen encoded before;
// - full, warm: the same with the screen's contents already encoded (a new recording of a screen seen
//   before);
// - unchanged: a capture where nothing changed; 1% changed: one node in a hundred changed or moved.
// Targets: a cold first snapshot of 1,000 layers costs at most 2 times a warm one (each distinct image
// is encoded once, however many layers show it); an unchanged capture costs under 5% of a warm full
// snapshot, so an idle screen is almost free; a 1% change grows linearly: 5,000 layers cost at most 6
// times 1,000, and 10,000 at most 12 times.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "feed_screen.h"
#include "ratio_reporter.h"
#include "serialize/serializer.h"
#include "storage/versioned_event.h"

namespace vdl = verdalune::sessionreplay;
namespace rrweb = verdalune::sessionreplay::rrweb;

namespace {

class KeepingStorage final : public vdl::StorageCoordinatorProtocol {
 public:
  void write(rrweb::Event event, std::string, std::int64_t) override { events.push_back(std::move(event)); }
  void flush() override {}
  std::vector<rrweb::Event> events;
};

// The tree with contents of its own for every node, as read from the screen: nothing encoded, and
// nothing that encoding one copy changes in another.
vdl::LayerTreeNode withFreshContents(const vdl::LayerTreeNode& original) {
  vdl::LayerTreeNode node = original;
  node.children.clear();
  if (original.contents) {
    node.contents =
        std::make_shared<vdl::LayerContents>(original.contents->contents(), original.contents->metadata);
  }
  for (const vdl::LayerTreeNode& child : original.children) node.children.push_back(withFreshContents(child));
  return node;
}

std::shared_ptr<vdl::Snapshot> withFreshContents(const vdl::Snapshot& original) {
  auto snapshot = std::make_shared<vdl::Snapshot>();
  snapshot->screenSize = original.screenSize;
  for (const vdl::LayerTreeNode& window : original.windows)
    snapshot->windows.push_back(withFreshContents(window));
  return snapshot;
}

void link(vdl::LayerTreeNode& parent) {
  for (std::size_t i = 0; i < parent.children.size(); ++i) {
    parent.children[i].parentId = parent.id;
    parent.children[i].nextId =
        i + 1 < parent.children.size() ? std::optional(parent.children[i + 1].id) : std::nullopt;
    link(parent.children[i]);
  }
}

std::size_t countNodes(const vdl::LayerTreeNode& node) {
  std::size_t count = 1;
  for (const vdl::LayerTreeNode& child : node.children) count += countNodes(child);
  return count;
}

// The same screen with one node in a hundred changed: most of them moved a point, and one card in ten
// of those (its whole subtree) moved to the end of its list instead.
std::shared_ptr<vdl::Snapshot> edited(const vdl::Snapshot& original, std::size_t nodes) {
  auto snapshot = std::make_shared<vdl::Snapshot>(original);
  const std::size_t moves = std::max<std::size_t>(1, nodes / 1000);
  std::size_t seen = 0;
  std::size_t moved = 0;
  auto edit = [&](auto& self, vdl::LayerTreeNode& node) -> void {
    if (++seen % 100 == 0) {
      node.snapshot.position.y += 1;
      node.fingerprint = vdl::fingerprintOf(node.snapshot);  // as the capture would have found it
    }
    // Lists are the nodes whose children are all cards (a card is ten layers), not the window that
    // holds the lists.
    const bool isList = node.children.size() >= 2 && std::ranges::all_of(node.children, [](const auto& card) {
                          return countNodes(card) <= 12;
                        });
    if (moved < moves && isList) {
      std::rotate(node.children.begin(), node.children.begin() + 1, node.children.end());
      ++moved;
    }
    for (vdl::LayerTreeNode& child : node.children) self(self, child);
  };
  for (vdl::LayerTreeNode& window : snapshot->windows) {
    edit(edit, window);
    link(window);
  }
  return snapshot;
}

struct Fixture {
  explicit Fixture(std::size_t layers) : screen(layers) {
    const vdl::SnapshotContext context = screen.snapshotter->makeContext(false);
    auto first =
        std::make_shared<vdl::Snapshot>(screen.snapshotter->capture(context, vdl::MaskLevel::medium));
    // Copied before anything is encoded: every cold run starts from these.
    pristine = withFreshContents(*first);
    base = first;
    same = std::make_shared<vdl::Snapshot>(screen.snapshotter->capture(context, vdl::MaskLevel::medium));
    changed = edited(*base, screen.layerCount);
    // Encodes the contents the captures share, so the warm runs find them encoded.
    auto storage = std::make_shared<KeepingStorage>();
    auto warming = serializer(storage);
    warming->serializeNow(base, "device", 1, 0);
    distinctImages = warming->sentImageCount();
    auto count = [&](auto& self, const vdl::LayerTreeNode& node) -> void {
      if (node.contents) ++layersWithContents;
      for (const vdl::LayerTreeNode& child : node.children) self(self, child);
    };
    for (const vdl::LayerTreeNode& window : pristine->windows) count(count, window);
  }
  std::shared_ptr<vdl::Serializer> serializer(const std::shared_ptr<KeepingStorage>& storage) const {
    return vdl::Serializer::make({.platform = screen.device,
                                  .logger = nullptr,
                                  .storageCoordinator = storage,
                                  .queue = screen.device->app()->mainQueue()});
  }
  // What the storage side does next with the events of a capture.
  void pack(KeepingStorage& storage) {
    for (const auto& event : storage.events) benchmark::DoNotOptimize(packer.pack(event));
    storage.events.clear();
  }

  vdl::bench::FeedScreen screen;
  std::shared_ptr<const vdl::Snapshot> pristine, base, same, changed;
  vdl::EventPacker packer;
  std::size_t layersWithContents = 0;
  std::size_t distinctImages = 0;
};

Fixture& fixtureOf(std::size_t layers) {
  static std::map<std::size_t, std::unique_ptr<Fixture>> fixtures;
  auto& fixture = fixtures[layers];
  if (!fixture) fixture = std::make_unique<Fixture>(layers);
  return *fixture;
}

void coldFull(benchmark::State& state) {
  Fixture& fixture = fixtureOf(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    std::shared_ptr<const vdl::Snapshot> fresh = withFreshContents(*fixture.pristine);
    state.ResumeTiming();
    auto storage = std::make_shared<KeepingStorage>();
    fixture.serializer(storage)->serializeNow(fresh, "device", 1, 0);
    fixture.pack(*storage);
    state.PauseTiming();
    fresh.reset();
    state.ResumeTiming();
  }
}

void warmFull(benchmark::State& state) {
  Fixture& fixture = fixtureOf(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    auto storage = std::make_shared<KeepingStorage>();
    fixture.serializer(storage)->serializeNow(fixture.base, "device", 1, 0);
    fixture.pack(*storage);
  }
}

// Alternates between two captures, so every iteration compares a pair.
void compareTo(benchmark::State& state, bool withChanges) {
  Fixture& fixture = fixtureOf(static_cast<std::size_t>(state.range(0)));
  auto storage = std::make_shared<KeepingStorage>();
  auto serializer = fixture.serializer(storage);
  serializer->serializeNow(fixture.base, "device", 1, 0);
  storage->events.clear();
  const auto& other = withChanges ? fixture.changed : fixture.same;
  bool toOther = true;
  for (auto _ : state) {
    serializer->serializeNow(toOther ? other : fixture.base, "device", 1, 0);
    fixture.pack(*storage);
    toOther = !toOther;
  }
}

void unchanged(benchmark::State& state) {
  compareTo(state, false);
}
void onePercent(benchmark::State& state) {
  compareTo(state, true);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<int> sizes{1000, 5000, 10000};
  for (int size : sizes) {
    const std::string n = "/" + std::to_string(size);
    benchmark::RegisterBenchmark(("cold_full" + n).c_str(), coldFull)->Arg(size);
    benchmark::RegisterBenchmark(("full" + n).c_str(), warmFull)->Arg(size);
    benchmark::RegisterBenchmark(("unchanged" + n).c_str(), unchanged)->Arg(size);
    benchmark::RegisterBenchmark(("one_percent" + n).c_str(), onePercent)->Arg(size);
  }
  benchmark::Initialize(&argc, argv);
  vdl::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  bool met = true;
  auto time = [&](const std::string& name, int size) {
    return reporter.times[name + "/" + std::to_string(size)];
  };
  auto target = [&](bool reached, const char* format, auto... values) {
    std::printf("target: ");
    std::printf(format, values...);
    std::printf("%s\n", reached ? "" : " (NOT MET)");
    met = met && reached;
  };
  for (int size : sizes) {
    const double cold = time("cold_full", size), full = time("full", size), idle = time("unchanged", size),
                 some = time("one_percent", size);
    if (full <= 0) continue;
    std::printf(
        "serialize/%d: %zu layers, %zu showing contents, %zu distinct images, events packed; full cold %.3f "
        "ms, warm %.3f ms (cold/warm %.2fx), "
        "unchanged %.3f ms, 1%% changed %.3f ms\n",
        size, fixtureOf(size).screen.layerCount, fixtureOf(size).layersWithContents,
        fixtureOf(size).distinctImages, cold / 1e6, full / 1e6, cold / full, idle / 1e6, some / 1e6);
    if (size == 1000 && cold > 0) {
      target(cold <= 2 * full, "cold first full snapshot of 1,000 layers <= 2x a warm one; measured %.2fx",
             cold / full);
    }
    if (idle > 0) {
      target(idle < 0.05 * full, "unchanged capture of %d layers < 5%% of a full snapshot; measured %.1f%%",
             size, idle / full * 100);
    }
  }
  for (const auto& [size, limit] : std::vector<std::pair<int, double>>{{5000, 6}, {10000, 12}}) {
    const double base = time("one_percent", 1000), grown = time("one_percent", size);
    if (base <= 0 || grown <= 0) continue;
    target(grown / base <= limit, "1%% changed at %d layers <= %.0fx the cost at 1,000; measured %.2fx", size,
           limit, grown / base);
  }
  benchmark::Shutdown();
  return met ? 0 : 1;
}
