// Ctrl-C and SIGTERM during a transfer: the first one asks the running
// work to stop and clean up (an unfinished upload is aborted, a partial
// download removed); a second one ends the process at once.
#ifndef PLINTH_TOOLS_INTERRUPT_H_
#define PLINTH_TOOLS_INTERRUPT_H_

void CatchInterrupts();
bool Interrupted();
// 128 + the signal, the shell's code for a process a signal ended.
int InterruptedExitCode();

#endif  // PLINTH_TOOLS_INTERRUPT_H_
