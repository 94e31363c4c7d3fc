#include "foundation/errors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "foundation/resources.h"
#include "foundation/tstring.h"
#include "platform/os_error.h"
#include "tests/test_host.h"

namespace {

struct Expected {
  unsigned int number;
  int code;
  int flag;
};

// The rows every caller relies on: Windows error, library code, log flag.
const Expected kTellingRows[] = {
    {24, -1010, 0}, {87, -1010, 1}, {160, -1010, 0}, {1010, -1010, 1},
    {17, -1011, 0}, {144, -1011, 0}, {1056, -1011, 1}, {1062, -1011, 1},
    {1, -1012, 1}, {50, -1012, 1}, {120, -1012, 1}, {174, -1012, 0}, {305, -1012, 1},
    {123, -1013, 1}, {154, -1013, 1}, {206, -1013, 1}, {267, -1013, 0}, {1214, -1013, 0}, {1215, -1013, 0},
    {1216, -1013, 0}, {1217, -1013, 0}, {1218, -1013, 0}, {1315, -1013, 0}, {2202, -1013, 0},
    {995, -1015, 0}, {1235, -1015, 0}, {1236, -1015, 0},
    {5, -1017, 1}, {12, -1017, 0}, {65, -1017, 0}, {1326, -1017, 1}, {1314, -1017, 1},
    {8, -1018, 1}, {14, -1018, 0}, {1130, -1018, 0},
    {16, -1020, 0}, {32, -1020, 1}, {108, -1020, 0}, {142, -1020, 0}, {170, -1020, 0}, {1230, -1020, 0},
    {1723, -1020, 1}, {2404, -1020, 0},
    {80, -1023, 1}, {183, -1023, 1}, {1316, -1023, 0},
    {18, -1024, 1}, {259, -1024, 1},
    {61, -1051, 0}, {62, -1051, 0}, {28, -1050, 0}, {1797, -1052, 0}, {1798, -1052, 0}, {1801, -1052, 0},
    {1905, -1052, 0},
    {6, -1100, 1},
    {2, -1101, 1}, {3, -1101, 1}, {161, -1101, 1}, {1060, -1101, 1}, {1920, -1101, 1},
    {15, -1102, 1}, {20, -1102, 1}, {55, -1102, 0}, {107, -1102, 0}, {1167, -1102, 1}, {1200, -1102, 1},
    {19, -1103, 1}, {21, -1104, 1},
    {25, -1105, 0}, {131, -1105, 0}, {132, -1105, 0},
    {27, -1106, 1}, {30, -1107, 0}, {1012, -1107, 0}, {29, -1108, 0}, {1013, -1108, 0}, {110, -1109, 0},
    {1011, -1109, 0},
    {31, -1110, 1}, {1106, -1110, 1}, {1110, -1110, 1}, {1115, -1110, 1}, {1122, -1110, 0}, {1123, -1110, 0},
    {1124, -1110, 0}, {1125, -1110, 0}, {1126, -1110, 0}, {1127, -1110, 0}, {1128, -1110, 0},
    {33, -1111, 1}, {167, -1111, 0},
    {4, -1112, 0}, {36, -1112, 0},
    {34, -1113, 1}, {38, -1114, 0}, {39, -1115, 0}, {112, -1115, 1},
    {51, -1116, 0}, {53, -1116, 1}, {58, -1116, 0}, {59, -1116, 1}, {64, -1116, 1}, {67, -1116, 1},
    {70, -1116, 0}, {71, -1116, 0}, {72, -1116, 0}, {1201, -1116, 1}, {1203, -1116, 1}, {1222, -1116, 1},
    {1229, -1116, 1}, {1231, -1116, 0}, {1232, -1116, 0}, {1233, -1116, 0}, {1234, -1116, 0},
    {2250, -1116, 0},
    {1117, -1117, 0}, {82, -1118, 0}, {145, -1119, 1}, {266, -1120, 0}, {1005, -1121, 1}, {1392, -1123, 1},
    {1393, -1123, 0}, {13, -1124, 1}, {1155, -1126, 0}, {23, -1127, 1},
};

// Every code the library defines so far.
const int kAllCodes[] = {
    kErrUnknown, kErrBadParameter, kErrNotPossible, kErrNotSupported, kErrBadName, kErrTimeout, kErrAborted,
    kErrBufferTooSmall, kErrAccessDenied, kErrNoMemory, kErrNoResources, kErrInUse, kErrBrokenPipe,
    kErrModuleMissing, kErrAlreadyExists, kErrNoMoreItems, kErrPending, kErrFileTooLarge, kErrEncryption,
    kErrOutOfPaper, kErrPrintQueueFull, kErrPrinterUnknown, kErrInvalidHandle, kErrNotFound,
    kErrDeviceNotPresent, kErrWriteProtected, kErrNotReady, kErrSeek, kErrSectorNotFound, kErrReadFault,
    kErrWriteFault, kErrOpenFailed, kErrDeviceFault, kErrLockViolation, kErrTooManyOpenFiles, kErrWrongDisk,
    kErrEndOfFile, kErrDiskFull, kErrNetwork, kErrIoDevice, kErrCannotMake, kErrDirNotEmpty, kErrCannotCopy,
    kErrUnrecognizedVolume, kErrFileCorrupt, kErrInvalidData, kErrNoAssociation, kErrCrc, kErrCdl,
    kErrMemOutOfMemory, kErrMemSizeTooLarge,
};

std::vector<ErrorMapRowSpec> Rows(const ErrorMapRowSpec* (*table)(int*)) {
  int count = 0;
  const ErrorMapRowSpec* rows = table(&count);
  return std::vector<ErrorMapRowSpec>(rows, rows + count);
}

TEST(ErrorTableTest, WindowsTableShape) {
  std::vector<ErrorMapRowSpec> rows = Rows(&WindowsErrorTable);
  ASSERT_EQ(rows.size(), 550u);
  std::set<int> codes(std::begin(kAllCodes), std::end(kAllCodes));
  int accessRows = 0;
  for (size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].osError);
    if (i > 0) {
      EXPECT_LE(rows[i - 1].osError, rows[i].osError) << "rows out of Windows order";
    }
    EXPECT_TRUE(rows[i].logFlag >= -1 && rows[i].logFlag <= 1);
    EXPECT_TRUE(rows[i].code == 0 || codes.count(rows[i].code) == 1);
    // A silent row that also named a code would never be silent.
    if (rows[i].logFlag == -1) {
      EXPECT_EQ(rows[i].code, 0);
    }
    if (rows[i].code == kErrAccessDenied) ++accessRows;
  }
  EXPECT_EQ(accessRows, 46);
  // The full HRESULT row stands as it is, even though it can never match.
  EXPECT_EQ(rows.back().osError, 2147942405u);
  EXPECT_EQ(rows.back().code, kErrAccessDenied);
  EXPECT_EQ(rows.back().logFlag, 1);
}

