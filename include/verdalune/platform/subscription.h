#pragma once

namespace verdalune::sessionreplay::platform {

// What the platform hands back for a callback it keeps calling (state notifications, layer change
// observation): the way to stop it.
//
// cancel() stops the deliveries: once it returns, no new call of the callback starts. Cancelling twice,
// or after the observed object is gone, does nothing. Destroying the handle cancels it, so a holder
// that is released stops hearing without a second step. A handle never keeps the observed object alive.
class Subscription {
 public:
  virtual ~Subscription() = default;
  virtual void cancel() = 0;
};

}  // namespace verdalune::sessionreplay::platform
