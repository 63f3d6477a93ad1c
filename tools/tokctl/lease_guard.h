// hold -- COMMAND: the COMMAND runs only while the token is held. It is
// stopped (SIGTERM, then SIGKILL after kGrace) when a renewal is refused, or
// when no renewal has been granted for so long that the lease could run out
// soon: SIGKILL goes out kMargin before the lease granted last could lapse,
// counted from the moment that renewal was sent (tokard's lease starts no
// earlier), so that COMMAND is gone before tokard may grant the ECU to
// anyone else, even when the broker cannot be reached.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "ending.h"
#include "tokard/token_client.h"

namespace tokctl {

// How long COMMAND has between SIGTERM and SIGKILL.
inline constexpr std::chrono::seconds kGrace{2};
// How long before the lease could lapse COMMAND is killed: room for the
// kill, the reaping and a late wake-up of a busy controller.
inline constexpr std::chrono::seconds kMargin{1};

// Runs `program` while `client` holds `topic`'s token, then releases it.
// COMMAND's exit status (128 + N after signal N); 3 when the token was
// lost; 127 when COMMAND was not found, 126 when it could not be run.
int run_while_held(tokard::client::TokenClient& client, const std::string& topic,
                   const std::vector<std::string>& program, Ending& ending);

}  // namespace tokctl
