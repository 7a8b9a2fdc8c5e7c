#include "host/file_storage.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/temp_directory.h"

namespace qel::host {
namespace {

namespace fs = std::filesystem;
using oro::SerValue;
using Node = oro::RefPtr<oro::IStorageNode>;

constexpr const char* kManager = "qel.firewall.NetworkIsolationManager";
constexpr const char* kSessions = "qel.firewall.NetworkIsolationManager.Sessions";

SerValue Text(std::string text) { return SerValue{std::move(text)}; }
SerValue Int(std::int64_t n) { return SerValue{n}; }
SerValue Uint(std::uint64_t n) { return SerValue{n}; }

// Every kind of value, nested, with fields out of alphabetical order and
// the same number as int64 and as uint64.
SerValue EveryKind() {
  return SerValue{SerValue::Fields{
      {"zeta", SerValue{}},
      {"alpha", SerValue{true}},
      {"signed", Int(5)},
      {"unsigned", Uint(5)},
      {"extremes", SerValue{SerValue::List{Int(INT64_MIN), Int(INT64_MAX), Uint(UINT64_MAX), Int(-1)}}},
      {"text", Text("ni_0x1f \"quoted\" \xc3\xa9")},
      {"empty", SerValue{SerValue::List{}}},
      {"nothing", SerValue{SerValue::Fields{}}},
      {"rules", SerValue{SerValue::List{SerValue{SerValue::Fields{{"ports", SerValue{SerValue::List{Uint(22)}}},
                                                                  {"fields", Text("a key named like a tag")}}},
                                        SerValue{SerValue::Fields{{"int", Int(7)}}}}}},
  }};
}

class FileStorageTest : public ::testing::Test {
 protected:
  // A storage on the test's directory, as a host starting now finds it.
  Node OpenRoot() {
    m_report.str("");
    auto storage = FileStorage::Open(m_dir.Path().string(), m_report);
    if (!storage) {
      ADD_FAILURE() << storage.ErrorText();
      return {};
    }
    Node root;
    EXPECT_EQ(storage.Value()->GetRootNode(root.Out()), oro::errOk);
    return root;
  }

  static Node Append(const Node& parent, const std::string& name) {
    Node child;
    if (!parent) return child;
    EXPECT_EQ(parent->GetOrAppendNode(name, child.Out()), oro::errOk) << name;
    return child;
  }

  static Node Get(const Node& parent, const std::string& name) {
    Node child;
    if (!parent) return child;
    EXPECT_EQ(parent->GetNode(name, child.Out()), oro::errOk) << name;
    return child;
  }

  // A missing node (already reported) reads as empty, so that the case goes
  // on to tell what else is wrong.
  static std::vector<std::string> Children(const Node& node) {
    std::vector<std::string> names;
    if (!node) return names;
    EXPECT_EQ(node->GetChildNames(names), oro::errOk);
    return names;
  }

  static SerValue ValueOf(const Node& node) {
    SerValue value;
    if (!node) return value;
    EXPECT_EQ(node->GetValue(value), oro::errOk);
    return value;
  }

