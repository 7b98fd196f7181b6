#pragma once

#include <string>
#include <string_view>

namespace vigilo {

// Removes the temporary files that writers killed mid-write left in
// `folder`, and in its subfolders down to `depth` levels (never through a
// link): "<name>.<pid>.vigilo-tmp" once its process is gone, and any of
// Vigilo's temporary names ("….vigilo-tmp", the watchdog script's
// "….vigilo-tmp.XXXXXX") once it is a minute old, since no write takes that
// long. Only names beginning with `prefix`, when one is given. Gives how
// many were removed.
int removeLeftoverTemps(const std::string& folder, int depth = 0, std::string_view prefix = {});

}  // namespace vigilo