TEST(ErrorTableTest, TellingRowsMap) {
  TestHost host;
  for (const Expected& e : kTellingRows) {
    SCOPED_TRACE(e.number);
    int flag = 99;
    EXPECT_EQ(MapError(e.number, kMapTableWindows, &flag, nullptr), e.code);
    EXPECT_EQ(flag, e.flag);
  }
  // 1230 also sits in the network group's range, behind the in-use row that wins.
  int rows1230 = 0;
  for (const ErrorMapRowSpec& row : Rows(&WindowsErrorTable)) rows1230 += row.osError == 1230;
  EXPECT_EQ(rows1230, 2);
}

TEST(ErrorTableTest, EveryRowMapsToItsFirstCodedRow) {
  TestHost host;
  std::map<unsigned int, int> first;
  for (const ErrorMapRowSpec& row : Rows(&WindowsErrorTable)) {
    if (row.osError > 0xFFFF || (first.count(row.osError) != 0 && first[row.osError] != 0)) continue;
    first[row.osError] = row.code;
  }
  for (const auto& [number, code] : first) {
    if (number == 0) continue;  // 0 asks for the last OS error
    EXPECT_EQ(MapOsError(number, nullptr), code != 0 ? code : kErrUnknown) << number;
  }
}

// One call each: the code, the flag, and the one line it writes (or none).
TEST(MapErrorTest, CodeFlagAndLine) {
  const char* kMapped = "MapError: mapped Windows error %d to %E";
  const char* kUnknown = "MapError: unknown Windows error %d";
  struct Case {
    unsigned int number;
    const char16_t* context;
    int code;
    int flag;
    const char* format;  // nullptr: no line at all
    unsigned int selector;
    const char* text;
  };
  const Case cases[] = {
      {2, nullptr, kErrNotFound, 1, kMapped, 519, "MapError: mapped Windows error 2 to Not found (error -1101)"},
      // A Win32 HRESULT is reduced to its low word; only bits 16..28 name the facility.
      {0x80070005u, nullptr, kErrAccessDenied, 1, kMapped, 519, "MapError: mapped Windows error 5 to Access denied (error -1017)"},
      {0xE0070005u, nullptr, kErrAccessDenied, 1, kMapped, 519, "MapError: mapped Windows error 5 to Access denied (error -1017)"},
      {0x80070002u, nullptr, kErrNotFound, 1, kMapped, 519, "MapError: mapped Windows error 2 to Not found (error -1101)"},
      {0x80040005u, nullptr, kErrUnknown, 0, kUnknown, 514, nullptr},  // other facilities stay whole
      {0x10070005u, nullptr, kErrUnknown, 0, kUnknown, 514, nullptr},
      {1223, nullptr, kErrUnknown, -1, nullptr, 0, nullptr},  // silent row
      {3010, u"copy", kErrUnknown, -1, nullptr, 0, nullptr},
      {1359, nullptr, kErrUnknown, 1, kUnknown, 518, "MapError: unknown Windows error 1,359"},  // unexpected row
      {1359, u"C:\\data", kErrUnknown, 1, "MapError: unknown Windows error %d <%s>", 518,
       "MapError: unknown Windows error 1,359 <C:\\data>"},
      {65000, nullptr, kErrUnknown, 0, kUnknown, 514, "MapError: unknown Windows error 65,000"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.number);
    TestHost host;
    TString context(c.context);
    int flag = 99;
    EXPECT_EQ(MapError(c.number, kMapTableWindows, &flag, c.context ? &context : nullptr), c.code);
    EXPECT_EQ(flag, c.flag);
    if (c.format == nullptr) {
      EXPECT_TRUE(host.Lines().empty());
      continue;
    }
    ASSERT_EQ(host.Lines().size(), 1u);
    auto lines = host.LinesWithFormat(c.format);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].selector, c.selector);
    EXPECT_EQ(static_cast<uint32_t>(lines[0].args.at(0)), c.format == kMapped ? c.number & 0xFFFF : c.number);
    if (c.text != nullptr) {
      EXPECT_EQ(lines[0].text, c.text);
    }
  }
  // MapOsError is MapError on the Windows table.
  TestHost host;
  EXPECT_EQ(MapOsError(0x80070002u, nullptr), kErrNotFound);
  EXPECT_EQ(host.Lines().at(0).text, "MapError: mapped Windows error 2 to Not found (error -1101)");
}

