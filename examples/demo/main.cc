// vdl-demo: a scripted app on the simulated device that records itself with the library, uploads the
// recording to a vdl-collector it starts on loopback, and prints the address where the replay plays.
//
//   vdl-demo [--seconds N] [--port P] [--no-serve] [--out DIR [--frames]]
//
// The app: a sign-in form (an e-mail field, a password field with secure entry, a one-time-code field),
// a feed with photos under a gradient header and a blurred navigation bar that scrolls, and a settings
// screen with switches. Every tap and drag is a touch on the window. The script runs on the demo's own
// thread and hands each change to the main queue, whose one thread plays the application's main thread.
#include <fcntl.h>
#include <httplib.h>
#include <rapidjson/document.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "verdalune/session_replay.h"
#include "verdalune/sim/compositor.h"
#include "verdalune/sim/drawing.h"
#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"
#include "verdalune/support/clock.h"
#include "verdalune/support/queue.h"

extern char** environ;

namespace vdl = verdalune::sessionreplay;
namespace platform = verdalune::sessionreplay::platform;
namespace sim = verdalune::sessionreplay::sim;
using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr const char* kApiKey = "demo-key";
constexpr const char* kDeviceId = "demo-device";
constexpr const char* kUsage = "usage: vdl-demo [--seconds N] [--port P] [--no-serve] [--out DIR [--frames]]";

// What the user types. The two secrets never leave the device: their fields are masked, which the
// end-to-end test checks by looking for these texts, and for their colour, in everything uploaded.
constexpr const char* kEmail = "alex.morgan@example.com";
constexpr const char* kPassword = "Tr0ub4dor&3-vdl";
constexpr const char* kOneTimeCode = "731946";
// Pure magenta: nothing else on screen comes near it, so one such pixel in an uploaded image is a leak.
constexpr platform::Color kSecretTextColor{1, 0, 1, 1};
// The brand name's colour, unique too: it shows that the images of the recording are where that
// test looks for pixels.
constexpr platform::Color kBrandColor{180 / 255.0, 1, 0, 1};

constexpr platform::Rect kScreen{{0, 0}, {390, 844}};
constexpr platform::Rect kNavigationBar{{0, 0}, {390, 100}};
constexpr platform::Rect kHeader{{0, 0}, {390, 230}};
constexpr double kTabBarTop = 761;

// ---- command line ----

struct Arguments {
  double seconds = 15;
  int port = 0;
  bool serve = true;
  std::optional<std::filesystem::path> out;
  bool frames = false;
};

std::optional<Arguments> parseArguments(int argc, char** argv) {
  Arguments arguments;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= argc) return std::nullopt;
      return std::string(argv[++i]);
    };
    if (arg == "--seconds") {
      const auto text = value();
      char* end = nullptr;
      arguments.seconds = text ? std::strtod(text->c_str(), &end) : 0;
      if (!text || *end != '\0' || !(arguments.seconds >= 2 && arguments.seconds <= 600)) {
        std::fprintf(stderr, "vdl-demo: --seconds takes a number from 2 to 600\n");
        return std::nullopt;
      }
    } else if (arg == "--port") {
      const auto text = value();
      char* end = nullptr;
      const long port = text ? std::strtol(text->c_str(), &end, 10) : -1;
      if (!text || *end != '\0' || port < 0 || port > 65535) {
        std::fprintf(stderr, "vdl-demo: --port takes a port number (0 picks a free one)\n");
        return std::nullopt;
      }
      arguments.port = static_cast<int>(port);
    } else if (arg == "--no-serve") {
      arguments.serve = false;
    } else if (arg == "--out") {
      const auto text = value();
      if (!text) {
        std::fprintf(stderr, "vdl-demo: --out needs a folder\n");
        return std::nullopt;
      }
      arguments.out = *text;
    } else if (arg == "--frames") {
      arguments.frames = true;
    } else if (arg == "-h" || arg == "--help") {
      std::printf(
          "%s\n\n"
          "Records a scripted app on the simulated device for N seconds (default 15), uploads the\n"
          "recording to a vdl-collector started on 127.0.0.1 (port P, default a free one), prints where\n"
          "the replay plays, and keeps the collector serving until Ctrl-C when stdin is a terminal.\n"
          "--out DIR also writes what the collector received into DIR; with --frames, what the device's\n"
          "screen showed at a few still moments, as DIR/frames/*.png and DIR/frames.json, to set beside\n"
          "the replay.\n",
          kUsage);
      std::exit(0);
    } else {
      std::fprintf(stderr, "vdl-demo: unknown argument %s\n%s\n", arg.c_str(), kUsage);
      return std::nullopt;
    }
  }
  if (arguments.frames && !arguments.out) {
    std::fprintf(stderr, "vdl-demo: --frames needs --out DIR\n");
    return std::nullopt;
  }
  return arguments;
}

// ---- progress on stderr ----

// One line redrawn in place on a terminal; plain lines now and then when stderr is a file or a pipe.
class Progress {
 public:
  Progress() : terminal_(isatty(STDERR_FILENO) == 1) {}

  void update(double elapsed, double total, const std::string& phase) {
    std::scoped_lock guard(mutex_);
    elapsed = std::min(elapsed, total);
    if (terminal_) {
      constexpr int kWidth = 30;
      const int filled = static_cast<int>(kWidth * elapsed / total);
      const std::string line = "recording [" + std::string(filled, '#') + std::string(kWidth - filled, '.') +
                               "] " + oneDecimal(elapsed) + " / " + oneDecimal(total) + " s  " + phase;
      if (line != line_) std::fprintf(stderr, "\r\033[K%s", line.c_str());
      line_ = line;
    } else if (phase != lastPhase_ || elapsed - lastPrinted_ >= 3 || elapsed >= total) {
      if (elapsed == lastPrinted_ && phase == lastPhase_) return;
      std::fprintf(stderr, "recording %s / %s s  %s\n", oneDecimal(elapsed).c_str(),
                   oneDecimal(total).c_str(), phase.c_str());
      lastPrinted_ = elapsed;
    }
    lastPhase_ = phase;
  }

