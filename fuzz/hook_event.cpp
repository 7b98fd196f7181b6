// What `vigilo event <agent>` does with a hook's standard input, and what
// the app then makes of the event file it leaves: decoded, folded into the
// session's state and re-encoded.
#include "agents/agent_events.h"
#include "fuzz_target.h"
#include "platform/notifications.h"

namespace {

// The hook's post goes nowhere: no app listens here.
class NoNotifications final : public vigilo::Notifications {
 public:
  vigilo::Result observe(const std::string&, std::function<void(std::string)>) override { return vigilo::Result::ok(); }
  void stopObserving() override {}
  vigilo::Result post(const std::string&, const std::string&) override { return vigilo::Result::ok(); }
};

}  // namespace

VIGILO_FUZZ_TARGET(hook_event) {
  using namespace vigilo;
  const std::string& folder = vigilo::fuzz::scratchFolder("hook_event");
  NoNotifications quiet;
  const Time now = 1'790'000'000;
  for (const char* agent : {"claude-code", "codex", "gemini"}) {
    AgentEvents::record(folder, agent, input, now, nullptr, 0, &quiet);
  }
  for (const AgentEvent& event : AgentEvents::load(folder, now + 1)) {
    (void)AgentEvents::state(event.session, {event}, now - 60, now + 1);
    (void)AgentEvents::decode(AgentEvents::encode(event));
  }
  // An event file planted by hand is read the same way.
  if (auto event = AgentEvents::decode(input)) (void)AgentEvents::encode(*event);
  (void)AgentEvents::sanitiseSessionId(input);
}
