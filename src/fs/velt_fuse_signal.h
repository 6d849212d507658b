// Crash reporting of the daemon: core files on, a one-line signal report and a call stack.
#pragma once

#include <signal.h>

namespace velt {

void install_sigfault();
void sigfault_handler(int signal_number, siginfo_t* info, void* context);

}  // namespace velt
