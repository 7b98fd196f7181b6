#include "ui/hotkey.h"

namespace vigilo {

Mode nextMode(Mode mode) {
  switch (mode) {
    case Mode::Off:
      return Mode::Auto;
    case Mode::Auto:
      return Mode::On;
    case Mode::On:
      return Mode::Off;
  }
  return Mode::Auto;
}

}  // namespace vigilo
