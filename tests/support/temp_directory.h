// A fresh directory of mode 0700 under the test's temporary directory,
// removed with everything in it when the object goes.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace qel::test {

class TempDirectory {
 public:
  TempDirectory() {
    std::string pattern = ::testing::TempDir() + "qel-test-XXXXXX";
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
    m_path = pattern;
  }
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::filesystem::path& Path() const noexcept { return m_path; }
  std::string operator/(const std::string& name) const { return (m_path / name).string(); }

 private:
  std::filesystem::path m_path;
};

}  // namespace qel::test
