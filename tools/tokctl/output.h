// tokctl's lines: answers on standard output, complaints on standard error
// as "tokctl: ...", whole lines even when several threads write.
#pragma once

#include <string>

namespace tokctl {

void say(const std::string& line);
void complain(const std::string& line);

// While a COMMAND runs under hold, its output is the standard output: say()
// then writes on standard error, as complain() does.
void keep_stdout_for_program();

// "0.3", "30": seconds as the user wrote them.
std::string seconds_text(double seconds);

}  // namespace tokctl