  void WriteFile(const std::string& name, const std::string& text) { std::ofstream(m_dir / name) << text; }

  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(m_dir.Path())) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  test::TempDirectory m_dir;
  std::ostringstream m_report;
};

TEST_F(FileStorageTest, NestedValuesAndChildOrderComeBackInAFreshStorage) {
  {
    Node root = OpenRoot();
    Node manager = Append(root, kManager);
    ASSERT_EQ(manager->SetValue(EveryKind()), oro::errOk);
    Node sessions = Append(root, kSessions);
    ASSERT_EQ(Append(sessions, "ni_0x1f")->SetValue(Text("thirty-one")), oro::errOk);
    ASSERT_EQ(Append(sessions, "ni_0x0")->SetValue(Uint(0)), oro::errOk);
    Append(Append(sessions, "ni_0x2"), "empty");
    // Appended and set, never flushed: not stored.
    ASSERT_EQ(Append(root, "pending")->SetValue(Int(1)), oro::errOk);
    ASSERT_EQ(manager->Flush(), oro::errOk);
    // A node below a record flushes the whole record.
    ASSERT_EQ(Get(sessions, "ni_0x0")->Flush(), oro::errOk);
  }
  Node root = OpenRoot();
  EXPECT_EQ(m_report.str(), "");
  EXPECT_EQ(Children(root), (std::vector<std::string>{kManager, kSessions}));
  EXPECT_EQ(ValueOf(Get(root, kManager)), EveryKind());
  Node sessions = Get(root, kSessions);
  EXPECT_EQ(Children(sessions), (std::vector<std::string>{"ni_0x1f", "ni_0x0", "ni_0x2"}));
  EXPECT_EQ(ValueOf(Get(sessions, "ni_0x1f")), Text("thirty-one"));
  EXPECT_EQ(ValueOf(Get(sessions, "ni_0x0")), Uint(0));
  EXPECT_EQ(Children(Get(sessions, "ni_0x2")), std::vector<std::string>{"empty"});
}

TEST_F(FileStorageTest, RecordsComeBackInTheOrderTheyWereAppended) {
  {
    Node root = OpenRoot();
    for (const char* name : {"zulu", "alpha", "mike"}) Append(root, name);
    ASSERT_EQ(root->Flush(), oro::errOk);
  }
  {
    Node root = OpenRoot();
    Append(root, "bravo");
    ASSERT_EQ(root->Flush(), oro::errOk);
  }
  EXPECT_EQ(Children(OpenRoot()), (std::vector<std::string>{"zulu", "alpha", "mike", "bravo"}));
}

TEST_F(FileStorageTest, MissingNodesAndValuesAreNotFound) {
  Node root = OpenRoot();
  oro::IStorageNode* untouched = reinterpret_cast<oro::IStorageNode*>(0x1);
  EXPECT_EQ(root->GetNode(kManager, &untouched), oro::errNotFound);
  EXPECT_EQ(untouched, reinterpret_cast<oro::IStorageNode*>(0x1));
  Node manager = Append(root, kManager);
  EXPECT_EQ(manager->GetNode("ni_0x0", &untouched), oro::errNotFound);
  SerValue value = Text("untouched");
  EXPECT_EQ(manager->GetValue(value), oro::errNotFound);
  EXPECT_EQ(value, Text("untouched"));
  // Two handles on one node see one node.
  ASSERT_EQ(manager->SetValue(Int(3)), oro::errOk);
  EXPECT_EQ(ValueOf(Get(root, kManager)), Int(3));
}

TEST_F(FileStorageTest, ClearThenFlushRemovesTheSubtreeOnDisk) {
  {
    Node root = OpenRoot();
    Node sessions = Append(root, kSessions);
    ASSERT_EQ(sessions->SetValue(Int(2)), oro::errOk);
    Append(Append(sessions, "ni_0x1"), "deeper");
    Append(root, kManager);
    ASSERT_EQ(root->Flush(), oro::errOk);
  }
  {
    Node root = OpenRoot();
    Node sessions = Get(root, kSessions);
    ASSERT_EQ(sessions->Clear(), oro::errOk);
    ASSERT_EQ(sessions->Flush(), oro::errOk);
  }
  {
    Node root = OpenRoot();
    Node sessions = Get(root, kSessions);
    EXPECT_TRUE(Children(sessions).empty());
    SerValue value;
    EXPECT_EQ(sessions->GetValue(value), oro::errNotFound);
    // Clearing the root and flushing it removes every record's file.
    ASSERT_EQ(root->Clear(), oro::errOk);
    ASSERT_EQ(root->Flush(), oro::errOk);
  }
  EXPECT_TRUE(Children(OpenRoot()).empty());
  EXPECT_TRUE(Files().empty());
}

TEST_F(FileStorageTest, AnUnreadableFileIsReportedMovedAsideAndTheRestLoads) {
  {
    Node root = OpenRoot();
    ASSERT_EQ(Append(root, kManager)->SetValue(Int(1)), oro::errOk);
    ASSERT_EQ(root->Flush(), oro::errOk);
  }
  const std::string garbage = "{\"format\":1,\"rank\":2,\"value\":{\"fields\":{\"x\":";
  WriteFile(std::string(kSessions) + ".json", garbage);
  WriteFile("bare-number.json", "{\"format\":1,\"rank\":3,\"value\":5}");
  Node root = OpenRoot();
  const std::string report = m_report.str();
  EXPECT_NE(report.find(m_dir / (std::string(kSessions) + ".json") + " cannot be read (not JSON)"), std::string::npos)
      << report;
  EXPECT_NE(report.find("bare-number.json cannot be read (bare-number.value: a bare number"), std::string::npos)
      << report;
  EXPECT_EQ(Children(root), std::vector<std::string>{kManager});
  EXPECT_EQ(ValueOf(Get(root, kManager)), Int(1));
  std::stringstream kept;
  kept << std::ifstream(m_dir / (std::string(kSessions) + ".json.unreadable")).rdbuf();
  EXPECT_EQ(kept.str(), garbage);

  // A second unreadable copy does not replace the first.
  WriteFile("bare-number.json", "[]");
  OpenRoot();
  EXPECT_TRUE(fs::exists(m_dir / "bare-number.json.unreadable"));
  EXPECT_TRUE(fs::exists(m_dir / "bare-number.json.unreadable.2"));
}

TEST_F(FileStorageTest, ALeftoverTemporaryFileIsIgnoredAndRemoved) {
  {
    Node root = OpenRoot();
    ASSERT_EQ(Append(root, kManager)->SetValue(Text("flushed")), oro::errOk);
    ASSERT_EQ(root->Flush(), oro::errOk);
  }
  // What a crash during the next flush would leave: half a file.
  WriteFile("." + std::string(kManager) + ".json.tmp", "{\"format\":1,\"ra");
  Node root = OpenRoot();
  EXPECT_EQ(ValueOf(Get(root, kManager)), Text("flushed"));
  EXPECT_EQ(m_report.str().find("cannot be read"), std::string::npos) << m_report.str();
  EXPECT_EQ(Files(), std::vector<std::string>{std::string(kManager) + ".json"});
}

TEST_F(FileStorageTest, NamesThatCouldEscapeTheDirectoryAreRefused) {
  Node root = OpenRoot();
  for (const std::string& name :
       std::vector<std::string>{"", ".", "..", "../escape", "a/b", ".hidden", std::string("nul\0/x", 6)}) {
    oro::IStorageNode* untouched = nullptr;
    EXPECT_EQ(root->GetOrAppendNode(name, &untouched), oro::errInvalidArgument) << name;
    EXPECT_EQ(untouched, nullptr);
  }
  Node sessions = Append(root, kSessions);
  oro::IStorageNode* untouched = nullptr;
  EXPECT_EQ(sessions->GetOrAppendNode("../../escape", &untouched), oro::errInvalidArgument);
  EXPECT_NE(m_report.str().find("the node name '../../escape' holds a '/'; refused"), std::string::npos)
      << m_report.str();
  ASSERT_EQ(root->Flush(), oro::errOk);
  EXPECT_EQ(Files(), std::vector<std::string>{std::string(kSessions) + ".json"});
  EXPECT_EQ(Children(root), std::vector<std::string>{kSessions});
}

TEST_F(FileStorageTest, AValueJsonCannotHoldIsRefusedAndTheOldOneStays) {
  Node root = OpenRoot();
  Node manager = Append(root, kManager);
  ASSERT_EQ(manager->SetValue(Int(1)), oro::errOk);
  const SerValue twice{SerValue::Fields{{"a", Int(1)}, {"a", Int(2)}}};
  EXPECT_EQ(manager->SetValue(SerValue{SerValue::List{twice}}), oro::errInvalidArgument);
  EXPECT_EQ(manager->SetValue(Text("\xff\xfe")), oro::errInvalidArgument);
  EXPECT_EQ(ValueOf(manager), Int(1));
  EXPECT_NE(m_report.str().find("value[0].a: field named twice"), std::string::npos) << m_report.str();
  EXPECT_NE(m_report.str().find("not valid UTF-8"), std::string::npos) << m_report.str();
}

TEST_F(FileStorageTest, ThreadsFlushingTheirOwnRecordsAllLand) {
  {
    Node root = OpenRoot();
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&root, t] {
        Node record = Append(root, "thread" + std::to_string(t));
        for (int i = 1; i <= 20; ++i) {
          EXPECT_EQ(Append(record, "n" + std::to_string(i))->SetValue(Int(i)), oro::errOk);
          EXPECT_EQ(record->Flush(), oro::errOk);
        }
      });
    }
  }
  Node root = OpenRoot();
  ASSERT_EQ(Children(root).size(), 4u);
  for (int t = 0; t < 4; ++t) {
    Node record = Get(root, "thread" + std::to_string(t));
    EXPECT_EQ(Children(record).size(), 20u);
    EXPECT_EQ(ValueOf(Get(record, "n20")), Int(20));
  }
}

TEST(FileStorageOpen, ADirectoryThatCannotBeUsedIsRefusedByName) {
  test::TempDirectory dir;
  std::ostringstream report;
  std::ofstream(dir / "file") << "x";
  auto notDirectory = FileStorage::Open(dir / "file", report);
  ASSERT_FALSE(notDirectory);
  EXPECT_EQ(notDirectory.ErrorText(), "the state directory " + (dir / "file") + " is not a directory");

  ASSERT_EQ(::mkdir((dir / "shared").c_str(), 0700), 0);
  ASSERT_EQ(::chmod((dir / "shared").c_str(), 0770), 0);
  auto shared = FileStorage::Open(dir / "shared", report);
  ASSERT_FALSE(shared);
  EXPECT_NE(shared.ErrorText().find(dir / "shared"), std::string::npos) << shared.ErrorText();
  EXPECT_NE(shared.ErrorText().find("mode 0770"), std::string::npos) << shared.ErrorText();

  // A missing one is made, for the owner alone.
  ASSERT_TRUE(FileStorage::Open(dir / "new", report));
  EXPECT_EQ(fs::status(dir / "new").permissions(), fs::perms::owner_all);
}

}  // namespace
}  // namespace qel::host
