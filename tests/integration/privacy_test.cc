// What masking hides never leaves the device. Every view that a mask level, an explicit setting or a
// block range must hide gets text and pixels of its own (strings nothing else uses, one colour nothing
// else paints); the app is recorded through the public recorder into a real collector, and neither the
// block files on disk nor anything the collector received may hold any of it. A control recording with
// the same content left visible proves the search finds it.
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <webp/decode.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/recording_logger.h"
#include "convert/css_format.h"
#include "integration/collector_process.h"
#include "integration/drive.h"
#include "storage/block_store.h"
#include "storage/versioned_event.h"
#include "support/base64.h"
#include "verdalune/blocking.h"
#include "verdalune/session_replay.h"
#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"

namespace verdalune::sessionreplay {
namespace {

using testing::CollectorProcess;
using testing::driveUntil;

constexpr std::string_view kApiKey = "privacy-key-5c81f2e9";
constexpr platform::Color kSecretColor{0.91, 0.13, 0.62, 1};  // (232, 33, 158): nothing else is this pink
constexpr std::int64_t kSessionId = 1'700'000'000'000;

// Everything a recording may be searched in: the decoded events, and the raw bytes they came from.
struct Evidence {
  std::vector<std::string> rawTexts;  // block files, request bodies, queries and headers
  std::vector<std::string> events;    // event JSON texts, unpacked
};

// The pixels of every image in the events: how many are near the secret colour, and how many images
// there were (a recording without images would prove nothing).
struct PixelSearch {
  std::size_t images = 0;
  std::size_t imagesWithSecret = 0;
  std::size_t secretPixels = 0;
};

bool nearSecret(const std::uint8_t* rgba) {
  constexpr int kTolerance = 40;  // lossy WebP moves colours a little; text edges blend toward white
  const int target[3] = {232, 33, 158};
  for (int channel = 0; channel < 3; ++channel) {
    if (std::abs(rgba[channel] - target[channel]) > kTolerance) return false;
  }
  return rgba[3] > 200;
}

// The recorder encodes every picture as WebP; anything else fails the search rather than pass unread.
std::size_t countSecretPixels(const std::vector<std::uint8_t>& bytes, std::string_view mimeType) {
  int width = 0, height = 0;
  std::uint8_t* rgba =
      mimeType == "image/webp" ? WebPDecodeRGBA(bytes.data(), bytes.size(), &width, &height) : nullptr;
  if (rgba == nullptr) {
    ADD_FAILURE() << "an image the search cannot read could hide anything: " << mimeType;
    return 0;
  }
  std::size_t count = 0;
  for (std::size_t i = 0; i < std::size_t(width) * std::size_t(height) * 4; i += 4)
    count += nearSecret(&rgba[i]);
  WebPFree(rgba);
  return count;
}

PixelSearch searchPixels(const Evidence& evidence) {
  static const std::regex kDataUrl(R"(data:(image/[a-z]+);base64,([A-Za-z0-9+/=]+))");
  PixelSearch search;
  for (std::string text : evidence.events) {
    // The events' JSON escapes the slashes of MIME types and base64.
    for (std::size_t at; (at = text.find("\\/")) != std::string::npos;) text.erase(at, 1);
    for (auto it = std::sregex_iterator(text.begin(), text.end(), kDataUrl); it != std::sregex_iterator();
         ++it) {
      const auto bytes = base64Decode((*it)[2].str());
      if (!bytes) {
        ADD_FAILURE() << "an image whose data is not base64";
        continue;
      }
      ++search.images;
      const std::size_t found = countSecretPixels(*bytes, (*it)[1].str());
      search.secretPixels += found;
      search.imagesWithSecret += found > 0;
    }
  }
  return search;
}

void addEvents(Evidence& evidence, const std::vector<std::string>& packedEvents) {
  for (const auto& packed : packedEvents) {
    auto event = unpackEvent(packed);
    ASSERT_TRUE(event) << "a stored event that does not unpack: " << describe(event.error());
    evidence.events.push_back(std::move(*event));
  }
}

// The block files of the recorder's folder as they are now, read and decoded.
void addBlockFiles(Evidence& evidence, const std::filesystem::path& supportDirectory) {
  const auto folder = supportDirectory / "com.verdalune.sessionreplay" / std::string(kApiKey);
  if (!std::filesystem::exists(folder)) return;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream file(entry.path(), std::ios::binary);
    std::stringstream bytes;
    bytes << file.rdbuf();
    evidence.rawTexts.push_back(bytes.str());
    addEvents(evidence, packedEventsFromBlock(bytes.str()));
  }
}

std::size_t blockFileCount(const std::filesystem::path& supportDirectory) {
  const auto folder = supportDirectory / "com.verdalune.sessionreplay" / std::string(kApiKey);
  if (!std::filesystem::exists(folder)) return 0;
  return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
}

// Every track and config request: the raw parts, and the events of the upload bodies. The API key
// belongs in exactly two places, the Authorization header and the config query, so those stay out of
// the evidence and everything else is searched for it.
void addRequests(Evidence& evidence, const std::vector<testing::ReceivedRequest>& requests) {
  for (const auto& request : requests) {
    for (const auto& [name, value] : request.headers) {
      if (name == "Authorization") {
        EXPECT_EQ(value, "Bearer " + std::string(kApiKey));
      } else {
        evidence.rawTexts.push_back(value);
      }
    }
    if (request.path == "/config") {
      EXPECT_NE(request.query.find("api_key=" + std::string(kApiKey)), std::string::npos);
    } else {
      evidence.rawTexts.push_back(request.query);
    }
    evidence.rawTexts.push_back(request.body);
    if (request.path == "/config" || request.status != 200) continue;

    rapidjson::Document body;
    body.Parse(request.body.data(), request.body.size());
    ASSERT_TRUE(body.IsObject() && body.HasMember("events") && body["events"].IsArray());
    std::vector<std::string> packed;
    for (const auto& value : body["events"].GetArray())
      packed.emplace_back(value.GetString(), value.GetStringLength());
    addEvents(evidence, packed);
  }
}

// Where the planted content goes: cells of a grid over the window, so every view is on screen.
class Grid {
 public:
  platform::Rect next() {
    const platform::Rect cell{10 + (index_ % 3) * 125.0, 10 + (index_ / 3) * 46.0, 120, 40};
    ++index_;
    return cell;
  }

