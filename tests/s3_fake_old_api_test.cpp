// "PreferOldS3Api" is read once per process, so each value is tried in a
// fresh process of this test binary: S3FakeOldApi starts one child per
// value, and the child (S3FakeOldApiChild, skipped unless started so)
// lists through the scripted server and checks which listing form went out.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/s3_fake_rig.h"
#include "tests/temp_dir.h"
#include "tests/watchdog.h"

extern char** environ;

namespace {

constexpr char kValueVariable[] = "PLINTH_OLD_API_VALUE";
constexpr char kExpectVariable[] = "PLINTH_OLD_API_EXPECT";
constexpr char kMissing[] = "-";

// Runs the child test with `value`; its exit status, its output in `output`.
int RunChild(const std::string& value, bool expectOn, const std::string& logFile) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) env.emplace_back(*e);
  env.push_back(std::string(kValueVariable) + "=" + value);
  env.push_back(std::string(kExpectVariable) + "=" + (expectOn ? "1" : "0"));
  std::vector<char*> envp;
  for (std::string& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::string exe = "/proc/self/exe", filter = "--gtest_filter=S3FakeOldApiChild.*";
  char* argv[] = {exe.data(), filter.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  pid_t pid = 0;
  int rc = posix_spawn(&pid, exe.c_str(), &actions, nullptr, argv, envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return -1;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(S3FakeOldApi, OnlyALeadingOneTurnsTheOldListingOnForTheProcess) {
  Watchdog watchdog("S3FakeOldApi children", std::chrono::seconds(240));
  TempDir dir;
  const struct {
    const char* value;
    bool on;
  } cases[] = {{"1", true}, {"10", true}, {"true", false}, {"yes", false}, {"0", false}, {kMissing, false}};
  for (const auto& c : cases) {
    std::string log = dir.path() + "/child.log";
    int status = RunChild(c.value, c.on, log);
    std::ifstream in(log);
    std::stringstream output;
    output << in.rdbuf();
    EXPECT_EQ(status, 0) << "PreferOldS3Api=\"" << c.value << "\":\n" << output.str();
    EXPECT_NE(output.str().find("[  PASSED  ] 1 test"), std::string::npos) << output.str();
  }
}

class S3FakeOldApiChild : public S3FakeTest {};

TEST_F(S3FakeOldApiChild, ListsInTheFormTheFirstReadingChose) {
  const char* value = std::getenv(kValueVariable);
  if (value == nullptr) GTEST_SKIP() << "started by S3FakeOldApi";
  bool on = std::string(std::getenv(kExpectVariable)) == "1";
  if (std::string(value) != kMissing) host.SetIni("Options", "PreferOldS3Api", value);
  FakeRule pages;
  pages.method = "GET";
  pages.respond = [](const FakeRequest& r) {
    bool v2 = QueryValue(r, "list-type") == "2";
    std::string place = QueryValue(r, v2 ? "continuation-token" : "marker");
    std::string body = "<ListBucketResult>";
    if (place == "<absent>") {
      // Version 1 without "NextMarker" goes on after the last key listed.
      body += "<Contents><Key>a</Key><Size>1</Size></Contents><Contents><Key>b</Key><Size>1</Size></Contents>"
              "<IsTruncated>true</IsTruncated>";
      if (v2) body += "<NextContinuationToken>T</NextContinuationToken>";
    } else if (place == (v2 ? "T" : "b")) {
      body += "<Contents><Key>c</Key><Size>1</Size></Contents><IsTruncated>false</IsTruncated>";
    } else {
      return FakeError(400, "InvalidArgument");
    }
    return FakeAnswer{200, {}, body + "</ListBucketResult>"};
  };
  server.Add(pages);
  for (const char* change : {"", "1", "0"}) {
    if (*change != '\0') host.SetIni("Options", "PreferOldS3Api", change);
    std::unique_ptr<TS3Conn> conn = MakeConn(Options());
    EXPECT_EQ(TS3Conn::PreferOldS3Api(), on);
    std::vector<TCloudObject> files;
    size_t before = server.Requests().size();
    ASSERT_EQ(conn->GetAllObjectsInPath(TString(), files, true, nullptr), 0);
    ASSERT_EQ(files.size(), 3u);
    EXPECT_EQ(TStringAsString(files[2].GetName()), "c");
    std::vector<FakeRequest> sent = server.Requests();
    ASSERT_EQ(sent.size(), before + 2);
    EXPECT_EQ(QueryValue(sent[before], "list-type"), on ? "<absent>" : "2");
    EXPECT_EQ(QueryValue(sent[before + 1], "marker"), on ? "b" : "<absent>");
    EXPECT_EQ(QueryValue(sent[before + 1], "continuation-token"), on ? "<absent>" : "T");
    ASSERT_EQ(conn->Verify(), 0);
    EXPECT_EQ(QueryValue(server.Requests().back(), "list-type"), on ? "<absent>" : "2");
  }
}

}  // namespace