  // Ends the redrawn line, so that what follows starts on a line of its own.
  void finish() {
    std::scoped_lock guard(mutex_);
    if (terminal_ && !line_.empty()) std::fputc('\n', stderr);
    line_.clear();
  }

  // A message between two redraws of the line.
  void message(std::string_view text) {
    std::scoped_lock guard(mutex_);
    if (terminal_ && !line_.empty()) std::fputs("\r\033[K", stderr);
    std::fprintf(stderr, "%.*s\n", static_cast<int>(text.size()), text.data());
    if (terminal_ && !line_.empty()) std::fputs(line_.c_str(), stderr);
  }

 private:
  static std::string oneDecimal(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
  }

  std::mutex mutex_;
  const bool terminal_;
  std::string line_;
  std::string lastPhase_;
  double lastPrinted_ = -1;
};

// The library's diagnostics, errors and warnings, shown between redraws of the progress line. The
// parameters the library logs as warnings when it is made are not news in a demo that set them.
class DemoLogger final : public vdl::Logger {
 public:
  explicit DemoLogger(Progress& progress) : progress_(progress) {}
  void error(std::string_view message) override { progress_.message(message); }
  void warn(std::string_view message) override {
    if (showWarnings) progress_.message(message);
  }
  void log(std::string_view) override {}
  void debug(std::string_view) override {}

  std::atomic<bool> showWarnings{false};

 private:
  Progress& progress_;
};

// ---- the collector ----

// 32 hex digits from the system's random source, for the collector's credentials of this run.
std::string randomToken() {
  std::random_device random;
  char token[33];
  for (int i = 0; i < 4; ++i) std::snprintf(token + 8 * i, 9, "%08x", random());
  return token;
}

// A vdl-collector child process on 127.0.0.1 with its database in a temporary folder. It reads its
// standard input until it ends, and that pipe's write end stays here: however the demo ends, the
// collector ends with it.
class Collector {
 public:
  static std::unique_ptr<Collector> start(int port) {
    std::string folderTemplate = (std::filesystem::temp_directory_path() / "vdl-demo-XXXXXX").string();
    if (!mkdtemp(folderTemplate.data())) {
      std::fprintf(stderr, "vdl-demo: cannot make a temporary folder: %s\n", std::strerror(errno));
      return nullptr;
    }
    const std::filesystem::path folder = folderTemplate;
    std::vector<std::string> arguments{VDL_COLLECTOR_PATH, "--api-key", kApiKey, "--port",
                                       std::to_string(port), "--host", "127.0.0.1", "--db",
                                       (folder / "sessions.sqlite3").string(), "--watch-stdin",
                                       // The demo reads back what the collector received (--out, the
                                       // upload numbers) through its request record.
                                       "--test-controls", controlToken_,
                                       // Not --open-reads: the collector keeps serving until Ctrl-C,
                                       // and anyone else on this machine could read the recording. The
                                       // replay link carries the token, and signs its browser in.
                                       "--read-token", readToken_};
    int lifeline[2];
    if (pipe2(lifeline, O_CLOEXEC) != 0) {
      std::fprintf(stderr, "vdl-demo: cannot make a pipe: %s\n", std::strerror(errno));
      std::filesystem::remove_all(folder);
      return nullptr;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, lifeline[0], STDIN_FILENO);
    const std::string log = (folder / "collector.log").string();
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    // Its own process group, so that Ctrl-C reaches the demo alone, which then stops the collector; and
    // none of the signals the demo holds back are held back in the collector.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(lifeline[0]);
    if (spawned != 0) {
      std::fprintf(stderr, "vdl-demo: cannot start %s: %s\n", VDL_COLLECTOR_PATH, std::strerror(spawned));
      close(lifeline[1]);
      std::filesystem::remove_all(folder);
      return nullptr;
    }
    auto collector = std::unique_ptr<Collector>(new Collector(pid, lifeline[1], folder));

    // Up once its first line, which names the address, is complete.
    constexpr std::string_view kListening = "listening on http://";
    for (const auto deadline = SteadyClock::now() + 10s;; std::this_thread::sleep_for(20ms)) {
      const std::string text = collector->log();
      const auto end = text.find('\n');
      if (text.starts_with(kListening) && end != std::string::npos) {
        const std::string address = text.substr(kListening.size(), end - kListening.size());
        const auto colon = address.rfind(':');
        collector->host_ = address.substr(0, colon);
        collector->port_ = std::atoi(address.c_str() + colon + 1);
        return collector;
      }
      int status = 0;
      if (waitpid(pid, &status, WNOHANG) == pid) {
        collector->pid_ = 0;
        std::fprintf(stderr, "vdl-demo: vdl-collector ended before listening:\n%s", text.c_str());
        return nullptr;
      }
      if (SteadyClock::now() > deadline) {
        std::fprintf(stderr, "vdl-demo: vdl-collector did not start listening in time:\n%s", text.c_str());
        return nullptr;
      }
    }
  }

