#include "remote/relay_client.h"

#include "platform/threads.h"

#include <curl/curl.h>
#include <pthread.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

namespace vigilo {
namespace {

constexpr double kPublishTimeout = 15;
constexpr long kSilentLimit = 120;
constexpr double kMaxBackoff = 60;
constexpr std::size_t kMaxLine = 256 * 1024;
constexpr double kRelaySleptGap = 20;

void initCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct CurlFree {
  void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
using CurlHandle = std::unique_ptr<CURL, CurlFree>;
struct SlistFree {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
using HeaderList = std::unique_ptr<curl_slist, SlistFree>;

size_t discard(char*, size_t size, size_t n, void*) { return size * n; }

bool plainId(const std::string& id) {
  if (id.empty() || id.size() > 64) return false;
  for (unsigned char c : id) {
    if (!std::isalnum(c)) return false;
  }
  return true;
}

double wallSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// The state of one stream while curl feeds it.
struct Stream {
  std::string topic;
  std::string buffer;
  std::string since;
  double sinceTime = 0;
  bool opened = false;
  bool skipping = false;  // inside a line too long to be a message
  double lastProgress = 0;
  bool woke = false;  // the machine slept during this connection
  // A failure was reported and not yet its end.
  bool reported = false;
  const RelayClient::Log* log = nullptr;
  std::string base;
  const RelayClient::Deliver* deliver = nullptr;
  const std::atomic<bool>* stopping = nullptr;

  void line(std::string_view text) {
    const RelayLine l = readRelayLine(text, topic, wallSeconds());
    if (l.kind == RelayLine::Kind::Open) {
      opened = true;
      if (reported) (*log)("phone relay reachable again at " + base);
      reported = false;
    }
    if (l.kind != RelayLine::Kind::Message) return;
    RelayMessage m = l.message;
    // The resume point only moves forward, and only to a time the relay
    // could truly have given.
    if (plainId(m.id)) {
      since = m.id;
    } else if (m.time > sinceTime) {
      sinceTime = m.time;
      since = std::to_string(static_cast<long long>(m.time));
    }
    // A message for another topic is not one we asked for.
    if (m.topic == topic) (*deliver)(std::move(m));
  }
};

size_t onData(char* data, size_t size, size_t n, void* user) {
  auto* s = static_cast<Stream*>(user);
  s->buffer.append(data, size * n);
  // A line longer than any ntfy message can be is skipped, not kept whole:
  // failing the stream would read it again at every reconnect.
  if (s->buffer.size() > kMaxLine && s->buffer.find('\n') == std::string::npos) {
    s->buffer.clear();
    s->skipping = true;
    return size * n;
  }
  if (s->skipping) {
    const std::size_t nl = s->buffer.find('\n');
    if (nl == std::string::npos) return size * n;
    s->buffer.erase(0, nl + 1);
    s->skipping = false;
  }
  std::size_t start = 0;
  for (std::size_t nl; (nl = s->buffer.find('\n', start)) != std::string::npos; start = nl + 1) {
    // Nothing a relay sends may unwind through curl's C frames or end the
    // thread: a line that still manages to throw is skipped.
    try {
      s->line(std::string_view(s->buffer).substr(start, nl - start));
    } catch (const std::exception& e) {
      (*s->log)(std::string("skipped a line from the phone relay that couldn't be read (") + e.what() + ")");
    }
  }
  s->buffer.erase(0, start);
  return size * n;
}

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  auto* s = static_cast<Stream*>(user);
  if (s->stopping->load()) return 1;
  // curl calls this about once a second. A far longer gap on the wall clock
  // means the machine slept: its connection is likely dead without knowing
  // it, and a check-in lasts seconds, so read afresh at once.
  const double now = wallSeconds();
  const bool slept = s->lastProgress > 0 && now - s->lastProgress > kRelaySleptGap;
  s->lastProgress = now;
  if (slept) s->woke = true;
  return slept ? 1 : 0;
}

int stopProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<const std::atomic<bool>*>(user)->load() ? 1 : 0;
}

}  // namespace

double saneRelayTime(double time, double now) {
  // Seconds after 1970 fit a long long many times over; anything else is not
  // a time a relay could have stamped.
  if (!std::isfinite(time) || time <= 0 || time > now + kRelayClockSlack) return 0;
  return time;
}

RelayLine readRelayLine(std::string_view text, const std::string& topic, double now) {
  RelayLine out;
  const auto j = nlohmann::json::parse(text, nullptr, false);
  if (!j.is_object()) return out;
  const auto str = [&](const char* key) -> const std::string* {
    auto it = j.find(key);
    return it != j.end() && it->is_string() ? it->get_ptr<const std::string*>() : nullptr;
  };
  const std::string* event = str("event");
  if (!event) return out;
  if (*event == "open") out.kind = RelayLine::Kind::Open;
  if (*event != "message") return out;
  RelayMessage& m = out.message;
  const std::string* lineTopic = str("topic");
  if (j.contains("topic") && !lineTopic) return out;
  m.topic = lineTopic ? *lineTopic : topic;
  const std::string* message = str("message");
  if (!message) return out;
  m.message = *message;
  if (const std::string* id = str("id")) m.id = *id;
  if (auto it = j.find("time"); it != j.end() && it->is_number()) m.time = saneRelayTime(it->get<double>(), now);
  out.kind = RelayLine::Kind::Message;
  return out;
}

std::string relayTopicUrl(const std::string& base, const std::string& topic) {
  std::string b = base;
  while (!b.empty() && b.back() == '/') b.pop_back();
  return b + "/" + topic;
}

namespace {
bool post(const std::string& url, const std::string& body, const std::vector<std::string>& headers, double timeout,
          const std::atomic<bool>* stopping) {
  initCurlOnce();
  CurlHandle curl(curl_easy_init());
  if (!curl) return false;
  HeaderList list;
  for (const std::string& h : headers) list.reset(curl_slist_append(list.release(), h.c_str()));
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_POST, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.data());
  curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, list.get());
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(timeout * 1000));
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, discard);
  curl_easy_setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "http,https");
  if (stopping) {
    curl_easy_setopt(curl.get(), CURLOPT_XFERINFOFUNCTION, stopProgress);
    curl_easy_setopt(curl.get(), CURLOPT_XFERINFODATA, stopping);
    curl_easy_setopt(curl.get(), CURLOPT_NOPROGRESS, 0L);
  }
  if (curl_easy_perform(curl.get()) != CURLE_OK) return false;
  long code = 0;
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &code);
  return code >= 200 && code < 300;
}
}  // namespace

