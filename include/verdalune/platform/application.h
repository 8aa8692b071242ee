#pragma once

#include <compare>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "verdalune/platform/subscription.h"
#include "verdalune/support/clock.h"
#include "verdalune/support/defaults_store.h"
#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay::platform {

// The version of the operating system, for the branches that depend on it (frame-rate ranges from
// 15.0, content worlds from 14.0, the credit-card content types from 17.0).
struct OsVersion {
  int major = 0;
  int minor = 0;
  int patch = 0;

  auto operator<=>(const OsVersion&) const = default;

  bool isAtLeast(int wantedMajor, int wantedMinor = 0) const {
    return *this >= OsVersion{wantedMajor, wantedMinor, 0};
  }
};

// The application's foreground transitions, as the platform announces them.
enum class ActivityChange {
  didBecomeActive,
  willResignActive,
};

// The services of the application the library lives in.
//
// Unless a member says otherwise it may be called from any thread, and what it returns does not change
// for the life of the process.
class Application {
 public:
  virtual ~Application() = default;

  // The queue of the application's main thread: every read of layers, views, windows and web views,
  // the recording decision and every platform callback of capture run there. The host drains it; the
  // library only posts to it. Never null.
  virtual std::shared_ptr<Queue> mainQueue() = 0;

  // Whether the application is active (in the foreground and receiving events). Main queue only.
  virtual bool isActive() const = 0;

  // Calls `onChange` on the main queue for every foreground transition from now on, until the returned
  // handle is cancelled or destroyed. The platform keeps `onChange` until then, so a callback that
  // refers to its owner holds it weakly. Main queue only.
  virtual std::unique_ptr<Subscription> observeActivity(std::function<void(ActivityChange)> onChange) = 0;

  // The application's bundle identifier; absent when the application has none.
  virtual std::optional<std::string> bundleIdentifier() const = 0;

  // The version text of this library as the application ships it (its bundle's short version);
  // absent when the platform cannot tell.
  virtual std::optional<std::string> libraryVersion() const = 0;

  virtual OsVersion osVersion() const = 0;

  // The application's standard store of small persisted values. Never null; thread-safe. It must keep its
  // values across launches: block numbering lives there, and an app restarted within a session would
  // otherwise number blocks again from 1, and the collector keeps only the first block of each number.
  virtual std::shared_ptr<DefaultsStore> defaultsStore() = 0;

  // The folder for the application's own support files; the library keeps its blocks under it. It may
  // not exist yet: the library creates what it needs.
  virtual std::filesystem::path applicationSupportDirectory() const = 0;

  // Where all time is read: event timestamps from the wall clock, timers and the display link's
  // spacing from the monotonic one. Never null; thread-safe.
  virtual std::shared_ptr<const Clock> clock() const = 0;
};

}  // namespace verdalune::sessionreplay::platform
