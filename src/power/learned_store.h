#pragma once

#include <string>
#include <string_view>

#include "platform/result.h"
#include "power/power_sensor.h"

namespace vigilo {

// "learned.json" in the app folder: the learned draws and battery size,
// kept across launches where the platform has no user-defaults store.
// Keys "openDraw", "closedDraw" (W) and "fullWh" (Wh); a key is present
// only once its value has been learned.
inline constexpr std::string_view kLearnedFile = "learned.json";

class LearnedStore {
 public:
  explicit LearnedStore(std::string appFolder);

  // What was stored. Lenient: a missing or damaged file, or a key that is
  // missing, not a number, not finite or implausible (a draw outside
  // 0 to 1000 W, a battery outside 20 to 140 Wh) reads as not learned.
  // Never throws.
  LearnedPower load() const;
  // Replaces the file durably. The app folder must exist.
  Result save(const LearnedPower& values) const;

  std::string path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace vigilo
