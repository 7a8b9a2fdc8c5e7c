#include "host/storage_serializer.h"

#include <gtest/gtest.h>

#include <sstream>

#include "host/file_storage.h"
#include "support/temp_directory.h"

namespace qel::host {
namespace {

using oro::SerValue;

struct Point {
  std::int64_t x = 0;
  std::string label;
};

// A record type of the test's own: fields x (a number) and label (text).
class PointDescriptor final : public oro::SerObjDescriptor {
 public:
  explicit PointDescriptor(const char* name = "test.Point") : m_name(name) {}
  const char* TypeName() const noexcept override { return m_name; }
  std::vector<std::string> FieldNames() const override { return {"x", "label"}; }
  SerValue ToValue(const void* record) const override {
    const auto& point = *static_cast<const Point*>(record);
    return SerValue{SerValue::Fields{{"x", SerValue{point.x}}, {"label", SerValue{point.label}}}};
  }
  oro::result_t FromValue(const SerValue& value, void* record, std::string* problem) const override {
    const auto* fields = std::get_if<SerValue::Fields>(&value.value);
    const auto* x = fields && fields->size() == 2 ? std::get_if<std::int64_t>(&(*fields)[0].second.value) : nullptr;
    const auto* label = fields && fields->size() == 2 ? std::get_if<std::string>(&(*fields)[1].second.value) : nullptr;
    if (!x || !label) {
      if (problem) *problem = !x ? "x: not a number" : "label: not text";
      return oro::errInvalidArgument;
    }
    *static_cast<Point*>(record) = Point{*x, *label};
    return oro::errOk;
  }

 private:
  const char* m_name;
};

class StorageSerializerTest : public ::testing::Test {
 protected:
  StorageSerializerTest() {
    auto storage = FileStorage::Open(m_dir.Path().string(), m_report);
    oro::RefPtr<oro::IStorageNode> root;
    EXPECT_EQ(storage.Value()->GetRootNode(root.Out()), oro::errOk);
    EXPECT_EQ(root->GetOrAppendNode("record", m_node.Out()), oro::errOk);
  }

  test::TempDirectory m_dir;
  std::ostringstream m_report;
  oro::RefPtr<oro::IStorageNode> m_node;
  oro::RefPtr<StorageSerializer> m_serializer = oro::RefPtr<StorageSerializer>::Adopt(new StorageSerializer(m_report));
  PointDescriptor m_point;
};

TEST_F(StorageSerializerTest, ARecordComesBackTaggedWithItsType) {
  const Point written{-7, "seven"};
  ASSERT_EQ(m_serializer->Serialize(&written, m_point, m_node.Get(), oro::SerializerFlags::Default), oro::errOk);
  SerValue stored;
  ASSERT_EQ(m_node->GetValue(stored), oro::errOk);
  EXPECT_EQ(stored, (SerValue{SerValue::Fields{{"type", SerValue{std::string("test.Point")}},
                                               {"value", m_point.ToValue(&written)}}}));
  Point read;
  ASSERT_EQ(m_serializer->Deserialize(m_node.Get(), m_point, &read, oro::SerializerFlags::Default), oro::errOk);
  EXPECT_EQ(read.x, -7);
  EXPECT_EQ(read.label, "seven");
}

TEST_F(StorageSerializerTest, ANodeOfAnotherTypeIsRefusedAndTheRecordUntouched) {
  const Point written{1, "one"};
  const PointDescriptor other("test.OtherPoint");
  ASSERT_EQ(m_serializer->Serialize(&written, other, m_node.Get(), oro::SerializerFlags::Default), oro::errOk);
  Point read{5, "kept"};
  EXPECT_EQ(m_serializer->Deserialize(m_node.Get(), m_point, &read, oro::SerializerFlags::Default),
            oro::errInvalidArgument);
  EXPECT_EQ(read.x, 5);
  EXPECT_EQ(read.label, "kept");
  EXPECT_NE(m_report.str().find("test.Point: the node holds a test.OtherPoint"), std::string::npos) << m_report.str();

  // An untyped value is not a record of any type.
  ASSERT_EQ(m_node->SetValue(m_point.ToValue(&written)), oro::errOk);
  EXPECT_EQ(m_serializer->Deserialize(m_node.Get(), m_point, &read, oro::SerializerFlags::Default),
            oro::errInvalidArgument);
  EXPECT_EQ(read.x, 5);
}

TEST_F(StorageSerializerTest, TheDescriptorsProblemIsReportedWithItsResult) {
  ASSERT_EQ(m_node->SetValue(SerValue{SerValue::Fields{
                {"type", SerValue{std::string("test.Point")}},
                {"value", SerValue{SerValue::Fields{{"x", SerValue{std::string("NaN")}}, {"label", SerValue{}}}}}}}),
            oro::errOk);
  Point read;
  EXPECT_EQ(m_serializer->Deserialize(m_node.Get(), m_point, &read, oro::SerializerFlags::Default),
            oro::errInvalidArgument);
  EXPECT_NE(m_report.str().find("test.Point: x: not a number"), std::string::npos) << m_report.str();
}

TEST_F(StorageSerializerTest, AnEmptyNodeIsNotFound) {
  Point read;
  EXPECT_EQ(m_serializer->Deserialize(m_node.Get(), m_point, &read, oro::SerializerFlags::Default), oro::errNotFound);
  EXPECT_EQ(m_report.str(), "");
}

}  // namespace
}  // namespace qel::host
