#ifndef TOOLS_TOP_SCREEN_H
#define TOOLS_TOP_SCREEN_H

#include "Watcher.h"

/// Shows the table on the terminal, again after each interval, until the user quits; the first look
/// has been taken. The exit status.
int run_screen(Watcher& watcher, unsigned int intervalMs);

#endif  // TOOLS_TOP_SCREEN_H
