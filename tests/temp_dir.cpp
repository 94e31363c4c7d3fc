#include "tests/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

TempDir::TempDir() {
  const char* base = std::getenv("PLINTH_TEST_TMP");
  std::filesystem::path root = base != nullptr && *base != 0 ? base : "/tmp";
  std::filesystem::create_directories(root);
  std::string pattern = (root / "plinth-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  m_path = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

std::string TempDir::WriteFile(const std::string& name, const std::string& content) const {
  std::string full = m_path + "/" + name;
  std::ofstream out(full, std::ios::binary);
  out << content;
  return full;
}
