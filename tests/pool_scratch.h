// Helpers of the pool tests: a scratch folder standing in for the temporary
// folder, the ceiling put back afterwards, and the archive files it holds.
#ifndef PLINTH_TESTS_POOL_SCRATCH_H_
#define PLINTH_TESTS_POOL_SCRATCH_H_

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "foundation/tmempool.h"
#include "tests/temp_dir.h"

// Points TMPDIR at a fresh folder (or at `folder`) and sets the pool
// ceiling; both are put back when the object goes.
class ScopedPoolScratch {
 public:
  explicit ScopedPoolScratch(uint64_t ceiling, const std::string& folder = "") {
    const char* old = std::getenv("TMPDIR");
    m_hadOld = old != nullptr;
    if (m_hadOld) m_old = old;
    setenv("TMPDIR", folder.empty() ? m_dir.path().c_str() : folder.c_str(), 1);
    TMemPool::SetMaxPoolMem(ceiling);
  }
  ~ScopedPoolScratch() {
    TMemPool::SetMaxPoolMem(0);
    if (m_hadOld) {
      setenv("TMPDIR", m_old.c_str(), 1);
    } else {
      unsetenv("TMPDIR");
    }
  }
  ScopedPoolScratch(const ScopedPoolScratch&) = delete;
  ScopedPoolScratch& operator=(const ScopedPoolScratch&) = delete;

  const std::string& path() const { return m_dir.path(); }

  // The archive and mapped files in the folder.
  std::vector<std::string> Files() const {
    std::vector<std::string> out;
    for (const auto& entry : std::filesystem::directory_iterator(m_dir.path())) {
      std::string name = entry.path().filename().string();
      if (name.rfind("plinth20-", 0) == 0 && name.size() > 4 && name.substr(name.size() - 4) == ".mem") {
        out.push_back(entry.path().string());
      }
    }
    return out;
  }

 private:
  TempDir m_dir;
  bool m_hadOld = false;
  std::string m_old;
};

#endif  // PLINTH_TESTS_POOL_SCRATCH_H_
