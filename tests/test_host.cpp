#include "tests/test_host.h"

#include <atomic>
#include <cstdarg>

#include "foundation/format_args.h"
#include "foundation/hooks.h"
#include "foundation/tstring.h"
#include "platform/locale.h"

namespace {

std::atomic<TestHost*> g_host{nullptr};

int64_t HostDebugLogf(unsigned int selector, TString* fmt, ...) {
  TestHost* host = g_host.load();
  if (host == nullptr || fmt == nullptr) return 0;
  LoggedLine line;
  line.selector = selector;
  line.format = TStringAsString(*fmt);
  va_list ap;
  va_start(ap, fmt);
  FormatArgList args;
  CollectFormatArgs(fmt->GetConstBuffer(), fmt->GetLength(), ap, &args);
  va_end(ap);
  line.args.assign(args.word, args.word + args.count);
  va_start(ap, fmt);
  TString text;
  text.VSPrintf(fmt->GetConstBuffer(), fmt->GetLength(), ap);
  va_end(ap);
  line.text = TStringAsString(text);
  host->Record(std::move(line));
  return 0;
}

int64_t HostDebugLogfChar(unsigned int selector, const char* fmt, ...) {
  TestHost* host = g_host.load();
  if (host == nullptr || fmt == nullptr) return 0;
  LoggedLine line;
  line.selector = selector;
  line.format = fmt;
  va_list ap;
  va_start(ap, fmt);
  FormatArgList args;
  CollectFormatArgs(fmt, ap, &args);
  va_end(ap);
  line.args.assign(args.word, args.word + args.count);
  host->Record(std::move(line));
  return 0;
}

int64_t HostFatalAlert(TString* text) {
  TestHost* host = g_host.load();
  if (host != nullptr) host->RecordFatal(text != nullptr ? TStringAsString(*text) : std::string());
  return 0;
}

int64_t HostGetIniString(const char16_t* section, const char16_t* key, TString* value) {
  TestHost* host = g_host.load();
  if (host == nullptr) return -1011;
  std::string answer;
  if (!host->Ini(TStringAsString(TString(section)), TStringAsString(TString(key)), &answer)) return -1011;
  if (value != nullptr) *value = TStringFromUTF8(answer);
  return 0;
}

}  // namespace

TestHost::TestHost() {
  g_host.store(this);
  platform::LocaleSeparatorsSpec english;  // the defaults are the English separators
  platform::SetLocaleSeparatorsForTesting(&english);
  HookDebugLogf(&HostDebugLogf);
  HookDebugLogfChar(&HostDebugLogfChar);
  HookFatalAlert(&HostFatalAlert);
  HookGetIniString(&HostGetIniString);
}

TestHost::~TestHost() {
  TestHost* self = this;
  g_host.compare_exchange_strong(self, nullptr);
}

void TestHost::Record(LoggedLine line) {
  std::lock_guard<std::mutex> guard(m_lock);
  m_lines.push_back(std::move(line));
}

void TestHost::RecordFatal(const std::string& text) {
  std::lock_guard<std::mutex> guard(m_lock);
  m_fatal.push_back(text);
}

std::vector<LoggedLine> TestHost::Lines() const {
  std::lock_guard<std::mutex> guard(m_lock);
  return m_lines;
}

std::vector<LoggedLine> TestHost::LinesWithFormat(const std::string& format) const {
  std::lock_guard<std::mutex> guard(m_lock);
  std::vector<LoggedLine> out;
  for (const LoggedLine& line : m_lines) {
    if (line.format == format) out.push_back(line);
  }
  return out;
}

int TestHost::AssertCount() const { return static_cast<int>(AssertSources().size()); }

std::vector<std::string> TestHost::AssertSources() const {
  std::lock_guard<std::mutex> guard(m_lock);
  std::vector<std::string> out;
  for (const LoggedLine& line : m_lines) {
    // "ASSERT: <source>, line <n>": the source pointer died with the call,
    // so the name is read back from the rendered text.
    if (line.format == "ASSERT: %s, line %~d" && line.text.size() > 8) {
      out.push_back(line.text.substr(8, line.text.find(',') - 8));
    }
  }
  return out;
}

std::vector<std::string> TestHost::FatalAlerts() const {
  std::lock_guard<std::mutex> guard(m_lock);
  return m_fatal;
}

void TestHost::Clear() {
  std::lock_guard<std::mutex> guard(m_lock);
  m_lines.clear();
  m_fatal.clear();
}

void TestHost::SetIni(const std::string& section, const std::string& key, const std::string& value) {
  std::lock_guard<std::mutex> guard(m_lock);
  m_ini[section + "/" + key] = value;
}

bool TestHost::Ini(const std::string& section, const std::string& key, std::string* value) const {
  std::lock_guard<std::mutex> guard(m_lock);
  auto it = m_ini.find(section + "/" + key);
  if (it == m_ini.end()) return false;
  *value = it->second;
  return true;
}
