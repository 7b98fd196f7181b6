#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace vigilo {

// One message read from an ntfy topic.
struct RelayMessage {
  std::string topic;
  std::string message;
  std::string id;
  double time = 0;
};

// How far ahead of this machine's clock a relay's time may be and still be
// believed; a later time is the relay's nonsense, not a point to resume from.
inline constexpr double kRelayClockSlack = 60;

// A relay time that may serve as a point to resume reading from: the time
// itself when it is a number of seconds after 1970 and at most
// `kRelayClockSlack` past `now`; 0 (none) for a negative, non-finite or
// far-future one.
double saneRelayTime(double time, double now);

// One line of an ntfy JSON stream, read without trusting it: a line that is
// not a JSON object, or whose fields have the wrong types, is `Other`.
struct RelayLine {
  enum class Kind { Other, Open, Message };
  Kind kind = Kind::Other;
  RelayMessage message;  // for `Message`; `time` passed through `saneRelayTime`
};
RelayLine readRelayLine(std::string_view text, const std::string& topic, double now);

// The address of `topic` on the relay at `base` ("https://ntfy.sh" with or
// without a trailing "/").
std::string relayTopicUrl(const std::string& base, const std::string& topic);

// Sends one ntfy message with its headers ("Title: …"). Blocks up to
// `timeout` seconds; true for a 2xx answer. Safe from any thread.
bool relayPost(const std::string& url, const std::string& body, const std::vector<std::string>& headers,
               double timeout);

// Reads ntfy topics as JSON streams and publishes to them, each on threads
// of its own so that the caller's loop never waits for the network. Every
// callback comes on one of those threads: the owner posts to its own loop.
//
// Each topic is read with "GET <base>/<topic>/json?since=<point>", starting
// from `since` (Unix seconds) and then from the id of the last message seen,
// so a dropped connection or a relay that went away and came back loses
// nothing it still holds. Failures are retried with a back-off from 1 s
// doubling to 60 s; a stream silent for 120 s is dropped and read again, and
// one that lived through a sleep of the machine is read afresh at once.
class RelayClient {
 public:
  using Deliver = std::function<void(RelayMessage)>;
  // A line for the app's output when the connection state changes.
  using Log = std::function<void(std::string)>;

  RelayClient(std::string base, std::vector<std::string> topics, double since, Deliver deliver, Log log);
  // Stops reading and publishing; waits for the threads (about a second).
  ~RelayClient();
  RelayClient(const RelayClient&) = delete;
  RelayClient& operator=(const RelayClient&) = delete;

  // Queues one message; `done` (may be empty) gets whether the relay took it.
  // A failed publish is tried twice more.
  void publish(std::string topic, std::string body, std::function<void(bool)> done = nullptr);

 private:
  // Runs `work` until it returns or the client stops, starting it again a
  // minute after it throws.
  void guarded(const std::function<void()>& work);
  void readTopic(const std::string& topic, double since);
  void publishLoop();
  // Waits `seconds` or until stopped; false when stopped.
  bool pause(double seconds);

  struct Outgoing {
    std::string topic;
    std::string body;
    std::function<void(bool)> done;
  };

  std::string base_;
  Deliver deliver_;
  Log log_;
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Outgoing> outgoing_;
  std::vector<std::thread> threads_;
};

}  // namespace vigilo