 private:
  int index_ = 0;
};

// The app: an ordinary greeting and picture that may be recorded, and around them everything `level`
// must hide (or, for the control, the same kinds of content left visible).
class SecretScreen {
 public:
  SecretScreen(sim::SimPlatform& device, MaskLevel level, bool leaveVisible) : device_(device) {
    builder_.window({0, 0, 390, 844});
    builder_.label("Welcome back", grid_.next());
    builder_.image(sim::SimImage::fromBitmap(sim::solidBitmap(60, 60, {0.1, 0.3, 0.9, 1})), grid_.next());
    if (leaveVisible) {
      builder_.label(secret(), grid_.next(), secretStyle());
      secretCard(grid_.next());
      builder_.end();
    } else {
      plantMasked(level);
    }
    screen_ = builder_.build();
    applySettings();
  }

  // New secrets in every secret text and picture, as a user typing and a feed refreshing would make.
  void change() {
    for (const auto& view : screen_.views) {
      if (auto text = std::dynamic_pointer_cast<sim::SimTextView>(view); text && isSecret(text->text())) {
        text->setText(secret());
      } else if (auto image = std::dynamic_pointer_cast<sim::SimImageView>(view);
                 image && secretImages_.contains(image->image().get())) {
        image->setImage(secretImage());
      }
    }
  }

  // Every secret string shown so far.
  const std::vector<std::string>& secrets() const { return secrets_; }

 private:
  std::string secret() {
    secrets_.push_back("Qx" + std::to_string(7301 + secrets_.size()) + "zv");
    return secrets_.back();
  }
  bool isSecret(const std::string& text) const { return std::ranges::find(secrets_, text) != secrets_.end(); }
  std::shared_ptr<const platform::Image> secretImage() {
    auto image = sim::SimImage::fromBitmap(sim::solidBitmap(40, 40, kSecretColor));
    secretImages_.insert(image.get());
    return image;
  }
  static sim::TextStyle secretStyle() { return {.color = kSecretColor, .fontSize = 30}; }
  static std::shared_ptr<sim::SimLayer> secretSurfaceLayer(
      std::string className = "CALayer", platform::LayerKind kind = platform::LayerKind::plain) {
    auto surface = sim::SimSurface::bgra(120, 40);
    surface->fill(kSecretColor);
    auto layer = std::make_shared<sim::SimLayer>(std::move(className), kind);
    layer->setContents(platform::Contents(std::shared_ptr<platform::Surface>(surface)));
    return layer;
  }
  static std::shared_ptr<sim::SimLayer> secretBitmapLayer(std::string className) {
    auto layer = std::make_shared<sim::SimLayer>(std::move(className));
    layer->setContents(platform::Contents(
        std::make_shared<const platform::Bitmap>(sim::solidBitmap(120, 40, kSecretColor))));
    return layer;
  }

