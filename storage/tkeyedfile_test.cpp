#include "storage/tkeyedfile.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "platform/atomic_file.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"
#include "time/tdate.h"

namespace {

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TFolderLoc Folder(const TempDir& dir) { return TFolderLoc(TStringFromUTF8(dir.path())); }

}  // namespace

TEST(TKeyedFile, NamesAndFreeFileChoice) {
  EXPECT_EQ(TString(u"device00.rdi"), TKeyedFile::DeviceFileName(0));
  EXPECT_EQ(TString(u"device07.rdi"), TKeyedFile::DeviceFileName(7));
  EXPECT_EQ(TString(u"device100.rdi"), TKeyedFile::DeviceFileName(100));
  EXPECT_EQ(TString(u"Device42"), TKeyedFile::DeviceSectionName(42));
  EXPECT_EQ(TString(u"Device1234"), TKeyedFile::DeviceSectionName(1234));
  EXPECT_EQ(TString(u"device4294967295.rdi"), TKeyedFile::DeviceFileName(4294967295u));

  TempDir dir;
  TFolderLoc folder = Folder(dir);
  TKeyedFile file;
  TFileLoc loc;
  ASSERT_EQ(0, file.SetFile(&folder));
  ASSERT_EQ(0, file.GetFileLoc(&loc));
  EXPECT_EQ(TString(u"device00.rdi"), loc.GetName());
  EXPECT_EQ(0, file.Exists());

  dir.WriteFile("device00.rdi", "");
  dir.WriteFile("device01.rdi", "");
  dir.WriteFile("device03.rdi", "");
  ASSERT_EQ(0, file.SetFile(&folder));
  file.GetFileLoc(&loc);
  EXPECT_EQ(TString(u"device02.rdi"), loc.GetName());
  // Past two digits, without an upper bound.
  for (int n = 2; n < 100; ++n) dir.WriteFile(TStringAsString(TKeyedFile::DeviceFileName(n)), "");
  ASSERT_EQ(0, file.SetFile(&folder));
  file.GetFileLoc(&loc);
  EXPECT_EQ(TString(u"device100.rdi"), loc.GetName());
  EXPECT_EQ(TStringFromUTF8(dir.path() + "/device100.rdi"), loc.GetFullPath());
}

TEST(TKeyedFile, SetFileFormsAndExists) {
  TempDir dir;
  TFolderLoc folder = Folder(dir);
  TKeyedFile file;
  TFileLoc loc;
  ASSERT_EQ(0, file.SetFile(&folder, 5));
  file.GetFileLoc(&loc);
  EXPECT_EQ(TString(u"device05.rdi"), loc.GetName());
  TString name = u"other.ini";
  ASSERT_EQ(0, file.SetFile(&folder, &name));
  file.GetFileLoc(&loc);
  EXPECT_EQ(name, loc.GetName());
  EXPECT_EQ(0, file.Exists());
  dir.WriteFile("other.ini", "[Default]\r\nk=v\r\n");
  EXPECT_EQ(1, file.Exists());
  TFileLoc direct(folder, TString(u"other.ini"));
  TKeyedFile second;
  ASSERT_EQ(0, second.SetFile(&direct));
  TString key = u"k", value;
  EXPECT_EQ(1, second.GetKey(&key, &value));
  EXPECT_EQ(TString(u"v"), value);

  // Every SetFile clears the device number and the flag.
  second.SetDevice(3);
  TString absent = u"absent";
  EXPECT_EQ(1, second.isMultiSec(&absent));
  ASSERT_EQ(0, second.SetFile(&direct));
  EXPECT_EQ(0, second.IsMultiSection());
  EXPECT_EQ(0u, second.GetDevice());
}

