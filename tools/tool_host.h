// The tool as the library's host for cloud work: it answers the library's
// settings (section "Options") and listens to its log.
//
// Settings come from the command line and the environment (see
// TakeEnvironmentSettings); a key nobody set is answered "not found", so
// the library keeps its default.
//
// Log lines are kept quiet: the first failure line (levels 514 to 518) of
// an operation is kept, and the error message shows it as the cause's
// detail. With PLINTH_LOG set to a file name ("-" for standard error) every
// line goes there as well; lines never carry the secret key.
#ifndef PLINTH_TOOLS_TOOL_HOST_H_
#define PLINTH_TOOLS_TOOL_HOST_H_

#include <string>

// Installs the hooks; safe to call more than once.
void InstallToolHost();

void SetToolSetting(const std::string& key, const std::string& value);

// PLINTH_CLOUD_MAX_TRANSFER_MB and the other PLINTH_CLOUD_* variables, each
// mapped to its setting (the table is in the s3 command's help).
void TakeEnvironmentSettings();

// Forgets the failure kept so far: call before an operation.
void ClearToolFailure();
// The first failure line since then, with the library's operation name in
// front and its own code text behind taken off; empty when none came.
std::string ToolFailureDetail(int code);

#endif  // PLINTH_TOOLS_TOOL_HOST_H_
