#pragma once

#include <string>

#include "com/outcome.h"

namespace tokard::utils {

using TopicOutcome = ecu::lapi::com::Outcome<std::string, std::string>;

// The ECU name of an RT topic ("rt/..." or "rttx/..."): its last segment
// with surrounding white space trimmed. Fails with "Not an RT topic!" or
// "Unable to find ECU part of topic!".
TopicOutcome ecu_from_topic(const std::string& topic);

}  // namespace tokard::utils
