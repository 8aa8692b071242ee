// Packing cost against its raw building block: zlib's one-shot compress of the same JSON, measured
// in the same run. Target: packing runs at 0.9 or more of compress alone, so writing the JSON and
// framing the compressed bytes as a string literal add at most a tenth. (Packing keeps its deflate
// state between events where the one-shot call makes one each time; on the large snapshot that is
// noise, on the small mutation it is a few percent in packing's favour.)
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <map>
#include <string>

#include "ratio_reporter.h"
#include "storage/versioned_event.h"
#include "support/json_writer.h"

namespace vdl = verdalune::sessionreplay;
namespace rrweb = verdalune::sessionreplay::rrweb;

namespace {

std::string px(double value) {
  std::string text;
  vdl::appendShortestNumber(text, value);
  return text + "px";
}

// A 64-character upper-case hexadecimal name, as image classes are named by their content hash.
std::string hashName(std::uint64_t seed) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string name;
  for (int i = 0; i < 64; ++i) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    name.push_back(kHex[seed >> 60]);
  }
  return name;
}

// A screen of `count` absolutely positioned, styled elements as the serializer writes a full snapshot
// of a busy feed: coordinates in thirds of a point (a 3x screen), colours from a small palette, every
// fourth element an image named by its hash, and a label on the others.
rrweb::Event styledSnapshot(int count) {
  static const char* const kPalette[] = {"#FFFFFFFF", "#F2F2F7FF", "#1C1C1EFF", "#007AFFFF", "#34C759FF",
                                         "#FF3B30FF", "#8E8E93FF", "#E5E5EAFF", "#00000033", "#5856D6FF"};
  static const char* const kWords[] = {"Morning", "run",     "along",  "the",    "river",
                                       "with",    "friends", "photos", "shared", "by",
                                       "Alex",    "and",     "12",     "others", "yesterday"};
  std::vector<rrweb::Node> elements;
  for (int i = 0; i < count; ++i) {
    const double top = 88.0 + 61.0 / 3.0 * i;
    const double width = 343.0 + (i % 7) / 3.0;
    std::string style = "background-color: " + std::string(kPalette[i % 10]) +
                        "; border-radius: " + px(4 + i % 4 * 2) + "; height: " + px(44 + (i % 5) / 3.0) +
                        "; left: " + px(16 + (i % 3) / 3.0) + "; opacity: " + (i % 9 ? "1" : "0.5") +
                        "; position: absolute; top: " + px(top) + "; transform: matrix(1, 0, 0, 1, 0, " +
                        px(-(i % 13) / 3.0) + "); width: " + px(width) + "; z-index: " + std::to_string(i);
    rrweb::JSONValue::Dictionary attributes{{"style", rrweb::JSONValue(style)}};
    std::vector<rrweb::Node> children;
    if (i % 4 == 0) {
      // Appended, not "i" + hashName(...): g++ 12 at -O3 misreads that insert at the front as an overlapping
      // copy.
      std::string className = "i";
      className += hashName(static_cast<std::uint64_t>(i));
      attributes["class"] = rrweb::JSONValue(std::move(className));
    } else {
      std::string label;
      for (int w = 0; w < 4 + i % 5; ++w) label += std::string(kWords[(i * 7 + w * 3) % 15]) + " ";
      children.push_back(rrweb::TextNode{.id = 100000 + i, .textContent = label});
    }
    elements.push_back(rrweb::ElementNode{.id = 100 + i,
                                          .tagName = "div",
                                          .attributes = std::move(attributes),
                                          .childNodes = std::move(children)});
  }
  rrweb::ElementNode body{.id = 13, .tagName = "body", .childNodes = std::move(elements)};
  rrweb::ElementNode html{.id = 11, .tagName = "html", .childNodes = {rrweb::Node(std::move(body))}};
  rrweb::DocumentNode document{.id = 10, .childNodes = {rrweb::Node(std::move(html))}};
  return rrweb::FullSnapshotEvent{.timestamp = 1700000000000, .node = rrweb::Node(std::move(document))};
}

rrweb::Event smallMutation() {
  rrweb::MutationData mutation;
  mutation.attributes.push_back(rrweb::AttributeMutation{
      .id = 142,
      .attributes = {{"style", rrweb::JSONValue("left: 16px; position: absolute; top: 300.5px")}}});
  mutation.removes.push_back(rrweb::RemovedNodeMutation{.parentId = 13, .id = 150});
  return rrweb::IncrementalSnapshotEvent{.timestamp = 1700000000100,
                                         .data = rrweb::IncrementalData(mutation)};
}

const rrweb::Event& eventNamed(const std::string& name) {
  static const std::map<std::string, rrweb::Event> events = {
      {"snapshot", styledSnapshot(1000)},
      {"mutation", smallMutation()},
  };
  return events.at(name);
}

void compressOnly(benchmark::State& state, const std::string& name) {
  const std::string json = vdl::EventPacker().encode(vdl::VersionedEvent{eventNamed(name)}).value();
  std::string destination(json.size() * 4, '\0');
  for (auto _ : state) {
    uLongf length = destination.size();
    compress(reinterpret_cast<Bytef*>(destination.data()), &length,
             reinterpret_cast<const Bytef*>(json.data()), json.size());
    benchmark::DoNotOptimize(length);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * json.size()));
  state.counters["json_bytes"] = static_cast<double>(json.size());
}

void pack(benchmark::State& state, const std::string& name) {
  const rrweb::Event& event = eventNamed(name);
  vdl::EventPacker packer;
  const std::size_t jsonSize = packer.encode(vdl::VersionedEvent{event}).value().size();
  for (auto _ : state) {
    auto packed = packer.pack(event);
    benchmark::DoNotOptimize(packed);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * jsonSize));
}

}  // namespace

int main(int argc, char** argv) {
  for (const std::string name : {"snapshot", "mutation"}) {
    benchmark::RegisterBenchmark(("compress/" + name).c_str(), compressOnly, name);
    benchmark::RegisterBenchmark(("pack/" + name).c_str(), pack, name);
  }
  benchmark::Initialize(&argc, argv);
  vdl::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  bool met = true;
  for (const std::string name : {"snapshot", "mutation"}) {
    const double compressTime = reporter.times["compress/" + name];
    const double packTime = reporter.times["pack/" + name];
    if (compressTime <= 0 || packTime <= 0) continue;
    const double ratio = compressTime / packTime;
    std::printf("target: packing/%s at >= 0.90 of compress alone; measured %.2f%s\n", name.c_str(), ratio,
                ratio >= 0.9 ? "" : " (NOT MET)");
    met = met && ratio >= 0.9;
  }
  benchmark::Shutdown();
  return met ? 0 : 1;
}