  void secretField(sim::TextFieldOptions options) {
    options.style = secretStyle();
    builder_.textField(secret(), grid_.next(), std::move(options));
  }

  // A container (ended by the caller) with a secret background, label, picture and surface.
  void secretCard(platform::Rect frame, const std::shared_ptr<platform::View>& marker = nullptr,
                  std::string name = "") {
    builder_.container(frame, kSecretColor).named(std::move(name));
    if (marker) builder_.view(std::dynamic_pointer_cast<sim::SimViewNode>(marker), {0, 0, 0, 0});
    builder_.label(secret(), {0, 0, 120, 40}, secretStyle());
    builder_.image(secretImage(), {0, 0, 40, 40});
    builder_.layer(secretSurfaceLayer(), {60, 0, 40, 40});
  }

  void plantMasked(MaskLevel level) {
    namespace type = platform::textContentType;
    // Hidden at every level: secure entry and the content types that carry personal data, ...
    secretField({.secure = true});
    for (std::string_view contentType :
         {type::telephoneNumber, type::emailAddress, type::creditCardNumber, type::password,
          type::newPassword, type::oneTimeCode, type::creditCardName, type::creditCardGivenName,
          type::creditCardMiddleName, type::creditCardFamilyName, type::creditCardType,
          type::creditCardExpiration, type::creditCardSecurityCode, type::creditCardExpirationYear,
          type::creditCardExpirationMonth}) {
      secretField({.contentType = std::string(contentType)});
    }
    // ... maps, pages, video and GPU drawing, whatever they show.
    builder_.map(grid_.next()).named("map");
    builder_.webView(grid_.next(), "https://example.com/account").named("web");
    builder_.layer(secretSurfaceLayer("AVPlayerLayer", platform::LayerKind::videoPlayer), grid_.next());
    auto gpu = std::make_shared<sim::SimLayer>("CAMetalLayer", platform::LayerKind::gpuDrawing);
    gpu->setNextDrawable(sim::solidBitmap(120, 40, kSecretColor));
    builder_.layer(gpu, grid_.next());

    // By level: all text input from medium on, labels too at conservative.
    if (level >= MaskLevel::medium) {
      secretField({});
      builder_.textView(secret(), grid_.next(), secretStyle());
    }
    if (level == MaskLevel::conservative) builder_.label(secret(), grid_.next(), secretStyle());

    // Explicitly blocked: a card, with a part inside it that asks to be shown (the card wins).
    secretCard(grid_.next(), nullptr, "blocked card");
    builder_.container({0, 0, 120, 40}).named("unblocked inside");
    builder_.label(secret(), {0, 0, 120, 40}, secretStyle());
    builder_.end().end();

    // Block ranges: a closed one over two siblings, then one never closed that runs to the last sibling.
    auto& ui = *device_.ui();
    secretCard(grid_.next(), makeBlockMarkerView(ui, BlockMarkerType::begin, true));
    builder_.end();
    secretCard(grid_.next());
    builder_.end();
    builder_.container(grid_.next());
    builder_.view(
        std::dynamic_pointer_cast<sim::SimViewNode>(makeBlockMarkerView(ui, BlockMarkerType::end, true)),
        {0, 0, 0, 0});
    builder_.label("Shown again", {0, 0, 120, 40});
    builder_.end();
    secretCard(grid_.next(), makeBlockMarkerView(ui, BlockMarkerType::begin, true));
    builder_.end();
    secretCard(grid_.next());
    builder_.end();
  }

  // What an app sets on views it has made, and what pages and maps draw once they are on screen.
  void applySettings() {
    if (auto card = screen_.find<sim::SimViewNode>("blocked card")) setVdl_isBlocked(*card->view(), true);
    if (auto inside = screen_.find<sim::SimViewNode>("unblocked inside"))
      setVdl_isBlocked(*inside->view(), false);
    if (auto map = screen_.find<sim::SimViewNode>("map"))
      map->simLayer()->addSublayer(secretBitmapLayer("MKTileLayer"));
    if (auto web = screen_.find<sim::SimViewNode>("web"))
      web->simLayer()->addSublayer(secretBitmapLayer("WKContentLayer"));
  }

