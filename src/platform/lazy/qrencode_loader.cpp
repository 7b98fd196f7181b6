// libqrencode on first use: only `vigilo pair` draws a code.

#include <qrencode.h>

#include "platform/lazy/lazy_library.h"

namespace {
const char* const kQrencode = "libqrencode.so.4";
}

extern "C" {

VIGILO_LAZY(kQrencode, QRcode*, QRcode_encodeString8bit, (const char* string, int version, QRecLevel level),
            (string, version, level), nullptr)
VIGILO_LAZY_VOID(kQrencode, QRcode_free, (QRcode * qrcode), (qrcode))

}  // extern "C"
