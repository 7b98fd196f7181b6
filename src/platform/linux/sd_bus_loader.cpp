// libsystemd, loaded on first use (see platform/lazy/lazy_library.h): only
// the Linux backend's bus pieces use it, and the agents' hooks never do.
// Without libsystemd every call fails as a missing bus would (-ENOSYS), and
// the backend says so.

#include <cerrno>
#include <cstdarg>

#include <systemd/sd-bus.h>

#include "platform/lazy/lazy_library.h"

namespace {
const char* const kSystemd = "libsystemd.so.0";
}

extern "C" {

VIGILO_LAZY(kSystemd, int, sd_bus_new, (sd_bus * *ret), (ret), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_open_system, (sd_bus * *ret), (ret), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_set_address, (sd_bus * bus, const char* address), (bus, address), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_set_bus_client, (sd_bus * bus, int b), (bus, b), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_set_allow_interactive_authorization, (sd_bus * bus, int b), (bus, b), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_set_method_call_timeout, (sd_bus * bus, uint64_t usec), (bus, usec), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_start, (sd_bus * bus), (bus), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_is_open, (sd_bus * bus), (bus), 0)
VIGILO_LAZY(kSystemd, int, sd_bus_get_fd, (sd_bus * bus), (bus), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_process, (sd_bus * bus, sd_bus_message** r), (bus, r), -ENOSYS)
VIGILO_LAZY(kSystemd, sd_bus*, sd_bus_flush_close_unref, (sd_bus * bus), (bus), nullptr)
VIGILO_LAZY(kSystemd, sd_bus_slot*, sd_bus_slot_unref, (sd_bus_slot * slot), (slot), nullptr)
VIGILO_LAZY(kSystemd, sd_bus_message*, sd_bus_message_unref, (sd_bus_message * m), (m), nullptr)
VIGILO_LAZY(kSystemd, int, sd_bus_match_signal,
            (sd_bus * bus, sd_bus_slot** ret, const char* sender, const char* path, const char* interface,
             const char* member, sd_bus_message_handler_t callback, void* userdata),
            (bus, ret, sender, path, interface, member, callback, userdata), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_get_property_trivial,
            (sd_bus * bus, const char* destination, const char* path, const char* interface, const char* member,
             sd_bus_error* ret_error, char type, void* ret_ptr),
            (bus, destination, path, interface, member, ret_error, type, ret_ptr), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_call,
            (sd_bus * bus, sd_bus_message* m, uint64_t usec, sd_bus_error* ret_error, sd_bus_message** reply),
            (bus, m, usec, ret_error, reply), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_message_new_method_call,
            (sd_bus * bus, sd_bus_message** m, const char* destination, const char* path, const char* interface,
             const char* member),
            (bus, m, destination, path, interface, member), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_message_open_container, (sd_bus_message * m, char type, const char* contents),
            (m, type, contents), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_message_close_container, (sd_bus_message * m), (m), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_message_enter_container, (sd_bus_message * m, char type, const char* contents),
            (m, type, contents), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_message_exit_container, (sd_bus_message * m), (m), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_message_peek_type, (sd_bus_message * m, char* type, const char** contents),
            (m, type, contents), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_message_skip, (sd_bus_message * m, const char* types), (m, types), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_error_is_set, (const sd_bus_error* e), (e), e != nullptr && e->name != nullptr)
VIGILO_LAZY(kSystemd, int, sd_bus_error_has_name, (const sd_bus_error* e, const char* name), (e, name), 0)

VIGILO_LAZY(kSystemd, int, sd_bus_open_user, (sd_bus * *ret), (ret), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_add_object_vtable,
            (sd_bus * bus, sd_bus_slot** slot, const char* path, const char* interface, const sd_bus_vtable* vtable,
             void* userdata),
            (bus, slot, path, interface, vtable, userdata), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_request_name_async,
            (sd_bus * bus, sd_bus_slot** slot, const char* name, uint64_t flags, sd_bus_message_handler_t callback,
             void* userdata),
            (bus, slot, name, flags, callback, userdata), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_match_signal_async,
            (sd_bus * bus, sd_bus_slot** ret, const char* sender, const char* path, const char* interface,
             const char* member, sd_bus_message_handler_t callback, sd_bus_message_handler_t install_callback,
             void* userdata),
            (bus, ret, sender, path, interface, member, callback, install_callback, userdata), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_call_async,
            (sd_bus * bus, sd_bus_slot** slot, sd_bus_message* m, sd_bus_message_handler_t callback, void* userdata,
             uint64_t usec),
            (bus, slot, m, callback, userdata, usec), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_send, (sd_bus * bus, sd_bus_message* m, uint64_t* cookie), (bus, m, cookie), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_get_events, (sd_bus * bus), (bus), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_get_timeout, (sd_bus * bus, uint64_t* usec), (bus, usec), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_message_new_signal,
            (sd_bus * bus, sd_bus_message** m, const char* path, const char* interface, const char* member),
            (bus, m, path, interface, member), -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_message_new_method_return, (sd_bus_message * call, sd_bus_message** m), (call, m),
            -ENOSYS)
VIGILO_LAZY(kSystemd, int, sd_bus_message_is_method_error, (sd_bus_message * m, const char* name), (m, name), 0)
VIGILO_LAZY(kSystemd, const sd_bus_error*, sd_bus_message_get_error, (sd_bus_message * m), (m), nullptr)
VIGILO_LAZY(kSystemd, int, sd_bus_wait, (sd_bus * bus, uint64_t usec), (bus, usec), -ENOSYS)
VIGILO_LAZY(kSystemd, const char*, sd_bus_message_get_path, (sd_bus_message * m), (m), nullptr)
VIGILO_LAZY(kSystemd, int, sd_bus_error_set, (sd_bus_error * e, const char* name, const char* message),
            (e, name, message), -EINVAL)
VIGILO_LAZY_VOID(kSystemd, sd_bus_error_free, (sd_bus_error * e), (e))

// An object's vtable must point at the library's own format marker (a data
// symbol, so it can't be forwarded): null when libsystemd is missing.
const unsigned* vigilo_sd_bus_vtable_format() {
  return vigilo::lazy::data<&kSystemd, const unsigned>("sd_bus_object_vtable_format");
}

// The variadic calls go through the library's va_list forms.
int sd_bus_call_method(sd_bus* bus, const char* destination, const char* path, const char* interface,
                       const char* member, sd_bus_error* ret_error, sd_bus_message** reply, const char* types, ...) {
  using Fn = int (*)(sd_bus*, const char*, const char*, const char*, const char*, sd_bus_error*, sd_bus_message**,
                     const char*, va_list);
  static const Fn fn = vigilo::lazy::symbol<&kSystemd, Fn>("sd_bus_call_methodv");
  if (fn == nullptr) return -ENOSYS;
  va_list ap;
  va_start(ap, types);
  const int r = fn(bus, destination, path, interface, member, ret_error, reply, types, ap);
  va_end(ap);
  return r;
}

int sd_bus_message_read(sd_bus_message* m, const char* types, ...) {
  using Fn = int (*)(sd_bus_message*, const char*, va_list);
  static const Fn fn = vigilo::lazy::symbol<&kSystemd, Fn>("sd_bus_message_readv");
  if (fn == nullptr) return -ENOSYS;
  va_list ap;
  va_start(ap, types);
  const int r = fn(m, types, ap);
  va_end(ap);
  return r;
}

int sd_bus_message_append(sd_bus_message* m, const char* types, ...) {
  using Fn = int (*)(sd_bus_message*, const char*, va_list);
  static const Fn fn = vigilo::lazy::symbol<&kSystemd, Fn>("sd_bus_message_appendv");
  if (fn == nullptr) return -ENOSYS;
  va_list ap;
  va_start(ap, types);
  const int r = fn(m, types, ap);
  va_end(ap);
  return r;
}

int sd_bus_error_has_names_sentinel(const sd_bus_error* e, ...) {
  va_list ap;
  va_start(ap, e);
  int found = 0;
  while (const char* name = va_arg(ap, const char*)) {
    if (sd_bus_error_has_name(e, name) > 0) {
      found = 1;
      break;
    }
  }
  va_end(ap);
  return found;
}

}  // extern "C"
