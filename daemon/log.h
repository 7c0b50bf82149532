// cmdbd's log: standard error, one line per message, with the journal's
// priority prefix when standard error is the journal (systemd sets
// JOURNAL_STREAM to its device and inode).
#pragma once

namespace cmdbd {

enum Level { kError = 3, kWarning = 4, kNotice = 5, kInfo = 6, kDebug = 7 };

// Messages above this level are dropped (default kInfo; --verbose: kDebug).
void set_log_level(Level max);
void log(Level level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

}  // namespace cmdbd