TEST(MapErrorTest, BadTableIsAnAssertion) {
  TestHost host;
  int flag = 99;
  EXPECT_EQ(MapError(5, 2, &flag, nullptr), 0);
  EXPECT_EQ(flag, 0);
  ASSERT_EQ(host.AssertCount(), 1);
  EXPECT_EQ(host.AssertSources().at(0), "error");
  auto lines = host.LinesWithFormat("ASSERT: %s, line %~d");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "ASSERT: error, line 736");
}

TEST(MapErrorTest, ZeroTakesTheLastOsError) {
  TestHost host;
  errno = EACCES;
  EXPECT_EQ(MapError(0, kMapTableWindows, nullptr, nullptr), kErrAccessDenied);
  errno = ENOSPC;
  EXPECT_EQ(MapOsError(0, nullptr), kErrDiskFull);
  auto lines = host.LinesWithFormat("MapErrno: mapped errno %d to %E");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1].text, "MapErrno: mapped errno 28 to The disk is full (error -1115)");
}

TEST(MapErrorCdlTest, TableAndLines) {
  std::vector<ErrorMapRowSpec> rows = Rows(&CdlErrorTable);
  ASSERT_EQ(rows.size(), 23u);
  std::set<unsigned int> words;
  for (const ErrorMapRowSpec& row : rows) words.insert(row.osError);
  const std::set<unsigned int> expected = {0,    2,    4,    6,    8,     10,    12,    4096,  4098,  4100, 4102,
                                           4104, 4106, 4108, 8192, 8194, 12288, 12290, 12291, 16384, 20480, 65535};
  EXPECT_EQ(words, expected);

  TestHost host;
  errno = ENOENT;  // the CDL table has a word 0 of its own: no last-error lookup
  EXPECT_EQ(MapError(0, kMapTableCdl, nullptr, nullptr), kErrCdl);
  auto mapped = host.LinesWithFormat("MapError: mapped CDL error %d to %E");
  ASSERT_EQ(mapped.size(), 1u);
  EXPECT_EQ(mapped[0].selector, 519u);
  EXPECT_EQ(mapped[0].text, "MapError: mapped CDL error 0 to The CDL component failed (error -1201)");

  // A flag-only row does not stop the scan; the coded row behind it wins.
  int flag = 99;
  EXPECT_EQ(MapError(12291, kMapTableCdl, &flag, nullptr), kErrAborted);
  EXPECT_EQ(flag, 0);

  host.Clear();
  TString context(u"tape");
  EXPECT_EQ(MapError(65535, kMapTableCdl, &flag, &context), kErrUnknown);
  EXPECT_EQ(flag, 1);
  EXPECT_EQ(MapError(65535, kMapTableCdl, nullptr, nullptr), kErrUnknown);
  EXPECT_EQ(MapError(3, kMapTableCdl, &flag, nullptr), kErrUnknown);
  EXPECT_EQ(flag, 0);
  auto withContext = host.LinesWithFormat("MapError: unknown CDL error %d,<%s>");
  auto plain = host.LinesWithFormat("MapError: unknown CDL error %d");
  ASSERT_EQ(withContext.size(), 1u);
  EXPECT_EQ(withContext[0].selector, 518u);
  EXPECT_EQ(withContext[0].text, "MapError: unknown CDL error 65,535,<tape>");
  ASSERT_EQ(plain.size(), 2u);
  EXPECT_EQ(plain[0].selector, 518u);
  EXPECT_EQ(plain[1].selector, 514u);
  EXPECT_EQ(plain[1].text, "MapError: unknown CDL error 3");
}

