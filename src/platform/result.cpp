#include "platform/result.h"

#include <cstring>

namespace vigilo {

std::string errnoMessage(const std::string& what, int err) {
  return what + ": " + std::strerror(err);
}

}  // namespace vigilo