  ~Collector() {
    close(lifeline_);
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      int status = 0;
      for (const auto deadline = SteadyClock::now() + 5s; waitpid(pid_, &status, WNOHANG) == 0;) {
        if (SteadyClock::now() > deadline) {
          kill(pid_, SIGKILL);
          waitpid(pid_, &status, 0);
          break;
        }
        std::this_thread::sleep_for(10ms);
      }
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  std::string baseUrl() const { return "http://" + host_ + ":" + std::to_string(port_); }
  // The page of a path on the collector, with the read token that signs a browser in.
  std::string signedInUrl(const std::string& path) const { return baseUrl() + path + "?token=" + readToken_; }

  // The body of a GET answered 200; nothing otherwise.
  std::optional<std::string> get(const std::string& path) const {
    httplib::Client client(host_, port_);
    client.set_connection_timeout(5s);
    client.set_read_timeout(30s);
    const auto result = client.Get(
        path, {{"X-Test-Control-Token", controlToken_}, {"Authorization", "Bearer " + readToken_}});
    if (!result || result->status != 200) return std::nullopt;
    return result->body;
  }

  std::string log() const {
    std::ifstream in(folder_ / "collector.log", std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

 private:
  Collector(pid_t pid, int lifeline, std::filesystem::path folder)
      : pid_(pid), lifeline_(lifeline), folder_(std::move(folder)) {}

  pid_t pid_;
  int lifeline_;
  std::filesystem::path folder_;
  std::string host_;
  int port_ = 0;
  inline static const std::string controlToken_ = randomToken();
  inline static const std::string readToken_ = randomToken();
};

// ---- the main thread ----

// Runs `work` on the main queue and waits for it: the script changes views only where the application
// would, on its main thread.
template <typename Work>
auto onMain(vdl::Queue& mainQueue, Work work) -> decltype(work()) {
  std::packaged_task<decltype(work())()> task(std::move(work));
  auto done = task.get_future();
  mainQueue.async([&task] { task(); });
  return done.get();
}

// ---- drawing ----

// A landscape painted pixel by pixel: a sky fading to the horizon, a sun, two rows of hills.
struct Scenery {
  platform::Color skyTop, skyBottom, sun, farHills, nearHills;
};

std::shared_ptr<const sim::SimImage> landscape(const Scenery& scenery, double phase) {
  constexpr std::uint32_t kWidth = 240, kHeight = 216;  // 120 × 108 points at 2 pixels a point
  platform::Bitmap bitmap{.width = kWidth, .height = kHeight, .bytesPerRow = kWidth * 4, .scale = 2};
  bitmap.pixels.resize(bitmap.bytesPerRow * kHeight);
  const auto mix = [](const platform::Color& a, const platform::Color& b, double t) {
    return platform::Color{a.red + (b.red - a.red) * t, a.green + (b.green - a.green) * t,
                           a.blue + (b.blue - a.blue) * t, 1};
  };
  for (std::uint32_t y = 0; y < kHeight; ++y) {
    for (std::uint32_t x = 0; x < kWidth; ++x) {
      const double u = x / double(kWidth), v = y / double(kHeight);
      platform::Color color = mix(scenery.skyTop, scenery.skyBottom, v);
      const double sunX = 0.7 - 0.3 * phase, sunY = 0.32;
      if (std::hypot(u - sunX, (v - sunY) * kHeight / kWidth) < 0.09) color = scenery.sun;
      if (v > 0.62 + 0.08 * std::sin(u * 7 + phase * 3)) color = scenery.farHills;
      if (v > 0.78 + 0.06 * std::sin(u * 11 + 2 + phase * 5))
        color = mix(scenery.nearHills, {0, 0, 0, 1}, v - 0.78);
      std::uint8_t* pixel = &bitmap.pixels[y * bitmap.bytesPerRow + x * 4];
      pixel[0] = static_cast<std::uint8_t>(std::lround(color.red * 255));
      pixel[1] = static_cast<std::uint8_t>(std::lround(color.green * 255));
      pixel[2] = static_cast<std::uint8_t>(std::lround(color.blue * 255));
      pixel[3] = 255;
    }
  }
  return sim::SimImage::fromBitmap(std::move(bitmap), {.scale = 2});
}

const std::vector<Scenery>& sceneries() {
  static const std::vector<Scenery> list{
      {{1.0, 0.62, 0.35, 1},
       {1.0, 0.85, 0.6, 1},
       {1.0, 0.95, 0.75, 1},
       {0.55, 0.35, 0.3, 1},
       {0.3, 0.2, 0.2, 1}},
      {{0.25, 0.55, 0.9, 1},
       {0.7, 0.88, 1.0, 1},
       {1.0, 1.0, 0.9, 1},
       {0.3, 0.55, 0.4, 1},
       {0.15, 0.4, 0.25, 1}},
      {{0.1, 0.3, 0.5, 1},
       {0.3, 0.7, 0.8, 1},
       {0.95, 0.95, 0.85, 1},
       {0.2, 0.45, 0.55, 1},
       {0.05, 0.3, 0.4, 1}},
      {{0.3, 0.25, 0.5, 1},
       {0.85, 0.6, 0.55, 1},
       {1.0, 0.85, 0.6, 1},
       {0.35, 0.3, 0.45, 1},
       {0.2, 0.15, 0.3, 1}},
  };
  return list;
}

platform::Point center(const platform::Rect& frame) {
  return {frame.origin.x + frame.size.width / 2, frame.origin.y + frame.size.height / 2};
}

template <typename View>
std::shared_ptr<View> placed(std::shared_ptr<View> view, platform::Rect frame) {
  view->setFrame(frame);
  return view;
}

std::shared_ptr<sim::SimView> box(platform::Rect frame, platform::Color fill, double cornerRadius = 0) {
  auto view = placed(sim::SimViewNode::make<sim::SimView>(), frame);
  view->setFill(fill, cornerRadius);
  return view;
}

std::shared_ptr<sim::SimTextView> label(std::string text, platform::Rect frame, sim::TextStyle style = {}) {
  return placed(sim::makeLabel(std::move(text), style), frame);
}

// A switch drawn as the platform draws one: a rounded track, green when on, and a white knob.
struct Switch {
  std::shared_ptr<sim::SimView> track;
  std::shared_ptr<sim::SimView> knob;
  platform::Rect frame;
  bool on = false;

  static constexpr platform::Color kOn{0.2, 0.78, 0.35, 1}, kOff{0.86, 0.86, 0.88, 1};

  static Switch make(platform::Point origin, bool on) {
    Switch made;
    made.frame = {origin, {51, 31}};
    made.track = box(made.frame, on ? kOn : kOff, 15.5);
    made.knob = box({{on ? 22.0 : 2.0, 2}, {27, 27}}, {1, 1, 1, 1}, 13.5);
    made.track->addSubview(made.knob);
    made.on = on;
    return made;
  }
};

// ---- the app ----

struct App {
  std::shared_ptr<sim::SimPlatform> device;
  std::shared_ptr<sim::SimWindow> window;

  std::shared_ptr<sim::SimView> signIn;
  std::shared_ptr<sim::SimTextView> email, password, oneTimeCode;
  std::shared_ptr<sim::SimView> signInButton;

  std::shared_ptr<sim::SimView> feed;
  std::shared_ptr<sim::SimView> list;
  std::vector<std::shared_ptr<sim::SimView>> likes;
  std::vector<std::shared_ptr<sim::SimImageView>> photos;
  std::shared_ptr<sim::SimVisualEffectView> navigationBar;
  std::shared_ptr<sim::SimView> tabBar;
  std::shared_ptr<sim::SimView> feedTabIcon, settingsTabIcon;

  std::shared_ptr<sim::SimView> settings;
  std::vector<Switch> switches;

  // Views added after the window was first shown get their presentation copies here.
  void commit() const { window->rootView()->simLayer()->commit(); }
};

constexpr platform::Rect kEmailField{{24, 330}, {342, 48}};
constexpr platform::Rect kPasswordField{{24, 418}, {342, 48}};
constexpr platform::Rect kCodeField{{24, 506}, {342, 48}};
constexpr platform::Rect kSignInButton{{24, 590}, {342, 52}};

void buildSignIn(App& app) {
  const sim::TextStyle caption{.color = {0.4, 0.4, 0.45, 1}, .fontSize = 14};
  const sim::TextStyle typed{.color = {0.1, 0.1, 0.15, 1}};
  const sim::TextStyle secret{.color = kSecretTextColor};
  const platform::Color fieldFill{1, 1, 1, 1};
  auto screen =
      sim::ScreenBuilder(*app.device)
          .window(kScreen)
          .container(kScreen, platform::Color{0.96, 0.96, 0.98, 1})
          .named("signIn")
          .box({{0, 0}, {390, 270}}, {0.11, 0.1, 0.24, 1})
          .box({{24, 84}, {52, 52}}, {0.35, 0.2, 0.9, 1}, 14)
          .label("Verdalune", {{24, 150}, {342, 44}}, {.color = kBrandColor, .fontSize = 34})
          .label("Sign in to pick up where you left off", {{24, 200}, {342, 24}},
                 {.color = {0.8, 0.8, 0.9, 1}, .fontSize = 16})
          .label("E-mail", {{28, 306}, {200, 20}}, caption)
          .box(kEmailField, fieldFill, 10)
          .textField("", kEmailField,
                     {.contentType = std::string(platform::textContentType::emailAddress), .style = typed})
          .named("email")
          .label("Password", {{28, 394}, {200, 20}}, caption)
          .box(kPasswordField, fieldFill, 10)
          .textField("", kPasswordField, {.secure = true, .style = secret})
          .named("password")
          .label("One-time code", {{28, 482}, {200, 20}}, caption)
          .box(kCodeField, fieldFill, 10)
          .textField("", kCodeField,
                     {.contentType = std::string(platform::textContentType::oneTimeCode), .style = secret})
          .named("code")
          .box(kSignInButton, {0.0, 0.48, 1.0, 1}, 12)
          .named("button")
          .label("Sign in", {{166, 604}, {100, 24}}, {.color = {1, 1, 1, 1}})
          .label("Forgot your password?", {{112, 664}, {200, 22}},
                 {.color = {0.0, 0.48, 1.0, 1}, .fontSize = 15})
          .end()
          .build();
  app.window = screen.window;
  app.signIn = screen.find<sim::SimView>("signIn");
  app.email = screen.find<sim::SimTextView>("email");
  app.password = screen.find<sim::SimTextView>("password");
  app.oneTimeCode = screen.find<sim::SimTextView>("code");
  app.signInButton = screen.find<sim::SimView>("button");
}

void buildFeed(App& app) {
  app.feed = placed(sim::SimViewNode::make<sim::SimView>(), {{0, 0}, {390, kTabBarTop}});
  app.feed->simLayer()->setBackgroundColor(platform::Color{0.95, 0.95, 0.97, 1});

  // The list scrolls its content, header included.
  app.list = placed(sim::SimViewNode::make<sim::SimView>(), {{0, 0}, {390, kTabBarTop}});
  app.list->simLayer()->update([](platform::LayerProperties& p) { p.masksToBounds = true; });
  app.feed->addSubview(app.list);
  auto header = sim::makeDiagonalGradientLayer(kHeader, {{0.35, 0.2, 0.9, 1}, {0.1, 0.6, 1, 1}});
  app.list->simLayer()->addSublayer(header);
  app.list->addSubview(
      label("Good morning, Alex", {{20, 140}, {350, 36}}, {.color = {1, 1, 1, 1}, .fontSize = 28}));
  app.list->addSubview(label("3 new stories from people you follow", {{20, 182}, {350, 22}},
                             {.color = {1, 1, 1, 0.85}, .fontSize = 15}));

  const std::vector<std::pair<std::string, std::string>> stories{
      {"Sunrise over the ridge", "Sam, 12 min ago"},
      {"Lakeside loop, 8 km", "Priya, 40 min ago"},
      {"Harbour at low tide", "Jonas, 1 h ago"},
      {"Evening in the valley", "Mei, 2 h ago"},
      {"Second coffee stop", "Alex, 3 h ago"},
      {"Pine forest trail", "Tomás, 5 h ago"},
      {"Windy cape", "Ines, yesterday"},
      {"Back home", "Sam, yesterday"},
  };
  for (std::size_t i = 0; i < stories.size(); ++i) {
    auto card = box({{12, 242 + 140.0 * i}, {366, 128}}, {1, 1, 1, 1}, 14);
    // Photos repeat, as the same picture does in a real feed.
    auto photo = sim::SimViewNode::make<sim::SimImageView>(landscape(sceneries()[i % 4], i % 4 * 0.3));
    photo->setFrame({{10, 10}, {120, 108}});
    photo->simLayer()->update([](platform::LayerProperties& p) {
      p.cornerRadius = 10;
      p.masksToBounds = true;
    });
    card->addSubview(photo);
    card->addSubview(label(stories[i].first, {{142, 16}, {216, 24}}));
    card->addSubview(
        label(stories[i].second, {{142, 44}, {216, 20}}, {.color = {0.5, 0.5, 0.55, 1}, .fontSize = 14}));
    auto like = box({{318, 82}, {36, 32}}, {0.92, 0.92, 0.94, 1}, 16);
    card->addSubview(like);
    app.list->addSubview(card);
    app.likes.push_back(like);
    app.photos.push_back(photo);
  }

  app.navigationBar = placed(sim::SimViewNode::make<sim::SimVisualEffectView>(), kNavigationBar);
  // A thin material, through which what scrolls under the bar shows, blurred.
  app.navigationBar->setBlurEffect(sim::blurStyle::systemThinMaterial);
  app.navigationBar->contentView()->addSubview(label("Feed", {{176, 62}, {60, 24}}));
  app.feed->addSubview(app.navigationBar);
}

void buildTabBar(App& app) {
  app.tabBar = box({{0, kTabBarTop}, {390, 83}}, {0.98, 0.98, 0.99, 1});
  app.tabBar->addSubview(box({{0, 0}, {390, 1}}, {0.85, 0.85, 0.87, 1}));
  app.feedTabIcon = box({{84, 10}, {26, 26}}, {0.0, 0.48, 1.0, 1}, 7);
  app.settingsTabIcon = box({{280, 10}, {26, 26}}, {0.6, 0.6, 0.63, 1}, 13);
  app.tabBar->addSubview(app.feedTabIcon);
  app.tabBar->addSubview(app.settingsTabIcon);
  app.tabBar->addSubview(label("Feed", {{79, 40}, {60, 18}}, {.color = {0.3, 0.3, 0.35, 1}, .fontSize = 12}));
  app.tabBar->addSubview(
      label("Settings", {{268, 40}, {70, 18}}, {.color = {0.3, 0.3, 0.35, 1}, .fontSize = 12}));
}

void buildSettings(App& app) {
  app.settings = placed(sim::SimViewNode::make<sim::SimView>(), {{0, 0}, {390, kTabBarTop}});
  app.settings->simLayer()->setBackgroundColor(platform::Color{0.95, 0.95, 0.97, 1});
  app.settings->addSubview(label("Settings", {{20, 96}, {300, 42}}, {.fontSize = 34}));
  const std::vector<std::pair<std::string, bool>> rows{{"Notifications", true},
                                                       {"Dark mode", false},
                                                       {"Location", false},
                                                       {"Autoplay videos", true},
                                                       {"Usage data", false}};
  const double top = 160, rowHeight = 52;
  app.settings->addSubview(box({{16, top}, {358, rowHeight * rows.size()}}, {1, 1, 1, 1}, 12));
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const double y = top + rowHeight * i;
    if (i > 0) app.settings->addSubview(box({{32, y}, {342, 0.5}}, {0.85, 0.85, 0.87, 1}));
    app.settings->addSubview(label(rows[i].first, {{32, y + 14}, {240, 24}}));
    Switch toggle = Switch::make({307, y + 10.5}, rows[i].second);
    app.settings->addSubview(toggle.track);
    app.switches.push_back(toggle);
  }
  app.settings->addSubview(label("Version 0.1.0", {{150, top + rowHeight * rows.size() + 24}, {120, 20}},
                                 {.color = {0.55, 0.55, 0.6, 1}, .fontSize = 13}));
}

// ---- the script ----

// Plays the app: pauses are in milliseconds of a 15-second run and scale to the length asked for. Each
// change runs on the main queue; touches are the window's, in window coordinates.
class Script {
 public:
  // `checkpoint` runs once signed in; `frame`, when given, saves what the screen shows under a name.
  Script(App& app, vdl::Queue& mainQueue, Progress& progress, double seconds,
         std::function<void()> checkpoint, std::function<bool(const std::string&)> frame = {})
      : app_(app),
        mainQueue_(mainQueue),
        progress_(progress),
        seconds_(seconds),
        scale_(seconds / 15),
        checkpoint_(std::move(checkpoint)),
        frame_(std::move(frame)) {}

  // False when the user interrupted it.
  bool run() {
    started_ = SteadyClock::now();
    phase_ = "sign-in";
    if (!pause(600)) return false;
    if (!tap(kEmailField) || !type(app_.email, kEmail, 45)) return false;
    if (!tap(kPasswordField) || !type(app_.password, kPassword, 70)) return false;
    if (!tap(kCodeField) || !type(app_.oneTimeCode, kOneTimeCode, 130)) return false;
    if (!still("sign-in")) return false;
    if (!pause(300) || !pressSignIn()) return false;
    // Signed in: what was recorded so far goes to the collector now.
    checkpoint_();

    phase_ = "feed";
    main([&] {
      app_.signIn->removeFromSuperview();
      app_.window->addSubview(app_.feed);
      app_.window->addSubview(app_.tabBar);
      app_.commit();
    });
    // The feed as it first shows, gradient header under the blurred bar: the moment a screenshot shows.
    if (!pause(600)) return false;
    feedShownAt_ = wallMilliseconds();
    if (!still("feed")) return false;
    if (!pause(700)) return false;
    if (!drag(0, 420, 12) || !still("feed-scrolled")) return false;
    if (!pause(400) || !tapLike(5)) return false;
    if (!pause(300) || !drag(420, 160, 8)) return false;
    if (!tapLike(2) || !pause(300)) return false;
    // A photo changes once it has loaded a better version.
    main([&] { app_.photos[1]->setImage(landscape(sceneries()[3], 0.9)); });
    if (!pause(500) || !still("feed-liked")) return false;

    phase_ = "settings";
    if (!tap({{268, kTabBarTop}, {70, 60}})) return false;
    main([&] {
      app_.feed->removeFromSuperview();
      app_.tabBar->removeFromSuperview();
      app_.window->addSubview(app_.settings);
      app_.window->addSubview(app_.tabBar);
      app_.feedTabIcon->setFill(platform::Color{0.6, 0.6, 0.63, 1}, 7);
      app_.settingsTabIcon->setFill(platform::Color{0.0, 0.48, 1.0, 1}, 13);
      app_.commit();
    });
    if (!pause(600)) return false;
    for (std::size_t index : {1, 2, 4, 1}) {
      if (!toggle(index) || !pause(450)) return false;
    }
    if (!still("settings")) return false;
    // Whatever time is left, the settings screen stays up.
    return pause(std::max(0.0, (seconds_ - elapsed()) * 1000 / scale_));
  }

  std::int64_t feedShownAt() const { return feedShownAt_; }

 private:
  template <typename Work>
  void main(Work work) {
    onMain(mainQueue_, std::move(work));
  }

  double elapsed() const { return std::chrono::duration<double>(SteadyClock::now() - started_).count(); }

  std::int64_t wallMilliseconds() const { return app_.device->app()->clock()->wallMilliseconds(); }

  // With frames asked for: the screen as it stands, saved between two stretches in which nothing changes.
  // A capture runs every 100 ms, so after the first stretch the recording has caught up with the screen,
  // and the replay's last event at or before the frame's time shows it; the waits do not shrink with a
  // shorter run.
  bool still(const std::string& name) {
    if (!frame_) return true;
    constexpr double kStillMilliseconds = 250;
    return pause(kStillMilliseconds / scale_) && frame_(name) && pause(kStillMilliseconds / scale_);
  }

  // Waits, keeping the progress line current; false once the user pressed Ctrl-C.
  bool pause(double milliseconds) {
    const auto until =
        SteadyClock::now() + std::chrono::microseconds(std::llround(milliseconds * scale_ * 1000));
    while (true) {
      progress_.update(elapsed(), seconds_, phase_);
      sigset_t stop;
      sigemptyset(&stop);
      sigaddset(&stop, SIGINT);
      sigaddset(&stop, SIGTERM);
      const timespec now{0, 0};
      if (sigtimedwait(&stop, nullptr, &now) > 0) return false;
      const auto left = until - SteadyClock::now();
      if (left <= 0s) return true;
      std::this_thread::sleep_for(std::min<SteadyClock::duration>(left, 50ms));
    }
  }

  void touch(platform::TouchPhase phase, platform::Point at) {
    main([&] { app_.window->touch(phase, {at}); });
  }

  bool tap(const platform::Rect& target) {
    touch(platform::TouchPhase::began, center(target));
    if (!pause(90)) return false;
    touch(platform::TouchPhase::ended, center(target));
    return pause(150);
  }

  // Typing: the field's text grows a character at a time.
  bool type(const std::shared_ptr<sim::SimTextView>& field, std::string_view text, double perCharacter) {
    for (std::size_t length = 1; length <= text.size(); ++length) {
      main([&] { field->setText(std::string(text.substr(0, length))); });
      if (!pause(perCharacter)) return false;
    }
    return pause(200);
  }

  bool pressSignIn() {
    touch(platform::TouchPhase::began, center(kSignInButton));
    // The button dims while pressed, animated.
    main([&] {
      app_.signInButton->simLayer()->beginAnimation([](platform::LayerProperties& p) { p.opacity = 0.6f; });
    });
    if (!pause(150)) return false;
    touch(platform::TouchPhase::ended, center(kSignInButton));
    main([&] { app_.signInButton->simLayer()->endAnimation(); });
    return pause(350);
  }

  // A finger dragging the list from one scroll offset to another; the content follows the finger.
  bool drag(double from, double to, int steps) {
    const double x = 200, startY = from < to ? 620 : 200;
    touch(platform::TouchPhase::began, {x, startY});
    for (int step = 1; step <= steps; ++step) {
      const double offset = from + (to - from) * step / steps;
      main([&] {
        app_.window->touch(platform::TouchPhase::moved, {{x, startY - (offset - from)}});
        app_.list->scrollTo({0, offset});
      });
      if (!pause(60)) return false;
    }
    touch(platform::TouchPhase::ended, {x, startY - (to - from)});
    return pause(100);
  }

  // The like button of a card turns red; where the card is on screen depends on the scroll offset.
  bool tapLike(std::size_t card) {
    const double offset = scrollOffset();
    const platform::Rect onScreen{{12 + 318, 242 + 140.0 * card + 82 - offset}, {36, 32}};
    touch(platform::TouchPhase::began, center(onScreen));
    if (!pause(90)) return false;
    touch(platform::TouchPhase::ended, center(onScreen));
    main([&] { app_.likes[card]->setFill(platform::Color{1.0, 0.23, 0.19, 1}, 16); });
    return pause(150);
  }

  double scrollOffset() {
    return onMain(mainQueue_, [&] { return app_.list->simLayer()->properties().bounds.origin.y; });
  }

  // A tap on a switch; its knob slides across in a few frames and the track changes colour.
  bool toggle(std::size_t index) {
    Switch& target = app_.switches[index];
    const platform::Rect onScreen = target.frame;
    touch(platform::TouchPhase::began, center(onScreen));
    if (!pause(80)) return false;
    touch(platform::TouchPhase::ended, center(onScreen));
    target.on = !target.on;
    for (int step = 1; step <= 4; ++step) {
      const double x = target.on ? 2 + 5 * step : 22 - 5 * step;
      main([&] {
        target.knob->setFrame({{x, 2}, {27, 27}});
        if (step == 2) target.track->setFill(target.on ? Switch::kOn : Switch::kOff, 15.5);
      });
      if (!pause(40)) return false;
    }
    return true;
  }

  App& app_;
  vdl::Queue& mainQueue_;
  Progress& progress_;
  const double seconds_;
  const double scale_;
  std::function<void()> checkpoint_;
  std::function<bool(const std::string&)> frame_;
  SteadyClock::time_point started_;
  std::string phase_;
  std::int64_t feedShownAt_ = 0;
};

// ---- after the recording ----

struct SessionNumbers {
  std::int64_t blocks = 0, events = 0;
  std::optional<std::int64_t> firstTimestamp, lastTimestamp;
};

// The session as GET /sessions describes it; nothing until the collector has stored one of its blocks.
std::optional<SessionNumbers> sessionNumbers(const Collector& collector, std::int64_t sessionId) {
  const auto body = collector.get("/sessions");
  if (!body) return std::nullopt;
  rapidjson::Document document;
  document.Parse(body->data(), body->size());
  if (document.HasParseError() || !document.IsArray()) return std::nullopt;
  for (const auto& session : document.GetArray()) {
    if (!session.IsObject() || std::string_view(session["device_id"].GetString()) != kDeviceId ||
        session["session_id"].GetInt64() != sessionId)
      continue;
    SessionNumbers numbers{.blocks = session["block_count"].GetInt64(),
                           .events = session["event_count"].GetInt64()};
    if (session["first_timestamp"].IsInt64()) numbers.firstTimestamp = session["first_timestamp"].GetInt64();
    if (session["last_timestamp"].IsInt64()) numbers.lastTimestamp = session["last_timestamp"].GetInt64();
    return numbers;
  }
  return std::nullopt;
}

bool hasBlockFiles(const std::filesystem::path& storage) {
  std::error_code error;
  for (auto it = std::filesystem::recursive_directory_iterator(storage, error);
       !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    if (it->is_regular_file() && it->path().extension() == ".replay") return true;
  }
  return false;
}

// Waits until every block has left the device and the collector's count has stopped growing.
std::optional<SessionNumbers> waitForUpload(const Collector& collector, const std::filesystem::path& storage,
                                            std::int64_t sessionId) {
  std::optional<SessionNumbers> last;
  int steady = 0;
  for (const auto deadline = SteadyClock::now() + 90s; SteadyClock::now() < deadline;) {
    std::this_thread::sleep_for(200ms);
    const auto numbers = sessionNumbers(collector, sessionId);
    const bool same = numbers && last && numbers->blocks == last->blocks && numbers->events == last->events;
    steady = same && !hasBlockFiles(storage) ? steady + 1 : 0;
    last = numbers;
    if (steady >= 3) return last;
  }
  std::fprintf(stderr, "vdl-demo: blocks are still waiting on the device after 90 s\n");
  return last;
}

struct Uploads {
  std::int64_t requests = 0;
  std::int64_t bytes = 0;
  std::vector<std::string> acceptedBodies;  // the track bodies answered 200, in arrival order
};

Uploads uploads(const std::string& requestsJson) {
  Uploads result;
  rapidjson::Document document;
  document.Parse(requestsJson.data(), requestsJson.size());
  if (document.HasParseError() || !document.IsArray()) return result;
  for (const auto& request : document.GetArray()) {
    if (std::string_view(request["path"].GetString()) != "/sessions/v2/track") continue;
    const std::string_view body(request["body"].GetString(), request["body"].GetStringLength());
    ++result.requests;
    result.bytes += static_cast<std::int64_t>(body.size());
    if (request["status"].GetInt() == 200) result.acceptedBodies.emplace_back(body);
  }
  return result;
}

std::string megabytes(double bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f MB", bytes / 1e6);
  return text;
}

bool writeFile(const std::filesystem::path& path, std::string_view text) {
  std::ofstream out(path, std::ios::binary);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  return static_cast<bool>(out);
}

std::string jsonString(std::string_view text) {
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

std::string jsonRect(const platform::Rect& rect) {
  std::ostringstream text;
  text << "{\"x\":" << rect.origin.x << ",\"y\":" << rect.origin.y << ",\"width\":" << rect.size.width
       << ",\"height\":" << rect.size.height << "}";
  return text.str();
}

std::string jsonColor(const platform::Color& color) {
  return "[" + std::to_string(std::lround(color.red * 255)) + "," +
         std::to_string(std::lround(color.green * 255)) + "," +
         std::to_string(std::lround(color.blue * 255)) + "]";
}

// What the collector received and stored, for a person or a test to look at: the raw requests, the
// accepted upload bodies one file each, the stored events, and what the demo did (demo.json).
bool writeReceived(const std::filesystem::path& out, const Collector& collector, std::int64_t sessionId,
                   const std::string& requestsJson, const Uploads& received, std::int64_t feedShownAt) {
  std::error_code error;
  std::filesystem::remove_all(out / "uploads", error);
  std::filesystem::create_directories(out / "uploads", error);
  // A folder that was there already keeps its mode unless told.
  for (const auto& folder : {out, out / "uploads"}) {
    if (!error) std::filesystem::permissions(folder, std::filesystem::perms::owner_all, error);
  }
  if (error) {
    std::fprintf(stderr, "vdl-demo: cannot make %s: %s\n", (out / "uploads").c_str(),
                 error.message().c_str());
    return false;
  }
  const std::string session = std::string("/sessions/") + kDeviceId + "/" + std::to_string(sessionId);
  bool written = writeFile(out / "requests.json", requestsJson);
  written = written && writeFile(out / "sessions.json", collector.get("/sessions").value_or("[]"));
  written = written && writeFile(out / "events.json", collector.get(session + "/events").value_or("[]"));
  for (std::size_t i = 0; i < received.acceptedBodies.size(); ++i) {
    char name[48];
    std::snprintf(name, sizeof name, "upload-%04zu.json", i + 1);
    written = written && writeFile(out / "uploads" / name, received.acceptedBodies[i]);
  }
  const std::string demo = std::string("{\n") + "  \"apiKey\": " + jsonString(kApiKey) + ",\n" +
                           "  \"deviceId\": " + jsonString(kDeviceId) + ",\n" +
                           "  \"sessionId\": " + std::to_string(sessionId) + ",\n" +
                           "  \"replayUrl\": " + jsonString(collector.signedInUrl(session)) + ",\n" +
                           "  \"secrets\": [" + jsonString(kPassword) + ", " + jsonString(kOneTimeCode) +
                           "],\n" + "  \"secretColor\": " + jsonColor(kSecretTextColor) + ",\n" +
                           "  \"brandColor\": " + jsonColor(kBrandColor) + ",\n" +
                           "  \"feedShownAt\": " + std::to_string(feedShownAt) + ",\n" +
                           "  \"navigationBar\": " + jsonRect(kNavigationBar) + ",\n" +
                           "  \"header\": " + jsonRect(kHeader) + "\n}\n";
  written = written && writeFile(out / "demo.json", demo);
  if (!written) std::fprintf(stderr, "vdl-demo: cannot write into %s\n", out.c_str());
  return written;
}

// What the device's screen showed at named moments, for setting beside the replay: OUT/frames/NAME.png at
// the screen's scale, and OUT/frames.json listing them in order with the time of each on the recording's
// clock.
class DeviceFrames {
 public:
  DeviceFrames(std::filesystem::path out, App& app, vdl::Queue& mainQueue)
      : out_(std::move(out)), app_(app), mainQueue_(mainQueue) {}

  // Composites the screen on the main queue, where the views are, and writes it here.
  bool take(const std::string& name) {
    auto [time, picture] = onMain(mainQueue_, [&] {
      return std::pair{app_.device->app()->clock()->wallMilliseconds(), sim::composite(*app_.device)};
    });
    std::error_code error;
    std::filesystem::create_directories(out_ / "frames", error);
    const std::string file = "frames/" + name + ".png";
    if (error || !sim::writePng(picture, out_ / file)) {
      std::fprintf(stderr, "vdl-demo: cannot write %s\n", (out_ / file).c_str());
      return false;
    }
    const double scale = picture.scale;
    entries_.push_back("{\"name\": " + jsonString(name) + ", \"file\": " + jsonString(file) +
                       ", \"scale\": " + std::to_string(static_cast<int>(scale)) +
                       ", \"time\": " + std::to_string(time) + "}");
    return true;
  }

  bool writeList() const {
    std::string list = "[\n";
    for (std::size_t i = 0; i < entries_.size(); ++i)
      list += "  " + entries_[i] + (i + 1 < entries_.size() ? ",\n" : "\n");
    return writeFile(out_ / "frames.json", list + "]\n");
  }

 private:
  std::filesystem::path out_;
  App& app_;
  vdl::Queue& mainQueue_;
  std::vector<std::string> entries_;
};

void waitForInterrupt() {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  int signal = 0;
  sigwait(&stop, &signal);
}

}  // namespace

int main(int argc, char** argv) {
  const auto arguments = parseArguments(argc, argv);
  if (!arguments) return 2;
  // Everything the demo writes (the recorded screens, the collector's database and log, --out) is for
  // this user only.
  umask(077);

  // Ctrl-C is taken when the demo asks for it, never in the middle of a change: held back here, before
  // any thread starts, so every thread holds it back too.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  auto collector = Collector::start(arguments->port);
  if (!collector) return 1;
  std::fprintf(stderr, "vdl-demo: collector listening on %s\n", collector->baseUrl().c_str());

  Progress progress;
  auto logger = std::make_shared<DemoLogger>(progress);
  // The application's main thread: one serial queue, drained by its own thread. Everything that touches
  // views runs there, and so do the library's capture and its recording decisions.
  auto mainQueue = std::make_shared<vdl::SerialQueue>("main");
  auto application = std::make_shared<sim::SimApplication>(sim::SimApplication::Options{}, mainQueue,
                                                           std::make_shared<vdl::SystemClock>());
  auto device = std::make_shared<sim::SimPlatform>(application);
  App app{.device = device};
  onMain(*mainQueue, [&] {
    buildSignIn(app);
    buildFeed(app);
    buildTabBar(app);
    buildSettings(app);
  });

  // Each run is a session of its own: its id is the time it started, as an analytics session's is.
  const std::int64_t sessionId = application->clock()->wallMilliseconds();
  auto replay =
      vdl::SessionReplay::make(kApiKey, kDeviceId, sessionId, /*optOut=*/false, /*sampleRate=*/1.0f,
                               /*webviewMappings=*/{}, logger, vdl::ServerZone::US, vdl::MaskLevel::medium,
                               /*enableRemoteConfig=*/true, device, {.serverUrl = collector->baseUrl()});
  logger->showWarnings = true;
  replay->start();

  std::optional<DeviceFrames> frames;
  if (arguments->frames) frames.emplace(*arguments->out, app, *mainQueue);
  Script script(
      app, *mainQueue, progress, arguments->seconds, [&] { replay->flush(); },
      frames ? std::function<bool(const std::string&)>(
                   [&](const std::string& name) { return frames->take(name); })
             : nullptr);
  const bool completed = script.run();
  progress.finish();

  // Capture stops on the main queue; once the queue has run the stop, the recording is closed and sent.
  replay->stop();
  onMain(*mainQueue, [] {});
  replay->flush();
  if (!completed) {
    std::fprintf(stderr, "vdl-demo: interrupted\n");
    return 130;
  }
  std::fprintf(stderr, "vdl-demo: uploading the last blocks\n");
  const std::filesystem::path storage =
      application->applicationSupportDirectory() / "com.verdalune.sessionreplay";
  const auto numbers = waitForUpload(*collector, storage, sessionId);
  const std::string requestsJson = collector->get("/_control/requests").value_or("[]");
  const Uploads received = uploads(requestsJson);
  if (!numbers || numbers->blocks == 0) {
    std::fprintf(stderr, "vdl-demo: the collector received nothing; its log:\n%s", collector->log().c_str());
    return 1;
  }
  if (arguments->out &&
      !writeReceived(*arguments->out, *collector, sessionId, requestsJson, received, script.feedShownAt()))
    return 1;
  if (frames && !frames->writeList()) {
    std::fprintf(stderr, "vdl-demo: cannot write into %s\n", arguments->out->c_str());
    return 1;
  }

  const double minutes =
      numbers->firstTimestamp && numbers->lastTimestamp
          ? std::max<double>(1, static_cast<double>(*numbers->lastTimestamp - *numbers->firstTimestamp)) /
                60000
          : arguments->seconds / 60;
  std::printf("replay: %s\n",
              collector->signedInUrl("/sessions/" + std::string(kDeviceId) + "/" + std::to_string(sessionId))
                  .c_str());
  std::printf(
      "recorded %.1f s: %lld events in %lld blocks, %s uploaded in %lld requests (%s per minute of "
      "recording)\n",
      minutes * 60, static_cast<long long>(numbers->events), static_cast<long long>(numbers->blocks),
      megabytes(static_cast<double>(received.bytes)).c_str(), static_cast<long long>(received.requests),
      megabytes(received.bytes / minutes).c_str());
  std::fflush(stdout);

  if (arguments->serve && isatty(STDIN_FILENO) == 1) {
    std::fprintf(stderr, "vdl-demo: open the address above in a browser; Ctrl-C stops the collector\n");
    waitForInterrupt();
    std::fprintf(stderr, "\nvdl-demo: stopping\n");
  }
  return 0;
}