TEST(MapAndLogErrTest, LinesBySelectorAndShape) {
  struct Case {
    const char16_t* where;
    const char* operation;  // 8-bit text arrives as UTF-8
    unsigned int number;    // 0: the last OS error, here EROFS
    int code;
    const char* text;       // nullptr: silent row, no line
    unsigned int selector;
  };
  const Case cases[] = {
      {u"D:\\backup.bin", "OpenFile", 87, kErrBadParameter, "OpenFile, D:\\backup.bin, osErr 87, error -1010", 518},
      {nullptr, "ReadFile", 38, kErrEndOfFile, "ReadFile, osErr 38, error -1114", 514},
      {nullptr, "\xC3\xB6" "ffnen", 2, kErrNotFound, "\xC3\xB6" "ffnen, osErr 2, error -1101", 518},
      {nullptr, "WriteFile", 0, kErrWriteProtected, "WriteFile, osErr 30, error -1103", 514},
      {nullptr, "Wait", 1223, kErrUnknown, nullptr, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.operation);
    TestHost host;
    TString where(c.where);
    errno = EROFS;
    EXPECT_EQ(MapAndLogErr(c.where ? &where : nullptr, c.operation, c.number), c.code);
    auto lines = host.LinesWithFormat(c.where ? "%s, %s, osErr %~d, error %~d" : "%s, osErr %~d, error %~d");
    if (c.text == nullptr) {
      EXPECT_TRUE(host.Lines().empty());
      continue;
    }
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, c.text);
    EXPECT_EQ(lines[0].selector, c.selector);
  }
}

