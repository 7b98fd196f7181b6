// Lines of a relay's JSON stream: the relay is not trusted, so whatever it
// sends must leave the reader able to go on.
#include "fuzz_target.h"
#include "remote/relay_client.h"

#include <string>

VIGILO_FUZZ_TARGET(relay_line) {
  using namespace vigilo;
  const std::string topic = "vigilo-0123456789abcdef01234567";
  for (std::size_t start = 0; start <= input.size();) {
    std::size_t nl = input.find('\n', start);
    if (nl == std::string_view::npos) nl = input.size();
    // The stream turns a message's time into its resume point.
    const RelayLine line = readRelayLine(input.substr(start, nl - start), topic, 1.8e9);
    if (line.message.time > 0) (void)std::to_string(static_cast<long long>(line.message.time));
    start = nl + 1;
  }
}
