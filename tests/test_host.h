// A test host: installs the debug-log, fatal-alert and settings hooks and
// records what the library sends through them, so tests can check the log
// lines the library writes.
//
// Formats and arguments arrive unformatted; the host keeps the format text
// and the argument words as the library passed them, and renders the line
// with the library's formatter (TString::VSPrintf). A host sets the English
// separators ("." "," "-" ":") through the locale seam, so rendered texts do
// not depend on the machine's locale.
#ifndef PLINTH_TESTS_TEST_HOST_H_
#define PLINTH_TESTS_TEST_HOST_H_

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

struct LoggedLine {
  unsigned int selector = 0;
  std::string format;           // UTF-8
  std::vector<uint64_t> args;   // one word per argument, as collected
  std::string text;             // the line rendered by the formatter
};

// Installs the hooks on construction and starts a fresh record; the hooks
// stay installed (slots are never cleared), pointing at the current host.
class TestHost {
 public:
  TestHost();
  ~TestHost();
  TestHost(const TestHost&) = delete;
  TestHost& operator=(const TestHost&) = delete;

  std::vector<LoggedLine> Lines() const;
  // Lines whose format is exactly `format`.
  std::vector<LoggedLine> LinesWithFormat(const std::string& format) const;
  // Number of assertions (Debug) seen, and the sources they named.
  int AssertCount() const;
  std::vector<std::string> AssertSources() const;
  std::vector<std::string> FatalAlerts() const;
  void Clear();

  // Settings answered through GetIniString, keyed "section/key".
  void SetIni(const std::string& section, const std::string& key, const std::string& value);

  // Used by the installed hooks.
  void Record(LoggedLine line);
  void RecordFatal(const std::string& text);
  bool Ini(const std::string& section, const std::string& key, std::string* value) const;

 private:
  mutable std::mutex m_lock;
  std::vector<LoggedLine> m_lines;
  std::vector<std::string> m_fatal;
  std::map<std::string, std::string> m_ini;
};

#endif  // PLINTH_TESTS_TEST_HOST_H_