TEST(ErrorCodeTest, PossibleOpenFileErrors) {
  std::set<int> yes;
  for (int code = -2000; code <= 0; ++code) {
    if (IsPossibleOpenFileError(code)) yes.insert(code);
  }
  EXPECT_EQ(yes, (std::set<int>{-1111, -1101, -1100, -1020}));
}

std::string KeyText(unsigned int key) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) s += static_cast<char>((key >> shift) & 0xFF);
  return s;
}

TEST(RMGetErrIDTest, KeysAndBoundaries) {
  struct Case {
    int code;
    int found;
    unsigned short group;
    int top;
  };
  const Case cases[] = {
      {-1000, 1, 16100, -1000}, {-1299, 1, 16100, -1000}, {-1300, 0, 0, 0}, {-999, 0, 0, 0},
      {-600, 1, 16101, -600},   {-699, 1, 16101, -600},   {-700, 0, 0, 0},  {-599, 0, 0, 0},
      {0, 0, 0, 0},             {INT_MIN, 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.code);
    unsigned short group = 7;
    unsigned int key = 7;
    ASSERT_EQ(RMGetErrID(c.code, &group, &key), c.found);
    if (!c.found) {
      EXPECT_EQ(group, 7);
      EXPECT_EQ(key, 7u);
      continue;
    }
    char expected[16];
    std::snprintf(expected, sizeof expected, "%04d", c.top - c.code);
    EXPECT_EQ(group, c.group);
    EXPECT_EQ(KeyText(key), expected);
  }
  unsigned short group = 0;
  unsigned int key = 0;
  RMGetErrID(-1017, &group, &key);
  EXPECT_EQ(key, ResKey("0017"));
}

TEST(ErrorTextTest, EveryCodeHasItsOwnText) {
  std::set<std::string> seen;
  for (int code : kAllCodes) {
    SCOPED_TRACE(code);
    TString text;
    EXPECT_EQ(GetErrorText(code, &text), 1);
    std::string utf8 = TStringAsString(text);
    EXPECT_FALSE(utf8.empty());
    EXPECT_TRUE(seen.insert(utf8).second) << "text shared with another code: " << utf8;
  }
  // Every code a table can produce has a text too.
  for (auto table : {&WindowsErrorTable, &CdlErrorTable}) {
    for (const ErrorMapRowSpec& row : Rows(table)) {
      TString text;
      if (row.code == 0) continue;
      EXPECT_EQ(GetErrorText(row.code, &text), 1) << row.code;
    }
  }
  int count = 0;
  const ErrnoMapRowSpec* rows = ErrnoTable(&count);
  for (int i = 0; i < count; ++i) {
    TString text;
    EXPECT_EQ(GetErrorText(rows[i].code, &text), 1) << rows[i].code;
  }
}

TEST(ErrorTextTest, GenericTextAndFormat) {
  TString generic;
  ASSERT_EQ(LoadResourceText(16000, ResKey("0000"), &generic), 1);
  TString text;
  EXPECT_EQ(GetErrorText(-1999, &text), 0);  // in range, no text
  EXPECT_EQ(text, generic);
  EXPECT_EQ(GetErrorText(-5, &text), 0);  // in no range
  EXPECT_EQ(text, generic);
  TString format;
  ASSERT_EQ(LoadResourceText(16000, ResKey("Errr"), &format), 1);
  std::string f = TStringAsString(format);
  EXPECT_EQ(f.find("%s"), f.rfind("%s"));
  EXPECT_NE(f.find("%s"), std::string::npos);
  EXPECT_NE(f.find("%~d"), std::string::npos);
  EXPECT_LT(f.find("%s"), f.find("%~d"));
}

}  // namespace
