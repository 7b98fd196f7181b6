#include "platform/fd_stream.h"

#include <cerrno>
#include <unistd.h>

namespace vigilo {

FdStreamBuf::int_type FdStreamBuf::underflow() {
  if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
  for (;;) {
    const ssize_t n = ::read(fd_, in_.data(), in_.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return traits_type::eof();
    setg(in_.data(), in_.data(), in_.data() + n);
    return traits_type::to_int_type(*gptr());
  }
}

FdStreamBuf::int_type FdStreamBuf::overflow(int_type ch) {
  if (!outReady_) {
    setp(out_.data(), out_.data() + out_.size());
    outReady_ = true;
  } else if (!flushOut()) {
    return traits_type::eof();
  }
  if (!traits_type::eq_int_type(ch, traits_type::eof())) {
    *pptr() = traits_type::to_char_type(ch);
    pbump(1);
  }
  return traits_type::not_eof(ch);
}

bool FdStreamBuf::flushOut() {
  if (!outReady_) return true;
  const char* p = pbase();
  const char* end = pptr();
  while (p < end) {
    const ssize_t n = ::write(fd_, p, static_cast<std::size_t>(end - p));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      // The reader is gone: drop what is left so the caller sees the failure
      // once instead of writing into it forever.
      setp(out_.data(), out_.data() + out_.size());
      return false;
    }
    p += n;
  }
  setp(out_.data(), out_.data() + out_.size());
  return true;
}

}  // namespace vigilo
