#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
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

// One line of a topic's JSON stream as read for `topic`: its `event`
// ("open", "keepalive", "message", ...), the message it carries, and the
// point to read on from after it ("" leaves the point where it was).
// Nothing when the line is not a JSON object.
struct RelayLine {
  std::string event;
  RelayMessage message;
  std::string since;
};
std::optional<RelayLine> parseRelayLine(const std::string& text, const std::string& topic);

// The address of `topic` on the relay at `base` ("https://ntfy.sh" with or
// without a trailing "/").
std::string relayTopicUrl(const std::string& base, const std::string& topic);

// Blocks every signal in the calling thread: signals belong to the main
// loop, and a helper thread that left one unblocked would take it with its
// default action (SIGTERM would end the app before it puts things back).
void blockSignalsInThisThread();

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
