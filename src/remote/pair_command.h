#pragma once

#include <string>
#include <vector>

namespace vigilo {

// The QR code of `text` for a terminal, two modules a character (an upper
// half block), in explicit black and white with a quiet zone of four
// modules, so it scans on light and dark terminals alike; each line ends by
// resetting the colours. Empty when the text can't be encoded.
std::string terminalQrCode(const std::string& text);

// `vigilo pair [--relay URL] [--page URL] [--no-qr]`, `vigilo pair --list
// [--json]`, `vigilo pair --revoke <id>|--all`, `vigilo pair --off|--on`:
// pairs a phone and prints its link, or changes the paired phones. Works on
// "remote.json" in the app folder; a running app follows the file.
int runPair(const std::vector<std::string>& args, const std::string& appFolder, const std::string& machine = "Mac");

}  // namespace vigilo
