// The host's storage in memory, kept in step with its state directory: a tree
// of named nodes, each with at most one value, whose every child of the root
// (a record) is one file. Reads and changes stay in memory until a flush
// writes the record they belong to. One mutex guards everything: the module
// calls from its own threads.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "host/state_directory.h"
#include "oro/result.h"
#include "oro/storage.h"

namespace qel::host {

class StorageTree {
 public:
  struct Node {
    std::optional<oro::SerValue> value;
    std::vector<std::pair<std::string, std::shared_ptr<Node>>> children;
  };
  // A node and the record it belongs to (empty for the root). A node taken
  // before an ancestor was cleared belongs to the tree no more: it can still
  // be read and changed, but a flush writes the record as the tree has it.
  struct Place {
    std::shared_ptr<Node> node;
    std::string record;
    bool IsRoot() const noexcept { return record.empty(); }
  };

  // Reads every record of `directory`. One that cannot be read is reported
  // on `report` (file and reason), moved aside and left out; leftover
  // temporary files are removed. `report` must outlive the tree.
  StorageTree(StateDirectory directory, std::ostream& report);

  Place Root() const;
  // errNotFound when there is no such child and `append` is false;
  // errInvalidArgument, reported, for a name that no file could carry.
  oro::result_t Child(const Place& parent, const std::string& name, bool append, Place& out);
  oro::result_t ChildNames(const Place& place, std::vector<std::string>& out);
  oro::result_t Clear(const Place& place);
  // The root holds no value (errNotImplemented). A value that JSON cannot
  // hold as it is gets errInvalidArgument, reported.
  oro::result_t SetValue(const Place& place, oro::SerValue value);
  oro::result_t GetValue(const Place& place, oro::SerValue& out);
  // Writes the place's record (the root: every record, each on its own, and
  // removes the files of records cleared away). Failures are reported.
  oro::result_t Flush(const Place& place);

 private:
  void Load();
  void LoadRecord(const std::string& name);
  oro::result_t FlushRecord(const std::string& name);
  std::string RecordText(const std::string& name, const Node& node) const;

  std::mutex m_mutex;
  StateDirectory m_directory;
  std::ostream& m_report;
  std::shared_ptr<Node> m_root = std::make_shared<Node>();
  // Each record's rank among the root's children, kept in its file so that
  // the records come back in the order they were appended.
  std::map<std::string, std::uint64_t> m_rank;
  std::uint64_t m_lastRank = 0;
};

}  // namespace qel::host
