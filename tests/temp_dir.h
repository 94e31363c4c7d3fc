// A scratch folder for one test, removed with everything in it when the
// object goes. Made under $PLINTH_TEST_TMP when set, else under /tmp.
#ifndef PLINTH_TESTS_TEMP_DIR_H_
#define PLINTH_TESTS_TEMP_DIR_H_

#include <string>

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return m_path; }
  // Writes `content` to `name` inside the folder and returns its full path.
  std::string WriteFile(const std::string& name, const std::string& content) const;

 private:
  std::string m_path;
};

#endif  // PLINTH_TESTS_TEMP_DIR_H_
