// The bytes a busy app sends per minute of recording: five minutes of an app that keeps doing what apps
// do, on the simulated device and the virtual clock, recorded through the public interface and uploaded
// to a collector on 127.0.0.1. Each minute the user scrolls a feed while new posts with new photos
// arrive, types into a form (one field secure), opens a web page, and flips switches in the settings,
// with a spinner turning while things load and a progress bar filling; every screen is built anew when
// it is opened, as a navigation controller does.
//
// Prints the KB per minute uploaded, split into full snapshots, mutations, touches and images, and the
// same recording at other image coding efforts, beside the time the encoder takes for the session's
// photos at each. Target: under 120 KB per minute uploaded at the default effort.
//
// Takes no options of its own; the benchmark options the other programs take are accepted and ignored.
#include <zlib.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "image/image_encoder.h"
#include "integration/collector_process.h"
#include "integration/counted_device.h"
#include "verdalune/session_replay.h"
#include "verdalune/sim/drawing.h"
#include "verdalune/sim/screen_builder.h"
#include "verdalune/sim/web_view.h"

namespace vdl = verdalune::sessionreplay;
namespace platform = verdalune::sessionreplay::platform;
namespace sim = verdalune::sessionreplay::sim;
using namespace std::chrono_literals;

namespace {

constexpr int kMinutes = 5;
constexpr double kTargetKilobytesPerMinute = 120;
constexpr platform::Rect kScreen{{0, 0}, {390, 844}};
constexpr double kTabBarTop = 761;
const platform::Color kWhite{1, 1, 1, 1};
const platform::Color kBlue{0, 0.48, 1, 1};
const platform::Color kGrey{0.95, 0.95, 0.97, 1};

// A photo as a camera makes one: a sky, a sun and hills, with a grain of its own. 240 × 216 pixels at
// two a point, each a new picture.
std::shared_ptr<const sim::SimImage> photo(int number) {
  constexpr std::uint32_t kWidth = 240, kHeight = 216;
  platform::Bitmap bitmap{.width = kWidth, .height = kHeight, .bytesPerRow = kWidth * 4, .scale = 2};
  bitmap.pixels.resize(bitmap.bytesPerRow * kHeight);
  const double phase = number * 0.37;
  std::uint32_t grain = 2166136261u * static_cast<std::uint32_t>(number + 1);
  for (std::uint32_t y = 0; y < kHeight; ++y) {
    for (std::uint32_t x = 0; x < kWidth; ++x) {
      const double u = x / double(kWidth), v = y / double(kHeight);
      double r = 0.3 + 0.5 * v + 0.2 * std::sin(phase), g = 0.5 + 0.3 * v, b = 0.9 - 0.3 * v;
      if (std::hypot(u - 0.3 - 0.4 * std::fmod(phase, 1.0), v - 0.3) < 0.08) r = g = 1, b = 0.8;
      if (v > 0.6 + 0.08 * std::sin(u * 7 + phase * 3)) r = 0.3, g = 0.5 + 0.1 * std::sin(phase), b = 0.3;
      grain = grain * 1664525u + 1013904223u;
      const double noise = ((grain >> 24) / 255.0 - 0.5) * 0.06;
      std::uint8_t* pixel = &bitmap.pixels[y * bitmap.bytesPerRow + x * 4];
      for (int c = 0; c < 3; ++c) {
        const double value = std::clamp((c == 0 ? r : c == 1 ? g : b) + noise, 0.0, 1.0);
        pixel[c] = static_cast<std::uint8_t>(std::lround(value * 255));
      }
      pixel[3] = 255;
    }
  }
  return sim::SimImage::fromBitmap(std::move(bitmap), {.scale = 2});
}

template <typename View>
std::shared_ptr<View> placed(std::shared_ptr<View> view, platform::Rect frame) {
  view->setFrame(frame);
  return view;
}

std::shared_ptr<sim::SimView> box(platform::Rect frame, std::optional<platform::Color> fill,
                                  double cornerRadius = 0) {
  auto view = placed(sim::SimViewNode::make<sim::SimView>(), frame);
  view->setFill(fill, cornerRadius);
  return view;
}

std::shared_ptr<sim::SimTextView> label(std::string text, platform::Rect frame, sim::TextStyle style = {}) {
  return placed(sim::makeLabel(std::move(text), style), frame);
}

// The app: a window with a screen above a tab bar; each screen is made anew when it is opened.
class App {
 public:
  explicit App(sim::SimPlatform& device) : screen_(sim::ScreenBuilder(device).window(kScreen).build()) {
    auto tabBar = box({0, kTabBarTop, 390, 83}, platform::Color{0.97, 0.97, 0.97, 1});
    const char* tabs[] = {"Feed", "New", "Web", "Settings"};
    for (int i = 0; i < 4; ++i)
      tabBar->addSubview(label(tabs[i], {16 + 97.0 * i, 10, 80, 20}, {.fontSize = 12}));
    show(tabBar);
    spinner_ = box({350, 56, 24, 24}, kBlue, 12);
    show(spinner_);
  }

