#pragma once

#include <array>
#include <streambuf>

namespace vigilo {

// A stream buffer over a file descriptor. The command-line tool uses it for
// its standard streams instead of std::cin and std::cout: with a static C++
// runtime, naming those sets up every standard stream and the locale tables
// at the start of each run, which an agent's hook pays for on every prompt.
class FdStreamBuf : public std::streambuf {
 public:
  explicit FdStreamBuf(int fd) : fd_(fd) {}
  FdStreamBuf(const FdStreamBuf&) = delete;
  FdStreamBuf& operator=(const FdStreamBuf&) = delete;
  ~FdStreamBuf() override { flushOut(); }

 protected:
  int_type underflow() override;
  int_type overflow(int_type ch) override;
  int sync() override { return flushOut() ? 0 : -1; }

 private:
  bool flushOut();

  int fd_;
  std::array<char, 65536> in_{};
  std::array<char, 65536> out_{};
  bool outReady_ = false;
};

}  // namespace vigilo
