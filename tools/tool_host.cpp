#include "tools/tool_host.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

#include "foundation/errors.h"
#include "foundation/hooks.h"
#include "foundation/tstring.h"

namespace {

struct EnvSettingSpec {
  const char* variable;
  const char* key;
};

const EnvSettingSpec kEnvSettings[] = {
    {"PLINTH_CLOUD_MAX_TRANSFER_MB", "CloudMaxTransferMB"},
    {"PLINTH_CLOUD_UPLOAD_THREADS", "CloudUploadThreads"},
    {"PLINTH_CLOUD_DOWNLOAD_THREADS", "CloudDownloadThreads"},
    {"PLINTH_CLOUD_DOWNLOAD_TIER", "CloudDownloadPartSizeTier"},
    {"PLINTH_CLOUD_CONNECT_SECONDS", "CloudConnectSeconds"},
    {"PLINTH_CLOUD_STALL_SECONDS", "CloudStallSeconds"},
};

// The selectors of failures: ordinary, fatal, storage, unexpected.
bool IsFailure(unsigned int selector) {
  return selector == 514 || selector == 515 || selector == 517 || selector == 518;
}

struct HostState {
  std::mutex lock;
  std::map<std::string, std::string> settings;
  std::string failure;
  std::FILE* log = nullptr;
};

HostState& State() {
  static HostState state;
  return state;
}

int64_t AnswerSetting(const char16_t* section, const char16_t* key, TString* value) {
  if (section == nullptr || key == nullptr) return kErrBadParameter;
  if (TStringAsString(TString(section)) != "Options") return kErrNotFound;
  HostState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  auto it = state.settings.find(TStringAsString(TString(key)));
  if (it == state.settings.end()) return kErrNotFound;
  if (value != nullptr) *value = TStringFromUTF8(it->second);
  return 0;
}

int64_t Listen(unsigned int selector, TString* fmt, ...) {
  if (fmt == nullptr) return 0;
  va_list ap;
  va_start(ap, fmt);
  TString text;
  text.VSPrintf(fmt->GetConstBuffer(), fmt->GetLength(), ap);
  va_end(ap);
  std::string line = TStringAsString(text);
  HostState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  if (state.log != nullptr) std::fprintf(state.log, "plinth: log %u: %s\n", selector, line.c_str());
  if (IsFailure(selector) && state.failure.empty()) state.failure = line;
  return 0;
}

bool EndsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// Cuts a trailing ", TEXT (error N)" of another code than the one shown.
void CutCodeText(std::string* detail) {
  size_t open = detail->rfind(" (error ");
  if (open == std::string::npos || detail->back() != ')') return;
  std::string number = detail->substr(open + 8, detail->size() - open - 9);
  if (number.empty() || number.find_first_not_of("-0123456789") != std::string::npos) return;
  size_t comma = detail->rfind(", ", open);
  if (comma != std::string::npos) detail->erase(comma);
}

}  // namespace

void InstallToolHost() {
  HostState& state = State();
  {
    std::lock_guard<std::mutex> guard(state.lock);
    const char* log = std::getenv("PLINTH_LOG");
    if (state.log == nullptr && log != nullptr && *log != '\0') {
      state.log = std::string(log) == "-" ? stderr : std::fopen(log, "a");
      if (state.log == nullptr) std::fprintf(stderr, "plinth: cannot open the log file %s (PLINTH_LOG)\n", log);
    }
  }
  HookGetIniString(&AnswerSetting);
  HookDebugLogf(&Listen);
}

void SetToolSetting(const std::string& key, const std::string& value) {
  HostState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  state.settings[key] = value;
}

void TakeEnvironmentSettings() {
  for (const EnvSettingSpec& entry : kEnvSettings) {
    const char* value = std::getenv(entry.variable);
    if (value != nullptr && *value != '\0') SetToolSetting(entry.key, value);
  }
}

void ClearToolFailure() {
  HostState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  state.failure.clear();
}

std::string ToolFailureDetail(int code) {
  std::string detail;
  {
    HostState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    detail = state.failure;
  }
  // "TS3Conn::ObjectExists: what" -> "what"
  size_t owner = detail.find("::");
  size_t colon = owner == std::string::npos ? owner : detail.find(": ", owner);
  if (colon != std::string::npos) detail.erase(0, colon + 2);
  // "..., Not found (error -1101)": the code is shown on its own.
  TString text;
  GetErrorText(code, &text);
  std::string tail = ", " + TStringAsString(text) + " (error " + std::to_string(code) + ")";
  if (EndsWith(detail, tail)) {
    detail.erase(detail.size() - tail.size());
  } else {
    CutCodeText(&detail);
  }
  // "statusCode 404, NoSuchKey: message" -> "404 NoSuchKey: message"; a
  // request that got no answer has only the transport's message.
  const std::string status = "statusCode ";
  size_t comma = detail.find(", ");
  if (detail.compare(0, status.size(), status) == 0 && comma != std::string::npos) {
    std::string number = detail.substr(status.size(), comma - status.size());
    std::string rest = detail.substr(comma + 2);
    if (rest.compare(0, 3, "-: ") == 0) rest.erase(0, 3);
    if (rest == "-:") rest.clear();
    detail = number == "0" ? rest : rest.empty() ? "HTTP " + number : number + " " + rest;
  }
  return detail;
}
