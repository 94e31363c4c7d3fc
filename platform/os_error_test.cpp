#include "platform/os_error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

TEST(MapErrnoTest, NamedErrnos) {
  struct Case {
    int err;
    int code;
  };
  const Case cases[] = {
      {ENOENT, kErrNotFound},       {ENOTDIR, kErrNotFound},         {EACCES, kErrAccessDenied},
      {EPERM, kErrAccessDenied},    {EROFS, kErrWriteProtected},     {ENOSPC, kErrDiskFull},
      {EDQUOT, kErrDiskFull},       {EEXIST, kErrAlreadyExists},     {EBUSY, kErrInUse},
      {ETXTBSY, kErrInUse},         {EMFILE, kErrTooManyOpenFiles},  {ENFILE, kErrTooManyOpenFiles},
      {EINVAL, kErrBadParameter},   {ENOMEM, kErrNoMemory},          {ENAMETOOLONG, kErrBadName},
      {EAGAIN, kErrLockViolation},  {EWOULDBLOCK, kErrLockViolation}, {ECONNREFUSED, kErrNetwork},
      {ENETUNREACH, kErrNetwork},   {EHOSTUNREACH, kErrNetwork},     {ETIMEDOUT, kErrNetwork},
      {ENOTSUP, kErrNotSupported},  {EOPNOTSUPP, kErrNotSupported},  {ECANCELED, kErrAborted},
      {ENOTEMPTY, kErrDirNotEmpty}, {EBADF, kErrInvalidHandle},      {EFBIG, kErrFileTooLarge},
      {EIO, kErrIoDevice},          {ESPIPE, kErrSeek},              {EPIPE, kErrBrokenPipe},
  };
  TestHost host;
  for (const Case& c : cases) EXPECT_EQ(MapErrno(c.err, nullptr), c.code) << c.err;
}

TEST(MapErrnoTest, EveryLinuxErrnoHasARow) {
  // Linux numbers its errors 1..133 and leaves 41 and 58 unused.
  TestHost host;
  for (int err = 1; err <= 133; ++err) {
    if (err == 41 || err == 58) {
      EXPECT_EQ(MapErrno(err, nullptr), kErrUnknown) << err;
      continue;
    }
    int code = MapErrno(err, nullptr);
    EXPECT_LT(code, 0) << err;
    EXPECT_NE(code, kErrUnknown) << err;
  }
  int count = 0;
  const ErrnoMapRowSpec* rows = ErrnoTable(&count);
  std::set<int> values;
  for (int i = 0; i < count; ++i) EXPECT_TRUE(values.insert(rows[i].err).second) << rows[i].err;
  EXPECT_EQ(count, 131);
}

TEST(MapErrnoTest, LogLines) {
  TestHost host;
  EXPECT_EQ(MapErrno(ENOENT, nullptr), kErrNotFound);
  auto mapped = host.LinesWithFormat("MapErrno: mapped errno %d to %E");
  ASSERT_EQ(mapped.size(), 1u);
  EXPECT_EQ(mapped[0].selector, 519u);
  EXPECT_EQ(mapped[0].text, "MapErrno: mapped errno 2 to Not found (error -1101)");

  TString context(u"/srv/x");
  EXPECT_EQ(MapErrno(4000, nullptr), kErrUnknown);
  EXPECT_EQ(MapErrno(0, &context), kErrUnknown);
  EXPECT_EQ(MapErrno(-1, nullptr), kErrUnknown);
  auto plain = host.LinesWithFormat("MapErrno: unknown errno %d");
  auto withContext = host.LinesWithFormat("MapErrno: unknown errno %d <%s>");
  ASSERT_EQ(plain.size(), 2u);
  ASSERT_EQ(withContext.size(), 1u);
  EXPECT_EQ(plain[0].selector, 514u);
  EXPECT_EQ(plain[0].text, "MapErrno: unknown errno 4,000");
  EXPECT_EQ(withContext[0].selector, 514u);
  EXPECT_EQ(withContext[0].text, "MapErrno: unknown errno 0 </srv/x>");
}

TEST(MapErrnoTest, IoErrorTakesItsDirection) {
  TestHost host;
  EXPECT_EQ(MapIoErrno(EIO, false, nullptr), kErrReadFault);
  EXPECT_EQ(MapIoErrno(EIO, true, nullptr), kErrWriteFault);
  EXPECT_EQ(MapIoErrno(ENOSPC, true, nullptr), kErrDiskFull);
  EXPECT_EQ(host.LinesWithFormat("MapErrno: mapped errno %d to %E").size(), 3u);
}

// Real failures of the kernel, mapped through the last error.
TEST(OsErrorFsTest, KernelFailuresMapThroughTheLastError) {
  TestHost host;
  TempDir dir;
  std::string file = dir.WriteFile("file", "x");
  EXPECT_EQ(::open((dir.path() + "/missing").c_str(), O_RDONLY), -1);
  EXPECT_EQ(platform::MapLastOsError(nullptr), kErrNotFound);
  EXPECT_EQ(::mkdir(dir.path().c_str(), 0700), -1);
  EXPECT_EQ(platform::LastOsError(), EEXIST);
  EXPECT_EQ(MapOsError(0, nullptr), kErrAlreadyExists);
  EXPECT_EQ(::rmdir(dir.path().c_str()), -1);
  EXPECT_EQ(MapError(0, kMapTableWindows, nullptr, nullptr), kErrDirNotEmpty);
  EXPECT_EQ(::open((file + "/below").c_str(), O_RDONLY), -1);  // a file used as a folder
  EXPECT_EQ(platform::MapLastOsError(nullptr), kErrNotFound);
  EXPECT_EQ(::close(-1), -1);
  EXPECT_EQ(platform::MapLastOsError(nullptr), kErrInvalidHandle);
  EXPECT_EQ(::open((dir.path() + "/" + std::string(300, 'n')).c_str(), O_RDONLY), -1);
  EXPECT_EQ(platform::MapLastOsError(nullptr), kErrBadName);
}

}  // namespace
