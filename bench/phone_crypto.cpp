// What sealing and opening phone messages costs, per message: the handler
// opens each command with every paired phone's key until one fits.
#include <benchmark/benchmark.h>

#include "remote/crypto.h"

namespace {

using namespace vigilo;

const std::string kCommand =
    R"({"n":"8c5b6f0e-0a4e-4f3c-9d1e-2b7a9c1d4e5f","cmd":"panel","args":{},"t":1800000000,"dev":"Pixel"})";

void BM_Seal(benchmark::State& state) {
  const PhoneKey key = *newPhoneKey();
  const std::string topic = topicFor(key, kCommandLabel);
  for (auto _ : state) benchmark::DoNotOptimize(seal(kCommand, topic, key));
}
BENCHMARK(BM_Seal);

void BM_Open(benchmark::State& state) {
  const PhoneKey key = *newPhoneKey();
  const std::string topic = topicFor(key, kCommandLabel);
  const std::string box = *seal(kCommand, topic, key);
  for (auto _ : state) benchmark::DoNotOptimize(open(box, topic, key));
}
BENCHMARK(BM_Open);

// A box that fails authentication, as with every key but the right one.
void BM_OpenWrongKey(benchmark::State& state) {
  const PhoneKey key = *newPhoneKey();
  const PhoneKey other = *newPhoneKey();
  const std::string topic = topicFor(key, kCommandLabel);
  const std::string box = *seal(kCommand, topic, key);
  for (auto _ : state) benchmark::DoNotOptimize(open(box, topic, other));
}
BENCHMARK(BM_OpenWrongKey);

void BM_Topic(benchmark::State& state) {
  const PhoneKey key = *newPhoneKey();
  for (auto _ : state) benchmark::DoNotOptimize(topicFor(key, kReplyLabel));
}
BENCHMARK(BM_Topic);

}  // namespace

BENCHMARK_MAIN();
