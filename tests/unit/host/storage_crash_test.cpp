// A writer flushing growing records is killed at random moments, again and
// again; after every kill a host starting on the directory must read each
// record whole, as the last flush or the one before left it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <sstream>
#include <thread>

#include "host/file_storage.h"
#include "support/temp_directory.h"

namespace qel::host {
namespace {

using oro::SerValue;
using Node = oro::RefPtr<oro::IStorageNode>;

constexpr int kKills = 200;
constexpr const char* kGrowing = "growing";
constexpr const char* kSteady = "steady";

// The value of the n-th flush: long enough to take several writes, and
// different for every n, so a torn or mixed file cannot pass for one.
SerValue RecordOf(std::uint64_t n) {
  SerValue::List items;
  for (std::uint64_t i = 0; i <= n % 300; ++i) {
    items.push_back(SerValue{SerValue::Fields{{"n", SerValue{n}},
                                              {"i", SerValue{static_cast<std::int64_t>(i)}},
                                              {"pad", SerValue{std::string(40, 'a' + n % 26)}}}});
  }
  return SerValue{std::move(items)};
}

std::string ChildName(std::uint64_t i) { return "c" + std::to_string(i); }

Node Child(const Node& parent, const std::string& name, bool append) {
  Node child;
  if (append) {
    parent->GetOrAppendNode(name, child.Out());
  } else {
    parent->GetNode(name, child.Out());
  }
  return child;
}

// The growing record's number, 0 when absent; -1 when it is not a record
// of this test or its children do not match it.
std::int64_t NumberOf(const Node& root) {
  Node growing = Child(root, kGrowing, false);
  if (!growing) return 0;
  SerValue value;
  if (ORO_FAILED(growing->GetValue(value))) return -1;
  const auto* items = std::get_if<SerValue::List>(&value.value);
  if (!items || items->empty()) return -1;
  const auto* first = std::get_if<SerValue::Fields>(&items->front().value);
  if (!first || first->empty()) return -1;
  const auto* n = std::get_if<std::uint64_t>(&first->front().second.value);
  if (!n || value != RecordOf(*n)) return -1;
  std::vector<std::string> children;
  growing->GetChildNames(children);
  if (children.size() != *n % 7) return -1;
  for (std::uint64_t i = 0; i < children.size(); ++i) {
    SerValue childValue;
    if (children[i] != ChildName(i) || ORO_FAILED(Child(growing, children[i], false)->GetValue(childValue)) ||
        childValue != SerValue{*n}) {
      return -1;
    }
  }
  return static_cast<std::int64_t>(*n);
}

// The killed writer: once it has read the directory it says so on `done`
// (with 0), then flushes record after record, each time through a node below
// the record, and tells `done` the number of each flush that returned.
[[noreturn]] void WriteUntilKilled(const std::string& directory, int done) {
  std::ostringstream report;
  auto storage = FileStorage::Open(directory, report);
  if (!storage) _exit(3);
  Node root;
  storage.Value()->GetRootNode(root.Out());
  const std::int64_t last = NumberOf(root);
  if (last < 0) _exit(4);
  const std::uint64_t ready = 0;
  if (::write(done, &ready, sizeof ready) != sizeof ready) _exit(6);
  for (std::uint64_t n = static_cast<std::uint64_t>(last) + 1;; ++n) {
    Node growing = Child(root, kGrowing, true);
    growing->Clear();
    growing->SetValue(RecordOf(n));
    for (std::uint64_t i = 0; i < n % 7; ++i) Child(growing, ChildName(i), true)->SetValue(SerValue{n});
    Node flushedThrough = n % 7 ? Child(growing, ChildName(0), false) : growing;
    if (ORO_FAILED(flushedThrough->Flush())) _exit(5);
    if (::write(done, &n, sizeof n) != sizeof n) _exit(6);
  }
}

// The number of the last flush the writer saw return, or `otherwise`.
std::uint64_t LastReported(int done, std::uint64_t otherwise) {
  std::uint64_t n = 0;
  while (::read(done, &n, sizeof n) == sizeof n) otherwise = n;
  return otherwise;
}

TEST(StorageCrash, AKilledWriterNeverLeavesARecordThatCannotBeRead) {
  test::TempDirectory dir;
  {
    std::ostringstream report;
    auto storage = FileStorage::Open(dir.Path().string(), report);
    ASSERT_TRUE(storage) << storage.ErrorText();
    Node root;
    ASSERT_EQ(storage.Value()->GetRootNode(root.Out()), oro::errOk);
    ASSERT_EQ(Child(root, kSteady, true)->SetValue(RecordOf(299)), oro::errOk);
    ASSERT_EQ(root->Flush(), oro::errOk);
  }
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> delayUs(0, 20000);
  std::uint64_t known = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    int pipeFds[2];
    ASSERT_EQ(::pipe2(pipeFds, O_CLOEXEC), 0);
    const pid_t writer = ::fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      ::close(pipeFds[0]);
      WriteUntilKilled(dir.Path().string(), pipeFds[1]);
    }
    ::close(pipeFds[1]);
    // The kill is timed from the writer's first flush on, however long its
    // start takes (a sanitizer's build starts slowly).
    std::uint64_t ready = 1;
    const bool started = ::read(pipeFds[0], &ready, sizeof ready) == sizeof ready && ready == 0;
    if (started) std::this_thread::sleep_for(std::chrono::microseconds(delayUs(random)));
    ::kill(writer, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(writer, &status, 0), writer);
    ASSERT_TRUE(started) << "the writer did not start at kill " << kill;
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer gave up with status " << WEXITSTATUS(status) << " at kill "
                                     << kill;
    ::fcntl(pipeFds[0], F_SETFL, O_NONBLOCK);
    known = LastReported(pipeFds[0], known);
    ::close(pipeFds[0]);

    std::ostringstream report;
    auto storage = FileStorage::Open(dir.Path().string(), report);
    ASSERT_TRUE(storage) << storage.ErrorText();
    EXPECT_EQ(report.str().find("cannot be read"), std::string::npos) << "at kill " << kill << ": " << report.str();
    Node root;
    ASSERT_EQ(storage.Value()->GetRootNode(root.Out()), oro::errOk);
    const std::int64_t found = NumberOf(root);
    ASSERT_TRUE(found == static_cast<std::int64_t>(known) || found == static_cast<std::int64_t>(known) + 1)
        << "at kill " << kill << " the record is " << found << " after flush " << known << " returned";
    known = static_cast<std::uint64_t>(found);
    SerValue steady;
    ASSERT_EQ(Child(root, kSteady, false)->GetValue(steady), oro::errOk);
    ASSERT_EQ(steady, RecordOf(299));
  }
  // Not a figure to assert on; it tells whether the kills landed among flushes.
  std::cout << "[ info     ] " << kKills << " kills over " << known << " flushes\n";
}

}  // namespace
}  // namespace qel::host