  sim::SimPlatform& device_;
  sim::ScreenBuilder builder_{device_};
  Grid grid_;
  sim::Screen screen_;
  std::vector<std::string> secrets_;
  std::set<const platform::Image*> secretImages_;
};

std::string configBody(MaskLevel level) {
  return R"({"configs":{"sessionReplay":{"sr_ios_privacy_config":{"defaultMaskLevel":")" +
         std::string(describe(level)) +
         R"("},"sr_ios_sampling_config":{"capture_enabled":true,"sample_rate":1}}}})";
}

struct Recording {
  Evidence evidence;
  std::vector<std::string> secrets;
  std::size_t storedEvents = 0;
};

// Records the secret screen for three seconds of the device's time (changing every secret half-way),
// flushes, reads the block files before they go, and waits until the collector has every block.
Recording record(MaskLevel level, bool leaveVisible) {
  Recording result;
  auto collector = CollectorProcess::start(
      {.apiKeys = {std::string(kApiKey)}, .configs = {{std::string(kApiKey), configBody(level)}}});
  if (!collector) {
    ADD_FAILURE() << "the collector did not start";
    return result;
  }
  auto device = std::make_shared<sim::SimPlatform>();
  SecretScreen screen(*device, level, leaveVisible);
  auto& app = *device->app();
  auto replay = SessionReplay::make(
      std::string(kApiKey), "privacy-device", kSessionId, false, 1.0f, {},
      std::make_shared<RecordingLogger>(), ServerZone::US, level, true, device,
      {.serverUrl = collector->baseUrl(),
       .makeQueue = [queue = app.manualQueue()](std::string_view) { return std::shared_ptr<Queue>(queue); }});
  replay->start();
  for (int frame = 0; frame < 30; ++frame) {
    if (frame == 15) screen.change();
    app.advance(std::chrono::milliseconds(100));
    app.runUntilIdle();
  }
  replay->flush();
  app.runUntilIdle();
  // Uploads finish only when the test runs the queue again, so the block files are all still here.
  addBlockFiles(result.evidence, app.applicationSupportDirectory());
  EXPECT_FALSE(result.evidence.events.empty()) << "the block files were read before upload";
  EXPECT_TRUE(driveUntil(*app.manualQueue(), [&] {
    return blockFileCount(app.applicationSupportDirectory()) == 0;
  })) << "every block reaches the collector";
  replay->stop();
  app.runUntilIdle();

  const auto requests = collector->requests();
  EXPECT_TRUE(std::ranges::any_of(requests, [](const auto& request) { return request.path == "/config"; }));
  addRequests(result.evidence, requests);
  result.storedEvents = collector->sessionEvents("privacy-device", kSessionId).size();
  result.secrets = screen.secrets();
  return result;
}

std::size_t textsHolding(const Evidence& evidence, std::string_view needle) {
  std::size_t count = 0;
  for (const auto* texts : {&evidence.rawTexts, &evidence.events}) {
    for (const auto& text : *texts) count += text.find(needle) != std::string::npos;
  }
  return count;
}

class PrivacyTest : public ::testing::TestWithParam<MaskLevel> {};

TEST_P(PrivacyTest, NothingMaskedReachesTheDiskOrTheCollector) {
  const Recording recording = record(GetParam(), false);
  ASSERT_GT(recording.storedEvents, 0u);
  ASSERT_GE(recording.secrets.size(), 20u);
  for (const auto& secret : recording.secrets)
    EXPECT_EQ(textsHolding(recording.evidence, secret), 0u) << secret;
  EXPECT_EQ(textsHolding(recording.evidence, css::color(kSecretColor)), 0u) << "a masked view's background";
  const PixelSearch pixels = searchPixels(recording.evidence);
  EXPECT_GT(pixels.images, 0u) << "the greeting and picture are recorded";
  EXPECT_EQ(pixels.secretPixels, 0u);
  EXPECT_EQ(textsHolding(recording.evidence, kApiKey), 0u) << "the API key only where the checks above allow";
}

INSTANTIATE_TEST_SUITE_P(EveryLevel, PrivacyTest,
                         ::testing::Values(MaskLevel::light, MaskLevel::medium, MaskLevel::conservative),
                         [](const auto& info) { return std::string(describe(info.param)); });

// The same search over the same kind of content left visible finds it, so the passes above mean something.
TEST(PrivacyControlTest, TheSearchFindsContentThatIsNotMasked) {
  const Recording recording = record(MaskLevel::light, true);
  EXPECT_GE(searchPixels(recording.evidence).imagesWithSecret, 3u) << "text, a picture and a surface";
  EXPECT_GT(textsHolding(recording.evidence, css::color(kSecretColor)), 0u);
}

}  // namespace
}  // namespace verdalune::sessionreplay
