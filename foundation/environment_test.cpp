#include "foundation/environment.h"

#include <sys/statvfs.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "foundation/hooks.h"
#include "foundation/resources.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

// Sets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : m_name(name) {
    const char* old = std::getenv(name);
    m_had = old != nullptr;
    if (m_had) m_old = old;
    if (value != nullptr) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (m_had) {
      setenv(m_name.c_str(), m_old.c_str(), 1);
    } else {
      unsetenv(m_name.c_str());
    }
  }

 private:
  std::string m_name;
  std::string m_old;
  bool m_had = false;
};

// Loads a host resource file with the given requirements record.
class ScopedRequirements {
 public:
  explicit ScopedRequirements(const std::string& record) {
    LoadResourceFile(TStringFromUTF8(m_dir.WriteFile("req.res", "16020 Reqs " + record + "\n")));
  }
  ~ScopedRequirements() { ClearHostResources(); }

 private:
  TempDir m_dir;
};

struct LanguageCase {
  const char* locale;
  unsigned int langId;
  const char* culture;
  const char* name;
};

TEST(PlinthEnvTest, LanguageRowFollowsTheLocale) {
  const LanguageCase cases[] = {
      {"de_DE.UTF-8", 1031, "de-DE", "Deutscher"}, {"es_MX", 3082, "es-ES", "Espaniol"},
      {"fr_CA.UTF-8", 1036, "fr-FR", "Fran\xC3\xA7" "ais"}, {"it", 1040, "it-IT", "Italiano"},
      {"ja_JP.eucJP", 1041, "ja-JP", "Japanese"}, {"C", 1033, "en-US", "English"},
      {"pt_BR.UTF-8", 1033, "en-US", "English"}, {"den_XX", 1033, "en-US", "English"},
  };
  ScopedEnv messages("LC_MESSAGES", nullptr);
  ScopedEnv lang("LANG", nullptr);
  for (const LanguageCase& c : cases) {
    ScopedEnv all("LC_ALL", c.locale);
    PlinthEnvType env;
    EXPECT_EQ(env.langId, c.langId) << c.locale;
    EXPECT_EQ(TStringAsString(env.cultureTag), c.culture) << c.locale;
    EXPECT_EQ(TStringAsString(env.languageName), c.name) << c.locale;
  }
}

TEST(PlinthEnvTest, InitSetsFlagsFoldersAndProbe) {
  ScopedEnv cache("XDG_CACHE_HOME", "/srv/cache");
  ScopedEnv data("XDG_DATA_HOME", "relative/ignored");
  ScopedEnv home("HOME", "/home/tester");
  PlinthEnvType env;
  EXPECT_EQ(env.initialised, 0u);
  EXPECT_FALSE(env.workFolder.IsValid());
  env.Init();
  EXPECT_EQ(env.initialised, 1u);
  EXPECT_EQ(env.isWow64, 0u);
  if (getuid() == 0 || getuid() >= 1000) {
    EXPECT_EQ(TStringAsString(env.workFolder.GetPath()), "/srv/cache/plinth20");
    EXPECT_EQ(TStringAsString(env.userFolder.GetPath()), "/home/tester/.local/share/plinth20");
  }
  EXPECT_GE(env.osVersion.major, 3u);
  EXPECT_EQ(TStringAsString(env.osVersion.systemName), "Linux");
  EXPECT_FALSE(env.resourcesFolder.IsValid());
  env.SetResourcesFolder();
  EXPECT_TRUE(env.resourcesFolder == env.installFolder);
  EXPECT_TRUE(env.resourcesFolder.IsValid());
}

TEST(PlinthEnvTest, MachineCheckPassesWithModestRequirements) {
  TestHost host;
  ScopedRequirements req("1 1 0 1");
  EXPECT_EQ(TestPlinthEnvirons(), 0);
  EXPECT_TRUE(host.FatalAlerts().empty());
}

