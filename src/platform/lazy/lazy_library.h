#pragma once

// Libraries loaded on first use. Every `vigilo` process would otherwise map
// them and everything they need at start (libcurl alone brings some thirty
// libraries), and the agents' hooks run `vigilo event` on every prompt:
// loading them only where they are used keeps the hook as cheap as a tiny
// program and the app small when no phone is paired. The forwarders stand
// in for the libraries' own definitions, with their exact signatures; when
// a library is missing every call fails the way the library reports
// failure, and the feature says so.

#include <dlfcn.h>

namespace vigilo::lazy {

// The handle of `soname`, opened once; null when it can't be loaded.
template <const char* const* Soname>
void* library() {
  static void* handle = ::dlopen(*Soname, RTLD_NOW | RTLD_LOCAL);
  return handle;
}

// The function `name` of `soname` as type F; null without the library or
// the function.
template <const char* const* Soname, typename F>
F symbol(const char* name) {
  void* h = library<Soname>();
  return h != nullptr ? reinterpret_cast<F>(::dlsym(h, name)) : nullptr;
}

// The variable `name` of `soname` (data, which no forwarder can stand in
// for); null without the library or the variable.
template <const char* const* Soname, typename T>
T* data(const char* name) {
  void* h = library<Soname>();
  return h != nullptr ? static_cast<T*>(::dlsym(h, name)) : nullptr;
}

}  // namespace vigilo::lazy

// Defines `name` to call the library's own, or give `missing` without it.
#define VIGILO_LAZY(soname, ret, name, params, args, missing)            \
  ret name params {                                                      \
    using Fn = ret(*) params;                                            \
    static const Fn fn = vigilo::lazy::symbol<&soname, Fn>(#name);       \
    return fn != nullptr ? fn args : missing;                            \
  }

// The same for a function that gives nothing back.
#define VIGILO_LAZY_VOID(soname, name, params, args)                     \
  void name params {                                                     \
    using Fn = void(*) params;                                           \
    static const Fn fn = vigilo::lazy::symbol<&soname, Fn>(#name);       \
    if (fn != nullptr) fn args;                                          \
  }