  sim::SimWindow& window() { return *screen_.window; }

  // Replaces the current screen with `next`.
  void open(std::shared_ptr<sim::SimView> next) {
    if (current_) current_->removeFromSuperview();
    current_ = std::move(next);
    screen_.window->addSubview(current_);
    current_->simLayer()->commit();
  }

  std::shared_ptr<sim::SimView> feed(const std::vector<std::shared_ptr<const sim::SimImage>>& photos) {
    auto screen = box({0, 0, 390, kTabBarTop}, kGrey);
    screen->addSubview(label("Today", {16, 50, 200, 34}, {.fontSize = 28}));
    list_ = box({0, 100, 390, kTabBarTop - 100}, std::nullopt);
    list_->simLayer()->update([](platform::LayerProperties& p) { p.masksToBounds = true; });
    screen->addSubview(list_);
    posts_.clear();
    for (std::size_t i = 0; i < photos.size(); ++i) addPost(photos[i], static_cast<int>(i));
    return screen;
  }

  // A new post at the top of the feed; the others move down one place.
  void addPost(std::shared_ptr<const sim::SimImage> image, int number) {
    auto post = box({8, 8, 374, 124}, kWhite, 12);
    post->addSubview(placed(sim::SimViewNode::make<sim::SimImageView>(std::move(image)), {8, 8, 120, 108}));
    post->addSubview(label("Trail run " + std::to_string(number), {136, 10, 230, 22}));
    post->addSubview(label("Shared by Alex and " + std::to_string(number % 20 + 2) + " others",
                           {136, 36, 230, 18}, {.color = {0.45, 0.45, 0.5, 1}, .fontSize = 13}));
    auto like = box({136, 84, 80, 28}, kBlue, 8);
    like->addSubview(label("Like", {22, 4, 50, 20}, {.color = kWhite, .fontSize = 15}));
    post->addSubview(like);
    posts_.insert(posts_.begin(), post);
    list_->addSubview(post);
    post->simLayer()->commit();
    layOutPosts();
  }

  void scrollFeed(double offset) { list_->scrollTo({0, offset}); }

  std::shared_ptr<sim::SimView> form() {
    auto screen = box({0, 0, 390, kTabBarTop}, kWhite);
    screen->addSubview(label("New post", {16, 50, 300, 34}, {.fontSize = 28}));
    title_ = placed(sim::makeTextField(""), {16, 120, 358, 44});
    message_ = placed(sim::makeTextField(""), {16, 180, 358, 44});
    password_ = placed(sim::makeTextField(""), {16, 240, 358, 44});
    password_->setSecureTextEntry(true);
    for (const auto& field : {title_, message_, password_}) screen->addSubview(field);
    return screen;
  }
  sim::SimTextView& field(int index) { return index == 0 ? *title_ : index == 1 ? *message_ : *password_; }

  std::shared_ptr<sim::SimView> webPage(sim::SimPlatform& device) {
    auto screen = box({0, 0, 390, kTabBarTop}, kWhite);
    screen->addSubview(label("Help", {16, 50, 300, 34}, {.fontSize = 28}));
    auto web = sim::SimViewNode::make<sim::SimWebView>(device.app()->mainQueue());
    web->load("https://help.example.com/");
    screen->addSubview(placed(web, {0, 100, 390, kTabBarTop - 100}));
    return screen;
  }

