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

const char* modeRequestText(Mode mode) {
  switch (mode) {
    case Mode::Off:
      return "off";
    case Mode::Auto:
      return "auto";
    case Mode::On:
      return "always";
  }
  return "auto";
}

}  // namespace vigilo