TEST(PlinthEnvTest, MachineCheckNamesTheFirstUnmetMinimum) {
  struct Case {
    const char* record;
    const char* expected;
  };
  const Case cases[] = {
      {"4000000000 0 0 0", "Cannot execute: this computer has too little memory (4000000000 MB are required)."},
      {"1 4000 0 0", "Cannot execute: this operating system is too old (version 4000 or later is required)."},
      {"1 1 4000000000 0", "Cannot execute: not enough memory is available (4000000000 MB are required)."},
      {"1 1 0 4294967295",
       "Cannot execute: not enough free disk space for the work folder (4194303 MB are required)."},
      {"1 1", "Cannot execute: program resources missing"},
      {"1 1 x 1", "Cannot execute: program resources missing"},
      {"1 1 1 1 1", "Cannot execute: program resources missing"},
      {"99999999999 1 1 1", "Cannot execute: program resources missing"},
  };
  for (const Case& c : cases) {
    TestHost host;
    ScopedRequirements req(c.record);
    EXPECT_EQ(TestPlinthEnvirons(), -1) << c.record;
    auto alerts = host.FatalAlerts();
    ASSERT_EQ(alerts.size(), 1u) << c.record;
    EXPECT_EQ(alerts[0], c.expected);
  }
}

TEST(PlinthEnvTest, DiskWorkingSpaceMatchesTheVolume) {
  TempDir dir;
  ScopedEnv cache("XDG_CACHE_HOME", dir.path().c_str());
  PlinthEnv.SetWorkFolder();
  unsigned int kb = 0;
  ASSERT_EQ(GetDiskWorkingSpace(&kb), 0);
  struct statvfs st;
  ASSERT_EQ(statvfs(dir.path().c_str(), &st), 0);
  double expected = static_cast<double>(st.f_bavail) * static_cast<double>(st.f_frsize) / 1024.0;
  if (expected > 4294967295.0) expected = 4294967295.0;
  EXPECT_NEAR(static_cast<double>(kb), expected, expected * 0.02 + 1024);
  PlinthEnv.SetWorkFolder();
}

TEST(PlinthEnvTest, DiskWorkingSpaceFailureIsMappedAndLogged) {
  TestHost host;
  std::string tooLong = "/" + std::string(5000, 'a');
  PlinthEnv.workFolder.Set(TStringFromUTF8(tooLong));
  unsigned int kb = 7;
  int code = GetDiskWorkingSpace(&kb);
  EXPECT_EQ(code, -1013);
  EXPECT_EQ(kb, 0u);
  auto lines = host.LinesWithFormat("GetDiskWorkingSpace: cannot read the free space of <%s>, error %E");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(static_cast<int>(lines[0].args[1]), -1013);
  PlinthEnv.SetWorkFolder();
}

int g_callbackCalls = 0;
int CountingCallback(TString*) { return ++g_callbackCalls; }

TEST(OSCheckTest, ReportsAVerifierThroughTheCallback) {
  ScopedEnv preload("LD_PRELOAD", "libverifier.so");
  g_callbackCalls = 0;
  TString message;
  int result = 0;
  EXPECT_EQ(OSCheck(&CountingCallback, &message, &result), 0);
  EXPECT_TRUE(result & 1);
  EXPECT_GE(g_callbackCalls, 1);
  EXPECT_NE(TStringAsString(message).find("libverifier.so"), std::string::npos);
}

TEST(OSCheckTest, PrivilegeBitMatchesTheCapabilities) {
  ScopedEnv preload("LD_PRELOAD", nullptr);
  TestHost host;
  int result = -1;
  EXPECT_EQ(OSCheck(nullptr, nullptr, &result), 0);
  bool privileged = geteuid() == 0;  // root holds every capability unless dropped
  if (privileged && (result & 2) == 0) {
    EXPECT_TRUE(host.LinesWithFormat("USufficientPermissions: AdjustTokenPrivileges failed").empty());
  } else {
    EXPECT_EQ(result & 2, 2);
    EXPECT_EQ(host.LinesWithFormat("USufficientPermissions: AdjustTokenPrivileges failed").size(), 1u);
  }
}

}  // namespace
