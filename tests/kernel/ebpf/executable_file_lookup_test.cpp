// Application exclusions' executables resolved on files of a test directory.
#include "firewall/executable_file_lookup.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <fstream>

#include <gtest/gtest.h>

#include "support/temp_directory.h"

namespace qel::test {
namespace {

TEST(ExecutableFileLookupTest, ResolvesLinksToTheFileAndItsKernelIdentity) {
  TempDirectory directory;
  const std::string file = directory / "tool";
  std::ofstream(file) << "#!/bin/sh\n";
  ASSERT_EQ(::symlink(file.c_str(), (directory / "link").c_str()), 0);
  ASSERT_EQ(::mkdir((directory / "sub").c_str(), 0700), 0);
  firewall::ExecutableFileLookup lookup;

  const auto canonical = lookup.Canonical(directory / "sub/../link");
  ASSERT_TRUE(canonical);
  struct stat status {};
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  const auto identity = lookup.Identity(*canonical);
  ASSERT_TRUE(identity);
  EXPECT_EQ(identity->inode, status.st_ino);
  EXPECT_EQ(identity->device, (major(status.st_dev) << 20) | minor(status.st_dev));
  EXPECT_EQ(identity->reserved, 0u);
}

TEST(ExecutableFileLookupTest, MissingFilesAndDirectoriesHaveNoIdentity) {
  TempDirectory directory;
  firewall::ExecutableFileLookup lookup;
  EXPECT_FALSE(lookup.Canonical(directory / "missing"));
  EXPECT_FALSE(lookup.Identity(directory.Path().string()));
}

}  // namespace
}  // namespace qel::test
