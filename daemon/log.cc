#include "daemon/log.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

namespace cmdbd {
namespace {

Level g_max = kInfo;

bool stderr_is_journal() {
  const char* env = getenv("JOURNAL_STREAM");
  unsigned long dev = 0, ino = 0;
  struct stat st;
  return env != nullptr && sscanf(env, "%lu:%lu", &dev, &ino) == 2 && fstat(2, &st) == 0 && st.st_dev == dev &&
         st.st_ino == ino;
}

}  // namespace

void set_log_level(Level max) { g_max = max; }

void log(Level level, const char* fmt, ...) {
  if (level > g_max) return;
  static const bool journal = stderr_is_journal();
  char line[2048];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  if (journal) fprintf(stderr, "<%d>%s\n", static_cast<int>(level), line);
  else fprintf(stderr, "cmdbd: %s\n", line);
}

}  // namespace cmdbd