  std::shared_ptr<sim::SimView> settings() {
    auto screen = box({0, 0, 390, kTabBarTop}, kGrey);
    screen->addSubview(label("Settings", {16, 50, 300, 34}, {.fontSize = 28}));
    switches_.clear();
    const char* rows[] = {"Notifications", "Dark mode", "Autoplay videos", "Location", "Backups"};
    for (int i = 0; i < 5; ++i) {
      auto row = box({16, 110 + 52.0 * i, 358, 48}, kWhite, 10);
      row->addSubview(label(rows[i], {12, 13, 220, 22}));
      auto track = box({290, 9, 51, 31}, platform::Color{0.2, 0.78, 0.35, 1}, 15.5);
      track->addSubview(box({22, 2, 27, 27}, kWhite, 13.5));
      row->addSubview(track);
      switches_.push_back(track);
      screen->addSubview(row);
    }
    progress_ = box({16, 400, 0, 6}, kBlue, 3);
    screen->addSubview(box({16, 400, 358, 6}, platform::Color{0.85, 0.85, 0.88, 1}, 3));
    screen->addSubview(progress_);
    return screen;
  }
  void flip(int row, bool on) {
    const auto& track = switches_[row % switches_.size()];
    track->setFill(on ? platform::Color{0.2, 0.78, 0.35, 1} : platform::Color{0.85, 0.85, 0.88, 1}, 15.5);
  }
  void progress(double share) { progress_->setFrame({16, 400, 358 * share, 6}); }

  // While something loads the spinner turns and pulses every frame, as an activity indicator does.
  void animate(int frame, bool loading) {
    if (!loading) {
      if (spinning_) spinner_->simLayer()->endAnimation();
      spinning_ = false;
      return;
    }
    spinning_ = true;
    spinner_->simLayer()->endAnimation();
    spinner_->simLayer()->beginAnimation([turn = frame % 12](platform::LayerProperties& shown) {
      shown.opacity = 0.4f + 0.05f * static_cast<float>(turn);
      const double angle = turn * M_PI / 6;
      shown.transform.m[0] = shown.transform.m[5] = std::cos(angle);
      shown.transform.m[1] = std::sin(angle);
      shown.transform.m[4] = -std::sin(angle);
    });
  }

 private:
  void show(const std::shared_ptr<sim::SimView>& view) {
    screen_.window->addSubview(view);
    view->simLayer()->commit();
  }
  void layOutPosts() {
    for (std::size_t i = 0; i < posts_.size(); ++i) posts_[i]->setFrame({8, 8 + 132.0 * i, 374, 124});
  }