TEST(TKeyedFile, EveryOverloadRoundTrips) {
  TempDir dir;
  TFolderLoc folder = Folder(dir);
  TKeyedFile file;
  ASSERT_EQ(0, file.SetFile(&folder, 0));
  TString name = u"Name", label = u"disk one", size = u"Size", count = u"Count", when = u"When";
  ASSERT_EQ(0, file.SetKey(&name, &label));
  EXPECT_EQ(1, file.Exists());
  unsigned hex = 0x1F;
  ASSERT_EQ(0, file.SetKey(&size, &hex));
  TDate date;
  ASSERT_EQ(0, date.FromISOString(TString(u"2024-02-29T13:45:10.00+0000")));
  file.SetKey(&when, &date);
  TString dev = u"Device01", countText = u"-42";
  file.SetKey(&dev, &count, &countText);

  TString value;
  EXPECT_EQ(1, file.GetKey(&name, &value));
  EXPECT_EQ(label, value);
  EXPECT_EQ(1, file.GetKey(&size, &value));
  EXPECT_EQ(TString(u"0x1f"), value);
  unsigned big = 0xDEADBEEF;
  TString bigKey = u"Big";
  ASSERT_EQ(0, file.SetKey(&bigKey, &big));
  EXPECT_EQ(1, file.GetKey(&bigKey, &value));
  EXPECT_EQ(TString(u"0xdeadbeef"), value);
  EXPECT_EQ(1, file.GetKey(&when, &value));
  EXPECT_EQ(date.ToISOString(), value);
  TDate back;
  ASSERT_EQ(0, back.FromISOString(value));
  EXPECT_TRUE(back == date);

  // Numbers convert with "%u" and "%d": the hex form reads as its leading 0.
  unsigned u = 99;
  EXPECT_EQ(1, file.GetKey(&size, &u));
  EXPECT_EQ(0u, u);
  int i = 0;
  EXPECT_EQ(1, file.GetKey(&dev, &count, &i));
  EXPECT_EQ(-42, i);
  TString decimal = u"4000000000";
  file.SetKey(&dev, &size, &decimal);
  EXPECT_EQ(1, file.GetKey(&dev, &size, &u));
  EXPECT_EQ(4000000000u, u);
  // Missing keys answer 0 and leave numbers alone.
  TString missing = u"Missing";
  i = 7;
  EXPECT_EQ(0, file.GetKey(&missing, &i));
  EXPECT_EQ(7, i);
  EXPECT_EQ(0, file.GetKey(&dev, &missing, &u));

  // Reads without a section follow the flag and the device number.
  EXPECT_EQ(0, file.GetKey(&count, &value));
  file.SetDevice(1);
  EXPECT_EQ(1, file.isMultiSec(&count));
  EXPECT_EQ(1, file.GetKey(&count, &i));
  EXPECT_EQ(-42, i);
  EXPECT_EQ(1, file.GetKey(&count, &u));
  // Writes without a section still go to "Default".
  TString other = u"x";
  ASSERT_EQ(0, file.SetKey(&count, &other));
  EXPECT_EQ(1, file.GetKey(&count, &i));
  EXPECT_EQ(-42, i);
  EXPECT_EQ(0, file.isMultiSec(&count));
  EXPECT_EQ(1, file.GetKey(&count, &value));
  EXPECT_EQ(other, value);
}

TEST(TKeyedFile, EmptyValueIsNotFound) {
  TempDir dir;
  dir.WriteFile("device00.rdi", "[Default]\r\nBlank=\r\nSpaces=   \r\n");
  TFolderLoc folder = Folder(dir);
  TKeyedFile file;
  file.SetFile(&folder, 0);
  TString section = u"Default", blank = u"Blank", spaces = u"Spaces", value = u"stale";
  EXPECT_EQ(0, file.GetKey(&section, &blank, &value));
  EXPECT_TRUE(value.IsEmpty());
  EXPECT_EQ(0, file.GetKey(&section, &spaces, &value));
  // An empty value in "Default" counts as absent for isMultiSec too.
  EXPECT_EQ(1, file.isMultiSec(&blank));
}

TEST(TKeyedFile, CountSectionsStopsAtGapAndHundred) {
  TempDir dir;
  TFolderLoc folder = Folder(dir);
  dir.WriteFile("device00.rdi", "[Device00]\nId=a\n[Device02]\nId=c\n");
  TKeyedFile file;
  file.SetFile(&folder, 0);
  TString id = u"Id";
  EXPECT_EQ(1, file.CountSections(&id));
  EXPECT_EQ(1, file.GetSectionCount());
  EXPECT_EQ(1, file.IsMultiSection());

  // No hit leaves the flag as it was.
  dir.WriteFile("device01.rdi", "[Device00]\nId=\n[Device01]\nId=b\n");
  file.SetFile(&folder, 1);
  EXPECT_EQ(0, file.CountSections(&id));
  EXPECT_EQ(0, file.IsMultiSection());

  std::string many;
  for (int n = 0; n < 120; ++n) many += "[" + TStringAsString(TKeyedFile::DeviceSectionName(n)) + "]\nId=x\n";
  dir.WriteFile("device02.rdi", many);
  file.SetFile(&folder, 2);
  EXPECT_EQ(TKeyedFile::kMaxSections, file.CountSections(&id));
  EXPECT_EQ(100, file.GetSectionCount());
}

TEST(TKeyedFile, DeleteAndFlush) {
  TempDir dir;
  TFolderLoc folder = Folder(dir);
  TKeyedFile file;
  file.SetFile(&folder, 9);
  TString key = u"k", value = u"v";
  file.SetKey(&key, &value);
  std::string path = dir.path() + "/device09.rdi";
  std::string before = ReadAll(path);
  file.Flush();
  EXPECT_EQ(before, ReadAll(path));
  ASSERT_EQ(1, file.Exists());
  {
    TestHost host;
    file.Delete(0);
    EXPECT_EQ(0, file.Exists());
    EXPECT_TRUE(host.LinesWithFormat("RemoveFileAt: cannot remove %s, %E").empty());
    file.Delete(1);
    EXPECT_TRUE(host.LinesWithFormat("RemoveFileAt: cannot remove %s, %E").empty());
    file.Delete(0);
    EXPECT_EQ(1u, host.LinesWithFormat("RemoveFileAt: cannot remove %s, %E").size());
  }
  // Reads of a file that is gone are empty, not failures.
  EXPECT_EQ(0, file.GetKey(&key, &value));
  EXPECT_TRUE(value.IsEmpty());
}
