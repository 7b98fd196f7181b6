#pragma once

#include <string>

#include "platform/result.h"

namespace vigilo {

// Whether only this user can change `path`: a folder, not a link to one,
// owned by this user and writable by nobody else. Otherwise a sentence that
// says what is wrong and the command that puts it right. `makePrivateFolder`
// refuses the same folders, with the same sentences, and then changes
// nothing.
Result checkPrivateFolder(const std::string& path);

}  // namespace vigilo