  sim::Screen screen_;
  std::shared_ptr<sim::SimView> current_, list_, spinner_, progress_;
  std::vector<std::shared_ptr<sim::SimView>> posts_, switches_;
  std::shared_ptr<sim::SimTextView> title_, message_, password_;
  bool spinning_ = false;
};

// Every photo the session shows, in order: six on the feed at first, then one new every ten seconds.
std::vector<std::shared_ptr<const sim::SimImage>> sessionPhotos() {
  std::vector<std::shared_ptr<const sim::SimImage>> photos;
  for (int i = 0; i < 6 + kMinutes * 3; ++i) photos.push_back(photo(i));
  return photos;
}

struct Uploaded {
  double wireBytes = 0;
  std::map<std::string, double> eventBytes;  // by kind: what each kind's events weigh on the wire
  bool complete = false;
};

// What an event's text weighs on the wire: deflated on its own, each byte carried as one Latin-1
// character of a JSON string (two bytes of UTF-8 from 0x80, escapes for quotes and control bytes).
double wireSize(std::string_view text) {
  uLongf size = compressBound(static_cast<uLong>(text.size()));
  std::vector<Bytef> out(size);
  compress(out.data(), &size, reinterpret_cast<const Bytef*>(text.data()), static_cast<uLong>(text.size()));
  double bytes = 0;
  for (uLongf i = 0; i < size; ++i) {
    const Bytef b = out[i];
    bytes += b >= 0x80 || b == '"' || b == '\\' ? 2 : b < 0x20 ? 6 : 1;
  }
  return bytes;
}

// The recorded events by kind: full snapshots, mutations, touches, everything else, and the images
// (data URLs) in whichever event carried them, each event's weight shared between its images and the
// rest by the length of each.
std::map<std::string, double> bytesByKind(const std::vector<std::string>& events) {
  std::map<std::string, double> bytes;
  for (const std::string& event : events) {
    double images = 0;
    for (std::size_t at = event.find("data:image"); at != std::string::npos;
         at = event.find("data:image", at)) {
      const std::size_t end = std::min(event.find_first_of(")\"", at), event.size());
      images += static_cast<double>(end - at);
      at = end;
    }
    std::string kind = "other";
    if (event.find("\"type\":2") != std::string::npos) {
      kind = "full snapshots";
    } else if (event.find("\"type\":3") != std::string::npos) {
      if (event.find("\"source\":0") != std::string::npos) kind = "mutations";
      if (event.find("\"source\":2") != std::string::npos || event.find("\"source\":6") != std::string::npos)
        kind = "touches";
    }
    const double weight = wireSize(event);
    const double imageShare = images / static_cast<double>(event.size());
    bytes[kind] += weight * (1 - imageShare);
    bytes["images"] += weight * imageShare;
  }
  return bytes;
}

// Five minutes of the app recorded at `effort` into a new collector.
Uploaded record(const std::vector<std::shared_ptr<const sim::SimImage>>& photos, vdl::ImageEffort effort) {
  Uploaded result;
  auto collector = vdl::testing::CollectorProcess::start();
  if (!collector) return result;
  auto device = std::make_shared<vdl::testing::CountedDevice>();
  const auto& queue = device->sim->app()->manualQueue();
  App app(*device->sim);
  auto replay = vdl::SessionReplay::make(
      "test-key", "device", 7, false, 1.0f, {}, nullptr, vdl::ServerZone::US, vdl::MaskLevel::medium, false,
      device,
      {.serverUrl = collector->baseUrl(),
       .makeQueue = [&](std::string_view) { return std::shared_ptr<vdl::Queue>(queue); },
       .imageQuality = effort.quality,
       .imageMethod = effort.method});
  replay->start();
  if (!device->settle()) return result;

  std::size_t nextPhoto = 6;
  const std::vector first(photos.begin(), photos.begin() + 6);
  const auto touch = [&](platform::TouchPhase phase, platform::Point at) { app.window().touch(phase, {at}); };
  const std::string typed = "Morning loop by the river, 12 km, legs fine";
  for (int frame = 0; frame < kMinutes * 600; ++frame) {
    const int minute = frame / 600, at = frame % 600;  // tenths of a second into the minute
    // Loading: a second and a half before each new post, two seconds as the web page opens.
    app.animate(frame, (at < 250 && at % 100 >= 35 && at % 100 < 50) || (at >= 400 && at < 420));
    if (at == 0) app.open(app.feed(first));
    if (at < 250) {
      // A drag every two seconds scrolls the feed by 120 points, down and back up.
      const int step = at % 20;
      const double y = 600 - 24.0 * std::min(step, 5);
      if (step == 0) touch(platform::TouchPhase::began, {200, y});
      if (step > 0 && step <= 5) touch(platform::TouchPhase::moved, {200, y});
      if (step == 6) touch(platform::TouchPhase::ended, {200, y});
      if (step > 0 && step <= 5) app.scrollFeed((at / 20 % 2 == 0 ? step : 5 - step) * 24.0);
      if (at % 100 == 50 && nextPhoto < photos.size()) {
        app.addPost(photos[nextPhoto], static_cast<int>(nextPhoto));
        ++nextPhoto;
      }
    } else if (at < 400) {
      if (at == 250) app.open(app.form());
      // A character every 150 ms into each field in turn.
      const int typedSoFar = (at - 250) * 2 / 3;
      const int field = typedSoFar / 34, length = typedSoFar % 34;
      if (field < 3 && (at - 250) % 3 != 2) {
        app.field(field).setText(typed.substr(minute, static_cast<std::size_t>(length)));
        if (length == 0) {
          touch(platform::TouchPhase::began, {200, 142.0 + 60 * field});
          touch(platform::TouchPhase::ended, {200, 142.0 + 60 * field});
        }
      }
    } else if (at < 500) {
      if (at == 400) app.open(app.webPage(*device->sim));
    } else {
      if (at == 500) app.open(app.settings());
      if (at % 20 == 10) {
        touch(platform::TouchPhase::began, {315, 135.0 + 52 * (at / 20 % 5)});
        touch(platform::TouchPhase::ended, {315, 135.0 + 52 * (at / 20 % 5)});
        app.flip(at / 20 % 5, at / 20 % 2 == 0);
      }
      app.progress((at - 500) / 100.0);
    }
    queue->advance(100ms);
    if (!device->settle()) return result;
  }
  replay->stop();
  // The last block closes at the next block timer, and leaves the device once uploaded.
  const auto blocks =
      device->sim->app()->applicationSupportDirectory() / "com.verdalune.sessionreplay" / "test-key";
  for (int minute = 0; minute < 3 && !std::filesystem::is_empty(blocks); ++minute) {
    queue->advance(61s);
    if (!device->settle()) return result;
  }
  result.complete = std::filesystem::is_empty(blocks);
  for (const auto& request : collector->requests()) {
    if (request.path.ends_with("/track")) result.wireBytes += static_cast<double>(request.body.size());
  }
  result.eventBytes = bytesByKind(collector->sessionEvents("device", 7));
  return result;
}

// Milliseconds the encoder takes for every photo of the session at `effort`, as shown on a 3x screen.
double encodeMilliseconds(const std::vector<std::shared_ptr<const sim::SimImage>>& photos,
                          vdl::ImageEffort effort) {
  const vdl::ImageGeometry geometry{
      .sourceSize = {120, 108}, .boundsSize = {120, 108}, .scale = 2, .deviceScale = 3};
  double best = 1e300;
  std::size_t bytes = 0;
  for (int round = 0; round < 5; ++round) {
    const auto start = std::chrono::steady_clock::now();
    for (const auto& image : photos) {
      const auto encoded = vdl::ImageEncoder::encode(*image, false, geometry, effort);
      bytes += encoded ? encoded->data.size() : 0;
    }
    best = std::min(
        best, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  }
  return bytes > 0 ? best : 0;
}

}  // namespace

int main() {
  const auto photos = sessionPhotos();
  const double minutes = kMinutes;
  const Uploaded session = record(photos, {});
  if (!session.complete || session.wireBytes == 0) {
    std::fprintf(stderr, "bench_bandwidth: the recording did not reach the collector whole\n");
    return 1;
  }
  const double kbPerMinute = session.wireBytes / 1024 / minutes;
  double sum = 0;
  for (const auto& [kind, bytes] : session.eventBytes) sum += bytes;
  std::printf("bandwidth: %d minutes of a busy app, %.0f KB uploaded, %.1f KB per minute\n", kMinutes,
              session.wireBytes / 1024, kbPerMinute);
  std::printf("  %-16s %10s\n", "kind", "KB/minute");
  for (const auto& [kind, bytes] : session.eventBytes) {
    // In proportion to what was uploaded: the request bodies carry the packed events and a little more.
    std::printf("  %-16s %10.1f\n", kind.c_str(), sum > 0 ? kbPerMinute * bytes / sum : 0);
  }

  std::printf(
      "\nimage coding effort (quality, method): KB per minute uploaded, and the encoder's time for the "
      "session's %zu photos\n",
      photos.size());
  std::printf("  %-10s %10s %12s %12s\n", "effort", "KB/minute", "images KB/m", "encode ms");
  const double baseTime = encodeMilliseconds(photos, {});
  for (const vdl::ImageEffort effort :
       {vdl::ImageEffort{}, vdl::ImageEffort{50, 2}, vdl::ImageEffort{50, 4}, vdl::ImageEffort{30, 0},
        vdl::ImageEffort{75, 0}, vdl::ImageEffort{75, 4}}) {
    const Uploaded run = effort == vdl::ImageEffort{} ? session : record(photos, effort);
    double runSum = 0;
    for (const auto& [kind, bytes] : run.eventBytes) runSum += bytes;
    const double runKb = run.wireBytes / 1024 / minutes;
    const double imagesKb = runSum > 0 ? runKb * run.eventBytes.at("images") / runSum : 0;
    const double time = effort == vdl::ImageEffort{} ? baseTime : encodeMilliseconds(photos, effort);
    std::printf("  %3d, %d     %10.1f %12.1f %12.2f (%+.0f%%)\n", effort.quality, effort.method, runKb,
                imagesKb, time, (time / baseTime - 1) * 100);
  }
  const bool met = kbPerMinute < kTargetKilobytesPerMinute;
  std::printf("\ntarget: KB per minute uploaded by a busy app < %.0f; measured %.1f%s\n",
              kTargetKilobytesPerMinute, kbPerMinute, met ? "" : " (NOT MET)");
  return met ? 0 : 1;
}
