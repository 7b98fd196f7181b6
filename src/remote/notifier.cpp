#include "remote/notifier.h"

#include "platform/threads.h"

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>

#include "engine/engine.h"
#include "remote/relay_client.h"

namespace vigilo {

// One thread that runs the alert jobs in order.
struct Notifier::Worker {
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<std::function<void()>> jobs;
  bool stopping = false;
  bool busy = false;
  std::thread thread;

  Worker() {
    thread = std::thread([this] {
      blockSignalsInThisThread();
      std::unique_lock<std::mutex> lock(mutex);
      while (true) {
        changed.wait(lock, [this] { return stopping || !jobs.empty(); });
        if (jobs.empty()) return;
        auto job = std::move(jobs.front());
        jobs.pop_front();
        busy = true;
        lock.unlock();
        job();
        lock.lock();
        busy = false;
        changed.notify_all();
      }
    });
  }
  ~Worker() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      stopping = true;
    }
    changed.notify_all();
    thread.join();
  }
  void add(std::function<void()> job) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      jobs.push_back(std::move(job));
    }
    changed.notify_all();
  }
  void flush() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return jobs.empty() && !busy; });
  }
};

std::string busyFor(int minutes) {
  if (minutes >= 90) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f hours", minutes / 60.0);
    return std::string("Busy for ") + buf;
  }
  return "Busy for " + std::to_string(minutes) + " min";
}

std::string finishedTitle(const std::string& name, bool processGone, const std::string& state) {
  if (processGone) return name + " closed";
  if (state == "finished") return name + " finished";
  if (state == "is still waiting" || state == "waiting") return name + " is waiting for you";
  return name + " went idle";
}

Notifier::Notifier(Engine& engine, std::unique_ptr<AlertOutlets> outlets, std::function<std::string()> relay,
                   std::function<void(const std::string&)> say)
    : engine_(engine),
      outlets_(std::move(outlets)),
      relay_(std::move(relay)),
      say_(std::move(say)),
      worker_(std::make_unique<Worker>()) {
  // Learnt off the loop's thread: a missing daemon can take the bus's
  // time-out to tell.
  if (AlertOutlets* outlets = outlets_.get()) {
    worker_->add([this, outlets] {
      auto why = outlets->notesUnavailable();
      std::lock_guard<std::mutex> lock(notesMutex_);
      notesUnavailable_ = std::move(why);
    });
  } else {
    notesUnavailable_ = "This app has no desktop to show notifications on.";
  }
}

Notifier::~Notifier() { worker_.reset(); }

void Notifier::finished(const std::string& name, int minutes, bool processGone, const std::string& state) {
  std::string body = busyFor(minutes);
  if (engine_.lidClosed()) body += " with the lid closed";
  body += ".";
  if (const auto& b = engine_.battery()) {
    body += " Battery at " + std::to_string(static_cast<int>(b->percent)) + "%.";
  }
  deliver(finishedTitle(name, processGone, state), body);
}

void Notifier::needsYou(const std::string& name) {
  deliver(name + " is waiting for you", "It asked for your approval. It stays awake for up to " +
                                            std::to_string(engine_.config().quietMinutes) +
                                            " min if nothing else starts.");
}

void Notifier::deliver(const std::string& title, const std::string& body) {
  const Config& c = engine_.config();
  if (say_) say_("alert: " + title + ": " + body);
  AlertOutlets* outlets = outlets_.get();
  if (c.doneChime && outlets) {
    const std::string sound = c.chimeSound;
    worker_->add([outlets, sound] { outlets->play(sound); });
  }
  if (c.notifyDone && outlets) worker_->add([outlets, title, body] { outlets->note(title, body); });
  if (!c.ntfyTopic.empty()) push(c.ntfyTopic, title, body);
}

void Notifier::push(const std::string& topic, const std::string& title, const std::string& body,
                    std::function<void(bool)> done) {
  const std::string url = relayTopicUrl(relay_ ? relay_() : std::string("https://ntfy.sh"), topic);
  // A header is one line: an agent's name must not add headers of its own.
  std::string oneLine = title;
  for (char& c : oneLine) {
    if (c == '\r' || c == '\n' || c == '\0') c = ' ';
  }
  worker_->add([url, title = oneLine, body, done] {
    // A failed push is not retried: the alert is lost, nothing else changes.
    const bool sent = relayPost(url, body, {"Title: " + title, "Tags: laptop"}, 15);
    if (done) done(sent);
  });
}

void Notifier::note(const std::string& title, const std::string& body) {
  AlertOutlets* outlets = outlets_.get();
  if (!outlets) return;
  worker_->add([this, outlets, title, body] {
    std::optional<std::string> why;
    if (!outlets->note(title, body)) {
      why = outlets->notesUnavailable();
      if (!why) why = "The notification daemon refused the notification.";
    }
    std::lock_guard<std::mutex> lock(notesMutex_);
    notesUnavailable_ = std::move(why);
  });
}

std::optional<std::string> Notifier::notesUnavailable() const {
  std::lock_guard<std::mutex> lock(notesMutex_);
  return notesUnavailable_;
}

void Notifier::flush() { worker_->flush(); }

}  // namespace vigilo
