#include "host/state_directory.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "host/private_directory.h"

namespace qel::host {
namespace {

constexpr const char* kRecordSuffix = ".json";
constexpr const char* kTemporarySuffix = ".tmp";
constexpr std::size_t kMaxNameBytes = 200;
constexpr int kMaxAsideCopies = 1000;

std::string ErrnoText(int error) { return std::strerror(error); }

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string TemporaryOf(const std::string& name) { return "." + name + kRecordSuffix + kTemporarySuffix; }

IoResult WriteAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return IoResult{errno, ""};
    }
    done += static_cast<std::size_t>(n);
  }
  return {};
}

}  // namespace

Outcome<StateDirectory> StateDirectory::Open(const std::string& path) {
  using Failed = Outcome<StateDirectory>;
  if (path.empty()) return Failed::Error("the state directory's path is empty");
  const std::string requirement = "may be written by others; it must be owned by user " +
                                  std::to_string(::geteuid()) + " and writable by it alone";
  if (auto problem = PreparePrivateDirectory(path, "the state directory", 022, requirement); !problem.empty()) {
    return Failed::Error(problem);
  }
  tools::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return Failed::Error("cannot open the state directory " + path + ": " + ErrnoText(errno));
  StateDirectory directory(path, std::move(fd));
  // Found now rather than at the first save, which may come much later.
  constexpr const char* kProbe = ".write-probe.tmp";
  tools::UniqueFd probe(::openat(directory.m_fd.Get(), kProbe, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!probe) return Failed::Error("cannot write in the state directory " + path + ": " + ErrnoText(errno));
  ::unlinkat(directory.m_fd.Get(), kProbe, 0);
  return directory;
}

std::string StateDirectory::NameProblem(const std::string& name) {
  if (name.empty()) return "a node name is empty";
  if (name.size() > kMaxNameBytes) return "the node name '" + name.substr(0, 40) + "...' is longer than 200 bytes";
  if (name.find('\0') != std::string::npos)
    return "the node name '" + name.substr(0, name.find('\0')) + "...' holds a NUL";
  if (name.find('/') != std::string::npos) return "the node name '" + name + "' holds a '/'";
  if (name.front() == '.') return "the node name '" + name + "' starts with '.'";
  return "";
}

std::string StateDirectory::FileOf(const std::string& name) const { return m_path + "/" + name + kRecordSuffix; }

Outcome<std::vector<std::string>> StateDirectory::ListRecords(std::vector<std::string>& removed) const {
  using Failed = Outcome<std::vector<std::string>>;
  tools::UniqueFd listing(::openat(m_fd.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  DIR* dir = listing ? ::fdopendir(listing.Get()) : nullptr;
  if (!dir) return Failed::Error("cannot list the state directory " + m_path + ": " + ErrnoText(errno));
  listing.Release();  // closedir closes it
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string file = entry->d_name;
    if (file.front() == '.') {
      if (file != "." && file != ".." && EndsWith(file, kTemporarySuffix) &&
          ::unlinkat(m_fd.Get(), file.c_str(), 0) == 0) {
        removed.push_back(m_path + "/" + file);
      }
      continue;
    }
    if (!EndsWith(file, kRecordSuffix)) continue;
    names.push_back(file.substr(0, file.size() - std::strlen(kRecordSuffix)));
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

std::string StateDirectory::ReadRecord(const std::string& name, std::string& text) const {
  // A link could lead out of the directory: not followed.
  tools::UniqueFd fd(::openat(m_fd.Get(), (name + kRecordSuffix).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!fd) return ErrnoText(errno);
  struct stat st {};
  if (::fstat(fd.Get(), &st) != 0) return ErrnoText(errno);
  if (!S_ISREG(st.st_mode)) return "not a regular file";
  text.clear();
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd.Get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return ErrnoText(errno);
    if (n == 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
  }
  return "";
}

std::string StateDirectory::MoveAside(const std::string& name, std::string& movedTo) const {
  const std::string from = name + kRecordSuffix;
  for (int copy = 1; copy <= kMaxAsideCopies; ++copy) {
    const std::string to = from + ".unreadable" + (copy == 1 ? "" : "." + std::to_string(copy));
    if (::renameat2(m_fd.Get(), from.c_str(), m_fd.Get(), to.c_str(), RENAME_NOREPLACE) == 0) {
      SyncDirectory();
      movedTo = m_path + "/" + to;
      return "";
    }
    if (errno != EEXIST) return "cannot rename it: " + ErrnoText(errno);
  }
  return "cannot rename it: too many unreadable copies beside it";
}

IoResult StateDirectory::WriteRecord(const std::string& name, const std::string& text) const {
  const std::string temporary = TemporaryOf(name);
  tools::UniqueFd fd(
      ::openat(m_fd.Get(), temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd) return Failure(temporary, "create");
  IoResult result = WriteAll(fd.Get(), text);
  if (result) {
    if (::fsync(fd.Get()) != 0) result = Failure(temporary, "fsync");
  } else {
    errno = result.error;
    result = Failure(temporary, "write");
  }
  if (result && ::close(fd.Release()) != 0) result = Failure(temporary, "close");
  if (result && ::renameat(m_fd.Get(), temporary.c_str(), m_fd.Get(), (name + kRecordSuffix).c_str()) != 0) {
    result = Failure(temporary, "rename");
  }
  if (!result) {
    ::unlinkat(m_fd.Get(), temporary.c_str(), 0);
    return result;
  }
  return SyncDirectory();
}

IoResult StateDirectory::RemoveRecord(const std::string& name) const {
  const std::string file = name + kRecordSuffix;
  if (::unlinkat(m_fd.Get(), file.c_str(), 0) != 0) return errno == ENOENT ? IoResult{} : Failure(file, "remove");
  return SyncDirectory();
}

IoResult StateDirectory::Failure(const std::string& file, const char* step) const {
  const int error = errno;
  return IoResult{error, m_path + "/" + file + ": " + step + ": " + ErrnoText(error)};
}

IoResult StateDirectory::SyncDirectory() const {
  if (::fsync(m_fd.Get()) != 0) return Failure(".", "fsync");
  return {};
}

}  // namespace qel::host
