// The directory that keeps the host's storage: one file per record, written
// whole and atomically. A record called NAME lives in NAME.json; while it is
// being written it is .NAME.json.tmp, which a crash may leave behind.
#pragma once

#include <string>
#include <vector>

#include "host/outcome.h"
#include "qel_common/unique_fd.h"

namespace qel::host {

// What a file operation did: `error` is 0 on success, else its errno, with
// `text` naming the file, the step and the reason.
struct IoResult {
  int error = 0;
  std::string text;
  explicit operator bool() const noexcept { return error == 0; }
};

class StateDirectory {
 public:
  // Opens `path`, creating it with mode 0700 when missing (one level). A
  // path that is not a directory, one owned by another user or writable by
  // others (anyone could then plant records), or one that cannot be written
  // in is refused, naming it and why.
  static Outcome<StateDirectory> Open(const std::string& path);

  // Empty when `name` can be a record's name: not empty, at most 200 bytes,
  // no '/' or NUL, not starting with '.' (so no record is hidden, nor "."
  // or "..", nor mistaken for a temporary file). Else what is wrong.
  static std::string NameProblem(const std::string& name);

  const std::string& Path() const noexcept { return m_path; }
  std::string FileOf(const std::string& name) const;

  // The names of the records present, sorted. Leftover temporary files are
  // removed on the way; each removal is added to `removed`.
  Outcome<std::vector<std::string>> ListRecords(std::vector<std::string>& removed) const;
  // The record's text in `text`; empty when read, else why not.
  std::string ReadRecord(const std::string& name, std::string& text) const;
  // Renames the record's file to NAME.json.unreadable (or .unreadable.N when
  // that is taken) so that nothing is lost, the new path in `movedTo`;
  // empty when done, else why not.
  std::string MoveAside(const std::string& name, std::string& movedTo) const;
  // Replaces the record's file with `text`: a temporary file in the same
  // directory, synced, renamed over the old one, then the directory synced.
  // After a crash at any moment the file holds either text, whole.
  IoResult WriteRecord(const std::string& name, const std::string& text) const;
  // Removes the record's file, if any, and syncs the directory.
  IoResult RemoveRecord(const std::string& name) const;

 private:
  StateDirectory(std::string path, tools::UniqueFd fd) : m_path(std::move(path)), m_fd(std::move(fd)) {}
  IoResult Failure(const std::string& file, const char* step) const;
  IoResult SyncDirectory() const;

  std::string m_path;
  tools::UniqueFd m_fd;
};

}  // namespace qel::host
