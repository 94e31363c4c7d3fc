// The library's own log lines: a wide literal format and its arguments, sent
// to the host's DebugLogf hook unformatted. Costs nothing while no hook is
// installed.
#ifndef PLINTH_FOUNDATION_LOG_H_
#define PLINTH_FOUNDATION_LOG_H_

#include <cstdint>

void LogLine(unsigned int selector, const char16_t* fmt, ...);

#endif  // PLINTH_FOUNDATION_LOG_H_
