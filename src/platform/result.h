#pragma once

#include <string>
#include <utility>

namespace vigilo {

// The one cheap result type that crosses the platform boundary. A failure
// carries a plain-English sentence fit to show a person; `code` is the exit
// status or errno behind it when there is one.
class Result {
 public:
  static Result ok() { return Result(true, {}, 0); }
  static Result fail(std::string message, int code = -1) { return Result(false, std::move(message), code); }

  bool isOk() const { return ok_; }
  explicit operator bool() const { return ok_; }
  const std::string& message() const { return message_; }
  int code() const { return code_; }

 private:
  Result(bool ok, std::string message, int code) : ok_(ok), message_(std::move(message)), code_(code) {}
  bool ok_;
  std::string message_;
  int code_;
};

// Turns an errno value into "what: reason" in one place.
std::string errnoMessage(const std::string& what, int err);

}  // namespace vigilo
