#pragma once

#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "platform/platform.h"

// How the command-line tool prints the app's replies for a person; `--json`
// prints them whole instead.
namespace vigilo::cli {

using json = nlohmann::json;

// "vigilo: <message>" on standard error.
void err(const std::string& message);
// One line on standard output.
void out(const std::string& line);

// A reply's value as the person reads it: text bare, booleans on/off.
std::string valueText(const json& v);
bool isOk(const json& reply);
// Prints a failed reply and gives the exit status for it.
int failed(const json& reply);
std::string statusOf(const json& reply);
// "Approve everything is on: <how it ends>" (with its problem) while it is on.
std::optional<std::string> approveLine(const json& reply);

// `vigilo status`.
void printStatus(const json& r, const MachineWords& words = {});
// `vigilo settings`: the schema by topic, then the lists.
void printSettings(const json& r);
// `vigilo power`: the whole machine, the lid-closed estimate, apps, test results.
void printPower(const json& r, const MachineWords& words = {});
// The power test's results in a `power` reply.
void printMeasured(const json& r, const MachineWords& words = {});
// The energy list of a `power` or `energy` reply.
void printApps(const json& r);
// `vigilo apps`: what the closed-lid session slows or pauses, and what it
// has not put back yet.
void printTargets(const json& r, const json& targeted, const json& unrestored);
// `vigilo measure`.
void printMeasure(const json& r);

}  // namespace vigilo::cli