bool relayPost(const std::string& url, const std::string& body, const std::vector<std::string>& headers,
               double timeout) {
  return post(url, body, headers, timeout, nullptr);
}

RelayClient::RelayClient(std::string base, std::vector<std::string> topics, double since, Deliver deliver, Log log)
    : base_(std::move(base)), deliver_(std::move(deliver)), log_(std::move(log)) {
  initCurlOnce();
  for (const std::string& topic : topics) {
    threads_.emplace_back([this, topic, since] {
      blockSignalsInThisThread();
      guarded([&] { readTopic(topic, since); });
    });
  }
  threads_.emplace_back([this] {
    blockSignalsInThisThread();
    guarded([&] { publishLoop(); });
  });
}

RelayClient::~RelayClient() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (std::thread& t : threads_) t.join();
}

void RelayClient::publish(std::string topic, std::string body, std::function<void(bool)> done) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    outgoing_.push_back({std::move(topic), std::move(body), std::move(done)});
  }
  wake_.notify_all();
}

bool RelayClient::pause(double seconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  return !wake_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return stopping_.load(); });
}

void RelayClient::guarded(const std::function<void()>& work) {
  // The relay is untrusted and its threads are ours alone: whatever goes
  // wrong in them is said and retried, and never reaches the engine.
  while (!stopping_) {
    try {
      work();
      return;
    } catch (const std::exception& e) {
      log_(std::string("the phone relay connection failed (") + e.what() + "); starting it again");
    }
    if (!pause(kMaxBackoff)) return;
  }
}

void RelayClient::readTopic(const std::string& topic, double since) {
  Stream stream;
  stream.topic = topic;
  // A start the caller could not mean reads from now rather than from all
  // the relay holds, or from nowhere.
  const double now = wallSeconds();
  stream.sinceTime = since > 0 && saneRelayTime(since, now) > 0 ? since : now;
  stream.since = std::to_string(static_cast<long long>(std::floor(stream.sinceTime)));
  stream.deliver = &deliver_;
  stream.stopping = &stopping_;
  stream.log = &log_;
  stream.base = base_;
  double backoff = 1;
  while (!stopping_) {
    CurlHandle curl(curl_easy_init());
    if (!curl) {
      if (!pause(kMaxBackoff)) return;
      continue;
    }
    const std::string url = relayTopicUrl(base_, topic) + "/json?since=" + stream.since;
    stream.buffer.clear();
    stream.skipping = false;
    stream.opened = false;
    stream.lastProgress = 0;
    stream.woke = false;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, onData);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &stream);
    curl_easy_setopt(curl.get(), CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(curl.get(), CURLOPT_XFERINFODATA, &stream);
    curl_easy_setopt(curl.get(), CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT, 15L);
    curl_easy_setopt(curl.get(), CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_LOW_SPEED_TIME, kSilentLimit);
    curl_easy_setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "http,https");
    const CURLcode rc = curl_easy_perform(curl.get());
    if (stopping_) return;
    long code = 0;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &code);
    if (stream.woke) {
      backoff = 1;
      continue;
    }
    if (stream.opened) {
      // It worked for a while: the relay closed the stream, start over soon.
      backoff = 1;
    } else if (!stream.reported) {
      log_("can't read the phone relay at " + base_ + " (" +
           (rc != CURLE_OK ? std::string(curl_easy_strerror(rc)) : "HTTP " + std::to_string(code)) + "); retrying");
      stream.reported = true;
    }
    if (!pause(backoff)) return;
    backoff = std::min(backoff * 2, kMaxBackoff);
  }
}

void RelayClient::publishLoop() {
  while (true) {
    Outgoing next;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !outgoing_.empty(); });
      if (stopping_) return;
      next = std::move(outgoing_.front());
      outgoing_.pop_front();
    }
    bool sent = false;
    for (int attempt = 0; attempt < 3 && !sent && !stopping_; ++attempt) {
      if (attempt > 0 && !pause(attempt * 2.0)) return;
      sent = post(relayTopicUrl(base_, next.topic), next.body, {}, kPublishTimeout, &stopping_);
    }
    if (!sent) log_("couldn't publish a phone reply to " + base_);
    if (next.done) next.done(sent);
  }
}

}  // namespace vigilo
