#ifndef VEMK_ROAM_SERVICE_CONSOLE_JSON_H
#define VEMK_ROAM_SERVICE_CONSOLE_JSON_H

#include <cstdint>
#include <string>

namespace vemk {

class roam_service;

/// Everything that the page shows, as a JSON object: daemons, switches, totals, rates, and the
/// records of traffic after the one with the number `last_seen`. Payloads are in hexadecimal.
std::string describe(const roam_service &service, uint64_t last_seen);

/// Carries out a command of the page, a JSON object, and returns the answer:
///   {"cmd": "send", "to": NUMBER or null, "text": TEXT}
///   {"cmd": "switches", "no_pongs": BOOL, "stop_reading": BOOL, "fragments": N, "delay_ms": N}
///   {"cmd": "close", "to": NUMBER or null, "code": N}
///   {"cmd": "reset", "to": NUMBER or null}
///   {"cmd": "away", "seconds": N}
///   {"cmd": "return"}
/// The answer is {"type": "answer", "ok": BOOL, "text": what was done or what is wrong}.
std::string carry_out_command(roam_service &service, const std::string &command);

} // namespace vemk

#endif
