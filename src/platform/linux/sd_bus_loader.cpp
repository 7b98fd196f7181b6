// libsystemd, loaded on first use. Every `vigilo` process would otherwise
// map libsystemd and its six libraries at start, and the agents' hooks run
// `vigilo event` on every prompt: loading them only where the bus is used
// keeps the hook as cheap as a tiny program. These definitions stand in for
// the library's own, with its exact signatures; without libsystemd every
// call fails as a missing bus would (-ENOSYS), and the backend says so.

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>

#include <systemd/sd-bus.h>

namespace {

void* library() {
  static void* handle = ::dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
  return handle;
}

template <typename F>
F symbol(const char* name) {
  void* h = library();
  return h != nullptr ? reinterpret_cast<F>(::dlsym(h, name)) : nullptr;
}

}  // namespace

#define VIGILO_FORWARD(ret, name, params, args, missing) \
  ret name params {                                      \
    using Fn = ret(*) params;                            \
    static const Fn fn = symbol<Fn>(#name);              \
    return fn != nullptr ? fn args : missing;            \
  }

extern "C" {

VIGILO_FORWARD(int, sd_bus_new, (sd_bus * *ret), (ret), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_open_system, (sd_bus * *ret), (ret), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_set_address, (sd_bus * bus, const char* address), (bus, address), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_set_bus_client, (sd_bus * bus, int b), (bus, b), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_set_allow_interactive_authorization, (sd_bus * bus, int b), (bus, b), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_set_method_call_timeout, (sd_bus * bus, uint64_t usec), (bus, usec), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_start, (sd_bus * bus), (bus), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_is_open, (sd_bus * bus), (bus), 0)
VIGILO_FORWARD(int, sd_bus_get_fd, (sd_bus * bus), (bus), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_process, (sd_bus * bus, sd_bus_message** r), (bus, r), -ENOSYS)
VIGILO_FORWARD(sd_bus*, sd_bus_flush_close_unref, (sd_bus * bus), (bus), nullptr)
VIGILO_FORWARD(sd_bus_slot*, sd_bus_slot_unref, (sd_bus_slot * slot), (slot), nullptr)
VIGILO_FORWARD(sd_bus_message*, sd_bus_message_unref, (sd_bus_message * m), (m), nullptr)
VIGILO_FORWARD(int, sd_bus_match_signal,
               (sd_bus * bus, sd_bus_slot** ret, const char* sender, const char* path, const char* interface,
                const char* member, sd_bus_message_handler_t callback, void* userdata),
               (bus, ret, sender, path, interface, member, callback, userdata), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_get_property_trivial,
               (sd_bus * bus, const char* destination, const char* path, const char* interface, const char* member,
                sd_bus_error* ret_error, char type, void* ret_ptr),
               (bus, destination, path, interface, member, ret_error, type, ret_ptr), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_call,
               (sd_bus * bus, sd_bus_message* m, uint64_t usec, sd_bus_error* ret_error, sd_bus_message** reply),
               (bus, m, usec, ret_error, reply), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_message_new_method_call,
               (sd_bus * bus, sd_bus_message** m, const char* destination, const char* path, const char* interface,
                const char* member),
               (bus, m, destination, path, interface, member), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_message_open_container, (sd_bus_message * m, char type, const char* contents),
               (m, type, contents), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_message_close_container, (sd_bus_message * m), (m), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_message_enter_container, (sd_bus_message * m, char type, const char* contents),
               (m, type, contents), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_message_exit_container, (sd_bus_message * m), (m), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_message_peek_type, (sd_bus_message * m, char* type, const char** contents),
               (m, type, contents), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_message_skip, (sd_bus_message * m, const char* types), (m, types), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_error_is_set, (const sd_bus_error* e), (e), e != nullptr && e->name != nullptr)
VIGILO_FORWARD(int, sd_bus_error_has_name, (const sd_bus_error* e, const char* name), (e, name), 0)

VIGILO_FORWARD(int, sd_bus_open_user, (sd_bus * *ret), (ret), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_add_object_vtable,
               (sd_bus * bus, sd_bus_slot** slot, const char* path, const char* interface, const sd_bus_vtable* vtable,
                void* userdata),
               (bus, slot, path, interface, vtable, userdata), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_request_name_async,
               (sd_bus * bus, sd_bus_slot** slot, const char* name, uint64_t flags, sd_bus_message_handler_t callback,
                void* userdata),
               (bus, slot, name, flags, callback, userdata), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_match_signal_async,
               (sd_bus * bus, sd_bus_slot** ret, const char* sender, const char* path, const char* interface,
                const char* member, sd_bus_message_handler_t callback, sd_bus_message_handler_t install_callback,
                void* userdata),
               (bus, ret, sender, path, interface, member, callback, install_callback, userdata), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_call_async,
               (sd_bus * bus, sd_bus_slot** slot, sd_bus_message* m, sd_bus_message_handler_t callback, void* userdata,
                uint64_t usec),
               (bus, slot, m, callback, userdata, usec), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_send, (sd_bus * bus, sd_bus_message* m, uint64_t* cookie), (bus, m, cookie), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_get_events, (sd_bus * bus), (bus), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_get_timeout, (sd_bus * bus, uint64_t* usec), (bus, usec), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_message_new_signal,
               (sd_bus * bus, sd_bus_message** m, const char* path, const char* interface, const char* member),
               (bus, m, path, interface, member), -ENOSYS)
VIGILO_FORWARD(int, sd_bus_message_new_method_return, (sd_bus_message * call, sd_bus_message** m), (call, m),
               -ENOSYS)
VIGILO_FORWARD(int, sd_bus_message_is_method_error, (sd_bus_message * m, const char* name), (m, name), 0)
VIGILO_FORWARD(const sd_bus_error*, sd_bus_message_get_error, (sd_bus_message * m), (m), nullptr)
VIGILO_FORWARD(int, sd_bus_wait, (sd_bus * bus, uint64_t usec), (bus, usec), -ENOSYS)
VIGILO_FORWARD(const char*, sd_bus_message_get_path, (sd_bus_message * m), (m), nullptr)
VIGILO_FORWARD(int, sd_bus_error_set, (sd_bus_error * e, const char* name, const char* message), (e, name, message),
               -EINVAL)

// An object's vtable must point at the library's own format marker (a data
// symbol, so it can't be forwarded): null when libsystemd is missing.
const unsigned* vigilo_sd_bus_vtable_format() {
  return static_cast<const unsigned*>(library() != nullptr ? ::dlsym(library(), "sd_bus_object_vtable_format")
                                                            : nullptr);
}

void sd_bus_error_free(sd_bus_error* e) {
  using Fn = void (*)(sd_bus_error*);
  static const Fn fn = symbol<Fn>("sd_bus_error_free");
  if (fn != nullptr) fn(e);
}

// The variadic calls go through the library's va_list forms.
int sd_bus_call_method(sd_bus* bus, const char* destination, const char* path, const char* interface,
                       const char* member, sd_bus_error* ret_error, sd_bus_message** reply, const char* types, ...) {
  using Fn = int (*)(sd_bus*, const char*, const char*, const char*, const char*, sd_bus_error*, sd_bus_message**,
                     const char*, va_list);
  static const Fn fn = symbol<Fn>("sd_bus_call_methodv");
  if (fn == nullptr) return -ENOSYS;
  va_list ap;
  va_start(ap, types);
  const int r = fn(bus, destination, path, interface, member, ret_error, reply, types, ap);
  va_end(ap);
  return r;
}

int sd_bus_message_read(sd_bus_message* m, const char* types, ...) {
  using Fn = int (*)(sd_bus_message*, const char*, va_list);
  static const Fn fn = symbol<Fn>("sd_bus_message_readv");
  if (fn == nullptr) return -ENOSYS;
  va_list ap;
  va_start(ap, types);
  const int r = fn(m, types, ap);
  va_end(ap);
  return r;
}

int sd_bus_message_append(sd_bus_message* m, const char* types, ...) {
  using Fn = int (*)(sd_bus_message*, const char*, va_list);
  static const Fn fn = symbol<Fn>("sd_bus_message_appendv");
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
