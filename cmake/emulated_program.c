/* Host launcher for one target program of a cross build. The tests run in
 * the emulator, and without binfmt they cannot exec a target binary: they
 * exec this instead, which starts the program in the emulator under the same
 * pid, so that signals and the exit status are the program's own.
 *
 * Linked statically: an LD_PRELOAD that the tests set for the target program
 * would make a dynamic host loader print an error on standard error. It is
 * taken out of the environment here and handed to the program through the
 * emulator's -E. */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* TOKARD_EMULATOR (the emulator's path, then its options) and
 * TOKARD_PROGRAM come from the generated header given with -include. */

int main(int argc, char** argv) {
  static const char* const emulator[] = {TOKARD_EMULATOR};
  const size_t count = sizeof emulator / sizeof emulator[0];
  const char** args = calloc(count + 6 + (size_t)argc, sizeof *args);
  if (args == NULL) {
    return 127;
  }
  size_t n = 0;
  for (size_t i = 0; i < count; ++i) {
    args[n++] = emulator[i];
  }
  args[n++] = "-0";
  args[n++] = argc > 0 ? argv[0] : TOKARD_PROGRAM;
  const char* preload = getenv("LD_PRELOAD");
  if (preload != NULL) {
    const char* name = "LD_PRELOAD=";
    char* setting = malloc(strlen(name) + strlen(preload) + 1);
    if (setting == NULL) {
      return 127;
    }
    strcpy(setting, name);
    strcat(setting, preload);
    args[n++] = "-E";
    args[n++] = setting;
    unsetenv("LD_PRELOAD");
  }
  args[n++] = TOKARD_PROGRAM;
  for (int i = 1; i < argc; ++i) {
    args[n++] = argv[i];
  }
  args[n] = NULL;
  execv(emulator[0], (char* const*)args);
  perror(emulator[0]);
  return 127;
}
