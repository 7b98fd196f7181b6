// libplist on first use: only the macOS backend reads the registry's plists,
// so no other `vigilo` process maps it (the hooks start on every prompt).

#include <plist/plist.h>

#include "platform/lazy/lazy_library.h"
#include "platform/macos/ioreg_text.h"

#ifndef VIGILO_PLIST_SONAME
#define VIGILO_PLIST_SONAME "libplist-2.0.so.3"
#endif

namespace {
const char* const kPlist = VIGILO_PLIST_SONAME;
}

extern "C" {

VIGILO_LAZY_VOID(kPlist, plist_from_xml, (const char* plist_xml, uint32_t length, plist_t* plist),
                 (plist_xml, length, plist))
VIGILO_LAZY_VOID(kPlist, plist_free, (plist_t plist), (plist))
VIGILO_LAZY(kPlist, plist_type, plist_get_node_type, (plist_t node), (node), PLIST_NONE)
VIGILO_LAZY(kPlist, plist_t, plist_dict_get_item, (plist_t node, const char* key), (node, key), nullptr)
VIGILO_LAZY(kPlist, uint32_t, plist_array_get_size, (plist_t node), (node), 0)
VIGILO_LAZY(kPlist, plist_t, plist_array_get_item, (plist_t node, uint32_t n), (node, n), nullptr)
VIGILO_LAZY_VOID(kPlist, plist_get_uint_val, (plist_t node, uint64_t* val), (node, val))
VIGILO_LAZY_VOID(kPlist, plist_get_bool_val, (plist_t node, uint8_t* val), (node, val))

}  // extern "C"

namespace vigilo {

bool plistReaderAvailable() { return lazy::library<&kPlist>() != nullptr; }

}  // namespace vigilo
