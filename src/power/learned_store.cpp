#include "power/learned_store.h"

#include <cmath>

#include <nlohmann/json.hpp>

#include "platform/files.h"

namespace vigilo {
namespace {

using json = nlohmann::json;

// The file holds three numbers; anything much bigger is not ours.
constexpr std::size_t kLearnedFileLimit = 64 * 1024;
constexpr double kLargestDraw = 1000.0;

std::optional<double> numberBetween(const json& j, const char* key, double above, double below) {
  auto it = j.find(key);
  if (it == j.end() || !it->is_number()) return std::nullopt;
  const double v = it->get<double>();
  if (!std::isfinite(v) || !(v > above) || !(v < below)) return std::nullopt;
  return v;
}

}  // namespace

LearnedStore::LearnedStore(std::string appFolder) : path_(std::move(appFolder) + "/" + std::string(kLearnedFile)) {}

LearnedPower LearnedStore::load() const {
  LearnedPower out;
  const auto text = readWholeFile(path_, kLearnedFileLimit);
  if (!text) return out;
  const json j = json::parse(*text, nullptr, /*allow_exceptions=*/false);
  if (!j.is_object()) return out;
  out.openDraw = numberBetween(j, "openDraw", 0.0, kLargestDraw);
  out.closedDraw = numberBetween(j, "closedDraw", 0.0, kLargestDraw);
  out.fullWh = numberBetween(j, "fullWh", 20.0, 140.0);
  return out;
}

Result LearnedStore::save(const LearnedPower& values) const {
  json j = json::object();
  if (values.openDraw && std::isfinite(*values.openDraw)) j["openDraw"] = *values.openDraw;
  if (values.closedDraw && std::isfinite(*values.closedDraw)) j["closedDraw"] = *values.closedDraw;
  if (values.fullWh && std::isfinite(*values.fullWh)) j["fullWh"] = *values.fullWh;
  return writeFileDurably(path_, dumpJson(j, 2) + "\n");
}

}  // namespace vigilo
